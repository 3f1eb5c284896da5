#include <memory>
#include <sstream>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "StillowClient/RemovalCheck.hpp"
#include "StillowIPC/DaemonError.hpp"
#include "TestSupport/DeterministicExecutor.hpp"
#include "TestSupport/ScriptedClient.hpp"

namespace stillow::client {
namespace {

using authority::CommitmentStateRecovery;
using ipc::DaemonStatus;
using Result = ipc::CommitmentAuthorityClient::Result;

constexpr core::Date now{816'458'820};

struct RemovalCheckTest : testing::Test {
  test::DeterministicExecutor world;
  CommitmentStateRecovery recovery{};
  std::ostringstream out;
  std::ostringstream err;
  std::shared_ptr<test::ScriptedClient> daemon;

  int check(Result answer, bool isRoot = true) {
    daemon = std::make_shared<test::ScriptedClient>(std::move(answer));
    authority::RemovalRulingSources sources{.daemon = daemon,
                                            .recoverCheckpoints = [this] { return recovery; },
                                            .wallClock = [] { return now; }};
    return world.run(checkRemoval(
        std::move(sources), isRoot,
        [](core::Date date) { return "in " + std::to_string(static_cast<int>(date - now)) + " s"; },
        out, err));
  }
};

TEST_F(RemovalCheckTest, saysNothingWhereNothingIsInTheWay) {
  EXPECT_EQ(check(DaemonStatus{.observedAt = now}), 0);
  EXPECT_EQ(check(std::unexpected(ipc::DaemonError::daemonUnavailable{"gone"})), 0);
  EXPECT_EQ(out.str() + err.str(), "");
}

TEST_F(RemovalCheckTest, refusesInTheUninstallersWords) {
  ipc::ActiveCommitmentStatus active;
  active.projectedEndTime = {now + 90};
  EXPECT_EQ(
      check(DaemonStatus{.observedAt = now, .commitment = ipc::CommitmentStatus::active{active}}),
      3);
  EXPECT_EQ(out.str(),
            "Stillow can\u2019t be uninstalled while a Commitment is active. Nothing has been "
            "removed. Removal becomes available when the Commitment ends \u2014 projected ~in 90 "
            "s. Time while this Mac is shut down doesn\u2019t count, so that can move later.\n");
  EXPECT_EQ(err.str(), "");
}

TEST_F(RemovalCheckTest, refusesWhenNobodyKnows) {
  recovery.source = CommitmentStateRecovery::Source::failedOpen;
  EXPECT_EQ(check(std::unexpected(ipc::DaemonError::daemonDidNotAnswer{2})), 3);
  EXPECT_EQ(out.str(),
            "Stillow can\u2019t tell whether a Commitment is active, so it has removed nothing. "
            "Start Stillow, let it reach the daemon, and try again.\n");
}

TEST_F(RemovalCheckTest, wantsRootBeforeItAsks) {
  EXPECT_EQ(check(DaemonStatus{.observedAt = now}, false), 77);
  EXPECT_EQ(err.str(), "Stillow's uninstaller needs root \u2014 re-run it with sudo.\n");
  EXPECT_EQ(out.str(), "");
  EXPECT_TRUE(daemon->calls.empty());
}

}  // namespace
}  // namespace stillow::client
