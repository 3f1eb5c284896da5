#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "NamespaceTesting.hpp"
#include "PlatformLinuxDaemon/FilterProcessWatch.hpp"
#include "PlatformLinuxDaemon/NetfilterConfiguration.hpp"
#include "PlatformLinuxPeer/SignedExecutableIdentifier.hpp"
#include "TestSupport/DeterministicExecutor.hpp"
#include "TestSupport/TemporaryDirectory.hpp"

/// With the kernel's own rules and queue, the real commands and real signatures, in a network
/// namespace. Needs root.
namespace stillow::platform {
namespace {

using authority::FilterArmingState;
using authority::FilterPathReadiness;
using stillow::test::TemporaryDirectory;
using ::testing::HasSubstr;
using testing::inOwnNamespaces;
using ::testing::Not;
using testing::shell;
using testing::shellOutput;
using testing::signedQueueHolder;
using testing::startQueueHolder;
using enum authority::FilterArmingState;

/// Everything as in the daemon, but for threads.
struct Machine {
  explicit Machine(std::vector<std::string> programDirectories = {"/usr/sbin", "/usr/bin", "/sbin",
                                                                  "/bin"})
      : commands(std::make_shared<CommandRunner>(std::chrono::milliseconds(1'500),
                                                 std::move(programDirectories))) {}

  std::expected<void, std::string> apply(FilterArmingState state) {
    auto applied = executor.run(configuration.apply(state));
    if (!applied) return std::unexpected(applied.error().description);
    return {};
  }
  FilterPathReadiness readiness() {
    const auto found = executor.run(configuration.readiness());
    EXPECT_TRUE(found) << found.error().description;
    return found.value_or(FilterPathReadiness{});
  }

  stillow::test::DeterministicExecutor executor;
  std::shared_ptr<SignedExecutableIdentifier> identifier =
      std::make_shared<SignedExecutableIdentifier>(CodeSigningAnchor::installed(),
                                                   [] { return core::Date{}; });
  std::shared_ptr<KernelFilterQueueInspector> queue = std::make_shared<KernelFilterQueueInspector>(
      [who = identifier](const PinnedProcess& process) { return who->identify(process); }, nullptr);
  std::shared_ptr<CommandRunner> commands;
  NetfilterConfiguration configuration{
      {.blocking = executor.blockingExecutor(), .commands = commands, .queue = queue}};
};

std::string allRules() {
  std::string rules;
  for (const char* const family : {"iptables", "ip6tables"}) {
    for (const char* const table : {"mangle", "filter"}) {
      rules +=
          shellOutput(std::string(family) + "-save -t " + table + " | grep '^-A\\|^:STI' || true");
    }
  }
  return rules;
}

std::size_t occurrences(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != text.npos; at = text.find(part, at + 1)) ++count;
  return count;
}

TEST(NetfilterConfigurationKernel, putsTheRulesInPlaceOnceHoweverOftenAndTakesThemAllAway) {
  inOwnNamespaces([] {
    shell("iptables -A OUTPUT -p tcp --dport 9 -j REJECT");  // somebody else's
    shell("ip6tables -t mangle -A OUTPUT -p udp --dport 9 -j DROP");
    const std::string before = allRules();
    Machine machine;
    EXPECT_EQ(machine.readiness(), FilterPathReadiness{});
    for (int round = 0; round < 3; ++round) ASSERT_TRUE(machine.apply(armed));
    EXPECT_EQ(machine.readiness(), (FilterPathReadiness{false, true}));
    const std::string rules = allRules();
    EXPECT_EQ(occurrences(rules, "-A OUTPUT -j STILLOW-HOLD"), 2U);
    EXPECT_EQ(occurrences(rules, "-A OUTPUT -j STILLOW-VERDICT"), 2U);
    EXPECT_THAT(rules, HasSubstr("--dport 9 -j REJECT"));
    ASSERT_TRUE(machine.apply(disarmed));
    EXPECT_EQ(allRules(), before);
    EXPECT_EQ(machine.readiness(), FilterPathReadiness{});
  });
}

TEST(NetfilterConfigurationKernel, seesAndRepairsWhateverAnotherProgramTookAway) {
  inOwnNamespaces([] {
    Machine machine;
    ASSERT_TRUE(machine.apply(armed));
    for (const char* const damage :
         {"iptables -t mangle -F OUTPUT", "ip6tables -t filter -F OUTPUT",
          "iptables -t mangle -F STILLOW-HOLD", "ip6tables -t mangle -D STILLOW-ANSWER 1",
          "iptables -t filter -F; iptables -t filter -X",
          "ip6tables -t mangle -D FORWARD -j STILLOW-HOLD"}) {
      SCOPED_TRACE(damage);
      ASSERT_TRUE(machine.readiness().filterConfigurationIsEnabled);
      shell(damage);
      EXPECT_FALSE(machine.readiness().filterConfigurationIsEnabled);
      EXPECT_TRUE(machine.apply(armed));
      EXPECT_TRUE(machine.readiness().filterConfigurationIsEnabled);
    }
  });
}

TEST(NetfilterConfigurationKernel, approvesTheFilterByItsSignature) {
  inOwnNamespaces([] {
    Machine machine;
    EXPECT_FALSE(machine.readiness().extensionIsApproved);
    auto filter = startQueueHolder(signedQueueHolder());
    EXPECT_TRUE(machine.readiness().extensionIsApproved);
    ASSERT_TRUE(machine.apply(armed));
    EXPECT_EQ(machine.readiness(), (FilterPathReadiness{true, true}));
    filter.kill();
    EXPECT_EQ(machine.readiness(), (FilterPathReadiness{false, true}));
    auto next = startQueueHolder(signedQueueHolder());
    EXPECT_EQ(machine.readiness(), (FilterPathReadiness{true, true}));
  });
}

TEST(NetfilterConfigurationKernel, namesAStrangerOnTheQueueAndKeepsTrafficFromIt) {
  inOwnNamespaces([] {
    const TemporaryDirectory directory;
    const std::string stranger = directory.path("stranger");
    std::filesystem::copy_file(signedQueueHolder(), stranger);  // without the signature
    Machine machine;
    ASSERT_TRUE(machine.apply(armed));
    auto holder = startQueueHolder(stranger);
    EXPECT_EQ(machine.readiness(), FilterPathReadiness{});
    const auto applied = machine.apply(armed);
    ASSERT_FALSE(applied);
    EXPECT_THAT(applied.error(),
                HasSubstr("stranger (process " + std::to_string(holder.pid()) + ")"));
    EXPECT_THAT(allRules(), Not(HasSubstr("STILLOW")));
    holder.kill();
    EXPECT_TRUE(machine.apply(armed));
    EXPECT_EQ(machine.readiness(), (FilterPathReadiness{false, true}));
  });
}

TEST(NetfilterConfigurationKernel, keepsApprovingAFilterWhoseFileWasUpgradedUnderIt) {
  inOwnNamespaces([] {
    const TemporaryDirectory directory;
    const std::string path = directory.path("filter");
    std::filesystem::copy_file(signedQueueHolder(), path);
    std::filesystem::copy_file(signedQueueHolder() + ".cms", path + ".cms");
    Machine machine;
    auto filter = startQueueHolder(path);
    ASSERT_TRUE(machine.readiness().extensionIsApproved);
    std::ofstream(path + ".new") << "another build";
    std::filesystem::rename(path + ".new", path);
    std::ofstream(path + ".cms") << "another signature";
    EXPECT_TRUE(machine.readiness().extensionIsApproved) << "it still runs what was approved";
    filter.kill();
    EXPECT_FALSE(machine.readiness().extensionIsApproved);
  });
}

TEST(NetfilterConfigurationKernel, getsOverACommandThatHangs) {
  inOwnNamespaces([] {
    const TemporaryDirectory directory;
    const auto hang = [&directory](const std::string& name) {
      std::ofstream(directory.path(name)) << "#!/bin/sh\nexec sleep 600\n";
      EXPECT_EQ(::chmod(directory.path(name).c_str(), 0755), 0);
    };
    Machine machine({directory.path(), "/usr/sbin", "/usr/bin", "/sbin", "/bin"});
    hang("ip6tables-restore");
    const auto applied = machine.apply(armed);
    ASSERT_FALSE(applied);
    EXPECT_EQ(applied.error(), "The command ip6tables-restore took too long and was ended.");
    EXPECT_THAT(allRules(), Not(HasSubstr("STILLOW"))) << "the first family was taken back";
    std::filesystem::remove(directory.path("ip6tables-restore"));
    EXPECT_TRUE(machine.apply(armed));
    EXPECT_TRUE(machine.readiness().filterConfigurationIsEnabled);
  });
}

TEST(NetfilterConfigurationKernel, knowsWhetherTheKernelSpeaksIPv6) {
  EXPECT_EQ(NetfilterConfiguration::familiesOfThisMachine().size(),
            std::filesystem::exists("/proc/net/if_inet6") ? 2U : 1U);
}

}  // namespace
}  // namespace stillow::platform
