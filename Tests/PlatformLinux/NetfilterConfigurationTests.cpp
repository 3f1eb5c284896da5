#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "PlatformLinuxDaemon/NetfilterConfiguration.hpp"
#include "TestSupport/DeterministicExecutor.hpp"

namespace stillow::platform {
namespace {

using authority::FilterArmingState;
using authority::FilterPathReadiness;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using enum authority::FilterArmingState;
using Holder = FilterQueueHolder;

/// A kernel that has our rules of a family or has not, behind commands that fail when told to.
class ScriptedRules final : public CommandRunning {
 public:
  std::map<IPFamily, bool> isInPlace;
  std::string hangs;                 ///< a command of this name takes too long
  std::string fails;                 ///< a command of this name exits with 1
  int restoreFailuresLeft = 0;       ///< of any family; the rules changed in between
  std::vector<std::string> changes;  ///< "iptables-restore arm", in order
  int commands = 0;

  std::expected<CommandResult, CommandFailure> run(const Command& command) override {
    ++commands;
    const std::string& name = command.arguments.front();
    const IPFamily family = name.starts_with("ip6") ? IPFamily::v6 : IPFamily::v4;
    const bool isRestore = name.ends_with("-restore");
    if (isRestore) changes.push_back(name + (isArming(command.input) ? " arm" : " disarm"));
    if (name == hangs) {
      return std::unexpected(
          CommandFailure{CommandFailure::Reason::tookTooLong, "The command took too long."});
    }
    if (name == fails || (isRestore && restoreFailuresLeft-- > 0)) {
      return CommandResult{.exitStatus = 1, .errors = name + ": line 3 failed\nmore\n"};
    }
    if (!isRestore) return CommandResult{.output = listing(family, command.arguments.back())};
    isInPlace[family] = isArming(command.input);
    return CommandResult{};
  }

 private:
  static bool isArming(const std::string& text) { return text.find("-I OUTPUT") != text.npos; }

  /// What the family's listing command says of one table.
  std::string listing(IPFamily family, const std::string& table) {
    if (!isInPlace[family]) return "*" + table + "\n:OUTPUT ACCEPT [0:0]\nCOMMIT\n";
    const std::string text = NetfilterRules::armText(family, {});
    std::string part = text.substr(text.find("*" + table));
    part.resize(part.find("COMMIT\n"));
    for (const std::string hook : {"OUTPUT", "FORWARD"}) {
      const std::string inserted = "-I " + hook + " 1 ";
      for (auto at = part.find(inserted); at != part.npos; at = part.find(inserted)) {
        part.replace(at, inserted.size(), "-A " + hook + " ");
      }
    }
    return part + "COMMIT\n";
  }
};

class ScriptedQueue final : public FilterQueueInspecting {
 public:
  std::expected<Holder, std::string> answer = Holder{Holder::Kind::ourFilter};
  std::expected<Holder, std::string> holder() override { return answer; }
};

class NetfilterConfigurationTest : public ::testing::Test {
 protected:
  std::unique_ptr<NetfilterConfiguration> make(std::vector<IPFamily> families = {IPFamily::v4,
                                                                                 IPFamily::v6}) {
    return std::make_unique<NetfilterConfiguration>(
        NetfilterConfiguration::Collaborators{.blocking = executor.blockingExecutor(),
                                              .commands = rules,
                                              .queue = queue,
                                              .families = [families] { return families; }});
  }
  std::expected<void, std::string> apply(FilterArmingState state) {
    auto applied = executor.run(configuration->apply(state));
    if (!applied) return std::unexpected(applied.error().description);
    return {};
  }
  FilterPathReadiness readiness() {
    const auto found = executor.run(configuration->readiness());
    EXPECT_TRUE(found) << found.error().description;
    return found.value_or(FilterPathReadiness{});
  }
  void install() { rules->isInPlace = {{IPFamily::v4, true}, {IPFamily::v6, true}}; }

  stillow::test::DeterministicExecutor executor;
  std::shared_ptr<ScriptedRules> rules = std::make_shared<ScriptedRules>();
  std::shared_ptr<ScriptedQueue> queue = std::make_shared<ScriptedQueue>();
  std::unique_ptr<NetfilterConfiguration> configuration = make();
};

TEST_F(NetfilterConfigurationTest, armsBothFamiliesAndDisarmsThem) {
  EXPECT_TRUE(apply(armed));
  EXPECT_EQ(readiness(), (FilterPathReadiness{true, true}));
  EXPECT_TRUE(apply(disarmed));
  EXPECT_EQ(readiness(), (FilterPathReadiness{true, false}));
  EXPECT_THAT(rules->changes, ElementsAre("iptables-restore arm", "ip6tables-restore arm",
                                          "iptables-restore disarm", "ip6tables-restore disarm"));
}

TEST_F(NetfilterConfigurationTest, loadsTheRulesAgainWhenArmedAgain) {
  install();
  EXPECT_TRUE(apply(armed));
  EXPECT_THAT(rules->changes, ElementsAre("iptables-restore arm", "ip6tables-restore arm"));
}

TEST_F(NetfilterConfigurationTest, changesNothingWhenThereIsNothingToDisarm) {
  EXPECT_TRUE(apply(disarmed));
  EXPECT_THAT(rules->changes, IsEmpty());
}

TEST_F(NetfilterConfigurationTest, isEnabledOnlyWithTheRulesOfBothFamilies) {
  rules->isInPlace[IPFamily::v4] = true;
  EXPECT_FALSE(readiness().filterConfigurationIsEnabled);
  install();
  EXPECT_TRUE(readiness().filterConfigurationIsEnabled);
  rules->isInPlace[IPFamily::v4] = false;
  EXPECT_FALSE(readiness().filterConfigurationIsEnabled);
}

TEST_F(NetfilterConfigurationTest, leavesIPv6AloneWhereTheKernelRunsWithoutIt) {
  configuration = make({IPFamily::v4});
  rules->fails = "ip6tables-restore";
  EXPECT_TRUE(apply(armed));
  EXPECT_TRUE(readiness().filterConfigurationIsEnabled);
  EXPECT_TRUE(apply(disarmed));
  EXPECT_THAT(rules->changes, ElementsAre("iptables-restore arm", "iptables-restore disarm"));
}

TEST_F(NetfilterConfigurationTest, takesTheFirstFamilyBackWhenTheSecondFails) {
  rules->fails = "ip6tables-restore";
  const auto applied = apply(armed);
  ASSERT_FALSE(applied);
  EXPECT_EQ(applied.error(),
            "The command ip6tables-restore failed with status 1: ip6tables-restore: line 3 failed");
  EXPECT_FALSE(rules->isInPlace[IPFamily::v4]);
  EXPECT_FALSE(readiness().filterConfigurationIsEnabled);
}

TEST_F(NetfilterConfigurationTest, takesBackOnlyWhatItPutInPlace) {
  install();
  rules->fails = "ip6tables-restore";
  EXPECT_FALSE(apply(armed));
  EXPECT_TRUE(rules->isInPlace[IPFamily::v4]) << "it blocked before and goes on blocking";
}

TEST_F(NetfilterConfigurationTest, disarmsTheSecondFamilyEvenIfTheFirstFails) {
  install();
  rules->fails = "iptables-restore";
  EXPECT_FALSE(apply(disarmed));
  EXPECT_FALSE(rules->isInPlace[IPFamily::v6]);
}

TEST_F(NetfilterConfigurationTest, listsAgainWhenTheRulesChangedBetweenListingAndLoading) {
  rules->restoreFailuresLeft = 1;
  EXPECT_TRUE(apply(armed));
  EXPECT_TRUE(readiness().filterConfigurationIsEnabled);
}

TEST_F(NetfilterConfigurationTest, givesUpAtOnceOnACommandThatHangs) {
  for (const char* const name :
       {"iptables-save", "iptables-restore", "ip6tables-save", "ip6tables-restore"}) {
    SCOPED_TRACE(name);
    rules = std::make_shared<ScriptedRules>();
    configuration = make();
    rules->hangs = name;
    EXPECT_FALSE(apply(armed));
    int hung = 0;
    for (const auto& change : rules->changes) hung += change == std::string(name) + " arm" ? 1 : 0;
    EXPECT_LE(hung, 1);
    EXPECT_FALSE(rules->isInPlace[IPFamily::v4]) << "nothing is left half done";
  }
}

TEST_F(NetfilterConfigurationTest, saysWhenItCannotBeReadBack) {
  install();
  rules->hangs = "ip6tables-save";
  const auto found = executor.run(configuration->readiness());
  ASSERT_FALSE(found);
  EXPECT_EQ(found.error().description, "The command took too long.");
}

TEST_F(NetfilterConfigurationTest, armsTowardAQueueThatNobodyHolds) {
  // Packets pass there, and the filter is in force as soon as it comes.
  queue->answer = Holder{Holder::Kind::nobody};
  EXPECT_TRUE(apply(armed));
  EXPECT_EQ(readiness(), (FilterPathReadiness{false, true}));
}

TEST_F(NetfilterConfigurationTest, neverArmsTowardAQueueThatAStrangerHolds) {
  queue->answer = Holder{Holder::Kind::stranger, "sniffer (process 77)"};
  const auto applied = apply(armed);
  ASSERT_FALSE(applied);
  EXPECT_THAT(applied.error(), HasSubstr("sniffer (process 77)"));
  EXPECT_THAT(rules->changes, IsEmpty());
}

TEST_F(NetfilterConfigurationTest, takesTheRulesAwayFromAStranger) {
  install();
  queue->answer = Holder{Holder::Kind::stranger, "sniffer (process 77)"};
  EXPECT_EQ(readiness(), (FilterPathReadiness{false, false}));
  EXPECT_FALSE(apply(armed));
  EXPECT_FALSE(rules->isInPlace[IPFamily::v4]);
  EXPECT_FALSE(rules->isInPlace[IPFamily::v6]);
}

TEST_F(NetfilterConfigurationTest, disarmsWhoeverHoldsTheQueue) {
  install();
  queue->answer = Holder{Holder::Kind::stranger, "sniffer (process 77)"};
  EXPECT_TRUE(apply(disarmed));
  EXPECT_FALSE(rules->isInPlace[IPFamily::v4]);
  install();
  queue->answer = std::unexpected("The packet queue's state could not be read.");
  EXPECT_TRUE(apply(disarmed));
}

TEST_F(NetfilterConfigurationTest, failsWhenTheHolderCannotBeFound) {
  queue->answer = std::unexpected("The packet queue's state could not be read.");
  EXPECT_FALSE(apply(armed));
  EXPECT_THAT(rules->changes, IsEmpty());
  EXPECT_FALSE(executor.run(configuration->readiness()));
}

TEST_F(NetfilterConfigurationTest, removesEverything) {
  install();
  EXPECT_TRUE(configuration->remove());
  EXPECT_FALSE(rules->isInPlace[IPFamily::v4]);
  EXPECT_FALSE(rules->isInPlace[IPFamily::v6]);
  const int commands = rules->commands;
  EXPECT_TRUE(configuration->remove()) << "again is harmless";
  EXPECT_GT(rules->commands, commands);
}

}  // namespace
}  // namespace stillow::platform
