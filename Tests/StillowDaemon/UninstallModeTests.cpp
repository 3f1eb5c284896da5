#include <chrono>
#include <expected>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "StillowDaemon/CommandModes.hpp"
#include "StillowDaemon/UninstallMode.hpp"
#include "StillowIPC/XPCCommitmentAuthorityClient.hpp"
#include "TestSupport/DeterministicExecutor.hpp"
#include "TestSupport/ScriptedClient.hpp"
#include "TestSupport/ScriptedConnection.hpp"
#include "TestSupport/TemporaryDirectory.hpp"

namespace stillow::daemon {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using authority::AuthorityState;
using authority::CommitmentStateRecovery;
using ipc::CommitmentStatus;
using ipc::DaemonError;
using ipc::DaemonStatus;
using test::ScriptedClient;
using Source = CommitmentStateRecovery::Source;

constexpr core::Date now{816'458'820};
const std::string label = "com.larchmoor.Stillow.daemon";

constexpr const char* activeUntilFormatted =
    "Stillow can\u2019t be uninstalled while a Commitment is active. Nothing has been removed. "
    "Removal becomes available when the Commitment ends \u2014 projected ~";
constexpr const char* afterTheEnd =
    ". Time while this Mac is shut down doesn\u2019t count, so that can move later.\n";
constexpr const char* cannotTell =
    "Stillow can\u2019t tell whether a Commitment is active, so it has removed nothing. Start "
    "Stillow, let it reach the daemon, and try again.\n";

CommitmentStateRecovery recovered(AuthorityState state, Source source = Source::current) {
  return {authority::CommitmentCheckpoint{.state = std::move(state), .writtenAt = now}, source};
}
AuthorityState activeState(double remaining) {
  return AuthorityState::active{
      {.activatedAt = now,
       .scope = {.domains = core::DomainSet::of({*core::Domain::make("a.example")})},
       .remainingDuration = remaining}};
}
DaemonStatus activeStatus(core::Date end) {
  ipc::ActiveCommitmentStatus active;
  active.projectedEndTime = {end};
  return {.observedAt = now, .commitment = CommitmentStatus::active{active}};
}

/// A machine with the product on it, as far as uninstalling touches it.
struct UninstallModeTest : ::testing::Test {
  test::DeterministicExecutor world{3};
  test::TemporaryDirectory root;
  authority::PrivilegedUninstall::Locations locations{
      .stateDirectory = root.path("state"),
      .developmentLaunchDaemonPlist = root.path("job"),
      .developmentHelperBundle = root.path("bundle"),
      .legacyDevelopmentHelperBinary = root.path("binary")};
  bool isRoot = true;
  CommitmentStateRecovery recovery{};
  int recoveries = 0;
  std::expected<void, std::string> jobResult;
  std::expected<void, std::string> filterResult;
  /// What was done to the system, in order.
  std::vector<std::string> deeds;
  std::ostringstream out;
  std::ostringstream err;

  struct Jobs final : authority::PrivilegedJobUnloading {
    explicit Jobs(UninstallModeTest& t) : owner(t) {}
    std::expected<void, std::string> unload(std::string_view name) override {
      owner.deeds.push_back("unload " + std::string(name));
      return owner.jobResult;
    }
    UninstallModeTest& owner;
  };
  struct Filter final : authority::ContentFilterRemoving {
    explicit Filter(UninstallModeTest& t) : owner(t) {}
    std::expected<void, std::string> remove() override {
      owner.deeds.push_back(fs::exists(owner.locations.stateDirectory)
                                ? "remove the filter before the state"
                                : "remove the filter");
      return owner.filterResult;
    }
    UninstallModeTest& owner;
  };

  void SetUp() override {
    for (const fs::path& path : {locations.stateDirectory / "commitment-checkpoint.json",
                                 locations.developmentHelperBundle / "program"}) {
      fs::create_directories(path.parent_path());
      std::ofstream(path) << "bytes of " << path.filename();
    }
    std::ofstream(locations.developmentLaunchDaemonPlist) << "a job";
  }

  UninstallTools tools() {
    return {.isRoot = isRoot,
            .recoverCheckpoints =
                [this] {
                  ++recoveries;
                  return recovery;
                },
            .wallClock = [] { return now; },
            .formatted =
                [](core::Date date) {
                  return "<" + std::to_string(static_cast<int>(date - now)) + " s from now>";
                },
            .uninstall = {locations, std::make_shared<Jobs>(*this)},
            .contentFilter = std::make_shared<Filter>(*this)};
  }
  int run(ipc::CommitmentAuthorityClient::Result answer) {
    return world.run(
        uninstall(std::make_shared<ScriptedClient>(std::move(answer)), tools(), out, err));
  }
  int runWithoutDaemon() { return run(std::unexpected(DaemonError::daemonUnavailable{"gone"})); }

  /// Every file with its content, every directory with nothing.
  std::map<std::string, std::string> everything() const {
    std::map<std::string, std::string> found;
    for (const auto& entry : fs::recursive_directory_iterator(root.path())) {
      std::string content;
      if (entry.is_regular_file()) {
        std::ifstream file(entry.path(), std::ios::binary);
        content.assign(std::istreambuf_iterator<char>(file), {});
      }
      found.emplace(entry.path().string(), std::move(content));
    }
    return found;
  }
  std::string at(const char* name) const { return root.path(name); }
};

TEST_F(UninstallModeTest, wantsRootAndAsksNobodyWithoutIt) {
  isRoot = false;
  const auto before = everything();
  const auto client = std::make_shared<ScriptedClient>(DaemonStatus{});
  EXPECT_EQ(world.run(uninstall(client, tools(), out, err)), 77);
  EXPECT_EQ(out.str(), "");
  EXPECT_EQ(err.str(), "Stillow's uninstaller needs root \u2014 re-run it with sudo.\n");
  EXPECT_TRUE(client->calls.empty());
  EXPECT_EQ(recoveries, 0);
  EXPECT_TRUE(deeds.empty());
  EXPECT_EQ(everything(), before);
}

TEST_F(UninstallModeTest, refusesWithTheDaemonsEndTimeWhileACommitmentIsActive) {
  EXPECT_EQ(run(activeStatus(now + 4'000)), 3);
  EXPECT_EQ(out.str(), activeUntilFormatted + std::string("<4000 s from now>") + afterTheEnd);
  EXPECT_EQ(err.str(), "");
}

TEST_F(UninstallModeTest, doesNotLookAtTheFilesWhenTheDaemonAnswers) {
  recovery = recovered(activeState(600));
  EXPECT_EQ(run(DaemonStatus{.observedAt = now}), 0);
  EXPECT_EQ(recoveries, 0);
}

TEST_F(UninstallModeTest, removesEverythingAndSaysSoLineByLine) {
  EXPECT_EQ(run(DaemonStatus{.observedAt = now}), 0);
  EXPECT_EQ(out.str(),
            "Removed Stillow\u2019s content filter configuration.\n"
            "Removed com.larchmoor.Stillow.daemon\n"
            "Removed " +
                at("state") + "\nRemoved " + at("job") + "\nRemoved " + at("bundle") +
                "\nNot present: " + at("binary") +
                "\nStillow\u2019s privileged components are off this Mac. Move Stillow.app to the "
                "Trash to finish.\n");
  EXPECT_EQ(err.str(), "");
  EXPECT_EQ(deeds, (std::vector<std::string>{"unload " + label, "remove the filter"}))
      << "the filter goes after job and files, though its line is the first";
  EXPECT_TRUE(everything().empty());
}

TEST_F(UninstallModeTest, saysWhatIsLeftAndWhy) {
  jobResult = std::unexpected("Access denied");
  locations.legacyDevelopmentHelperBinary = "/proc/version";
  EXPECT_EQ(run(DaemonStatus{.observedAt = now}), 4);
  EXPECT_EQ(out.str(),
            "Removed Stillow\u2019s content filter configuration.\n"
            "Still there: com.larchmoor.Stillow.daemon \u2014 Access denied\n"
            "Removed " +
                at("state") + "\nRemoved " + at("job") + "\nRemoved " + at("bundle") +
                "\nStill there: /proc/version \u2014 Operation not permitted\n"
                "Some pieces are still here; see above.\n");
}

TEST_F(UninstallModeTest, countsAFilterThatStaysAsSomethingLeft) {
  filterResult = std::unexpected("iptables-restore failed");
  EXPECT_EQ(run(DaemonStatus{.observedAt = now}), 4);
  const std::string text = out.str();
  EXPECT_TRUE(text.starts_with(
      "Could not remove the content filter configuration (iptables-restore failed). If System "
      "Settings \u25b8 Network \u25b8 Filters still lists Stillow, remove it there.\nRemoved "))
      << text;
  EXPECT_TRUE(text.ends_with("\nSome pieces are still here; see above.\n")) << text;
}

TEST_F(UninstallModeTest, findsNothingButTheJobTheSecondTime) {
  (void)run(DaemonStatus{.observedAt = now});
  out.str("");
  EXPECT_EQ(runWithoutDaemon(), 0);
  EXPECT_EQ(out.str(),
            "Removed Stillow\u2019s content filter configuration.\n"
            "Removed com.larchmoor.Stillow.daemon\n"
            "Not present: " +
                at("state") + "\nNot present: " + at("job") + "\nNot present: " + at("bundle") +
                "\nNot present: " + at("binary") +
                "\nStillow\u2019s privileged components are off this Mac. Move Stillow.app to the "
                "Trash to finish.\n");
}

TEST_F(UninstallModeTest, letsACommitmentThatHasEndedGo) {
  DaemonStatus ended{.observedAt = now, .commitment = CommitmentStatus::expired{now}};
  ended.enforcement = core::EnforcementHealthStatus::degraded{core::DegradedReason::failedOpen};
  EXPECT_EQ(run(ended), 0);
}

TEST_F(UninstallModeTest, turnsToTheFilesAfterEveryErrorOfTheDaemon) {
  const std::vector<DaemonError> errors{DaemonError::daemonUnavailable{"no socket"},
                                        DaemonError::daemonDidNotAnswer{2},
                                        DaemonError::notAuthorized{},
                                        DaemonError::malformedRequest{},
                                        DaemonError::internalFailure{"The reply does not decode."},
                                        DaemonError::noActiveCommitment{}};
  for (const DaemonError& error : errors) {
    SCOPED_TRACE(ipc::description(error));
    out.str("");
    recovery = recovered(activeState(600));
    EXPECT_EQ(run(std::unexpected(error)), 3);
    EXPECT_EQ(out.str(), activeUntilFormatted + std::string("<600 s from now>") + afterTheEnd);

    out.str("");
    recovery = {std::nullopt, Source::failedOpen};
    EXPECT_EQ(run(std::unexpected(error)), 3);
    EXPECT_EQ(out.str(), cannotTell);
  }
  EXPECT_TRUE(deeds.empty());
}

TEST_F(UninstallModeTest, permitsByTheFilesWhatTheyDoNotForbid) {
  for (const auto& harmless : {CommitmentStateRecovery{}, recovered(AuthorityState::idle{}),
                               recovered(AuthorityState::expired{now}), recovered(activeState(0)),
                               recovered(AuthorityState::idle{}, Source::lastKnownGood)}) {
    recovery = harmless;
    EXPECT_EQ(runWithoutDaemon(), 0);
  }
  recovery = recovered(activeState(1), Source::lastKnownGood);
  EXPECT_EQ(runWithoutDaemon(), 3);
}

TEST_F(UninstallModeTest, leavesEverythingAsItWasWhenItRefuses) {
  const auto before = everything();
  ASSERT_EQ(before.size(), 5U);
  EXPECT_EQ(run(activeStatus(now + 1)), 3);
  recovery = recovered(activeState(1));
  EXPECT_EQ(runWithoutDaemon(), 3);
  recovery = {std::nullopt, Source::failedOpen};
  EXPECT_EQ(runWithoutDaemon(), 3);
  EXPECT_EQ(everything(), before);
  EXPECT_TRUE(deeds.empty()) << "no job is ended and no rule taken away";
}

// The client itself, before a daemon that behaves in every bad way.

struct UninstallModeAgainstADaemonTest : UninstallModeTest {
  std::shared_ptr<ipc::testing::ScriptedDaemon> far =
      std::make_shared<ipc::testing::ScriptedDaemon>();

  std::shared_ptr<std::optional<int>> start() {
    recovery = recovered(activeState(600));
    return world.start(uninstall(
        ipc::XPCCommitmentAuthorityClient::make({.executor = world.executor(),
                                                 .endpoint = ipc::Endpoint::anonymous{far},
                                                 .requirement = std::nullopt,
                                                 .deadlines = deadlines(CommandMode::uninstall),
                                                 .wait = world.sleeper()}),
        tools(), out, err));
  }
  int end(const std::shared_ptr<std::optional<int>>& status) {
    world.runReady();
    EXPECT_TRUE(status->has_value());
    return status->value_or(-1);
  }
};

TEST_F(UninstallModeAgainstADaemonTest, waitsTwoSecondsForOneThatHangs) {
  const auto status = start();
  world.runReady();
  world.advance(2s - 1ns);
  EXPECT_FALSE(status->has_value());
  EXPECT_EQ(recoveries, 0);
  world.advance(1ns);
  EXPECT_EQ(end(status), 3);
  EXPECT_EQ(recoveries, 1);
}

TEST_F(UninstallModeAgainstADaemonTest, doesNotBelieveAReplyThatDoesNotDecode) {
  for (const char* const bytes : {"", "nonsense", R"({"commitment":{"idle":{}}})"}) {
    far->onCall = [bytes](ipc::testing::ScriptedCall& call) {
      call.reply(ipc::DaemonReply::of(std::string(bytes)));
    };
    EXPECT_EQ(end(start()), 3) << bytes;
  }
  EXPECT_EQ(recoveries, 3);
}

TEST_F(UninstallModeAgainstADaemonTest, turnsToTheFilesWhenItIsNotLetIn) {
  const auto status = start();
  world.runReady();
  far->calls.back().fail({.domain = std::string(ipc::PlatformError::connectionDomain),
                          .code = 1,
                          .description = "The connection was closed."});
  far->interrupt();
  EXPECT_EQ(end(status), 3);
  EXPECT_EQ(recoveries, 1);
}

TEST_F(UninstallModeAgainstADaemonTest, turnsToTheFilesWhenThereIsNone) {
  far->offersNoProxy = true;
  EXPECT_EQ(end(start()), 3);
  EXPECT_EQ(recoveries, 1);
}

TEST_F(UninstallModeAgainstADaemonTest, believesAnAnswer) {
  far->onCall = [](ipc::testing::ScriptedCall& call) {
    call.reply(ipc::testing::reply(DaemonStatus{.observedAt = now}));
  };
  EXPECT_EQ(end(start()), 0);
  EXPECT_EQ(recoveries, 0);
}

}  // namespace
}  // namespace stillow::daemon
