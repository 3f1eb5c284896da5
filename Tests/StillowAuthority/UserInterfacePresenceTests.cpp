#include <chrono>
#include <vector>

#include <gtest/gtest.h>

#include "StillowAuthority/UserInterfacePresence.hpp"
#include "TestSupport/DeterministicExecutor.hpp"
#include "TestSupport/ScriptedSleeper.hpp"

namespace stillow::authority {
namespace {

using ipc::ConnectionID;
using std::chrono::milliseconds;
using std::chrono::seconds;

struct RecordingReporter final : UserInterfacePresenceReporting {
  concurrency::Task<void> setUserInterfaceRunning(bool isRunning) override {
    reports.push_back(isRunning);
    co_return;
  }
  std::vector<bool> reports;
};

class UserInterfacePresenceTest : public ::testing::Test {
 protected:
  explicit UserInterfacePresenceTest(std::uint64_t seed = 0)
      : executor(seed),
        presence(UserInterfacePresence::make(executor.executor(), reporter, executor.sleeper())) {}

  void announce(ConnectionID connection) { executor.run(presence->announce(connection)); }
  void end(ConnectionID connection) { executor.run(presence->connectionEnded(connection)); }

  test::DeterministicExecutor executor;
  std::shared_ptr<RecordingReporter> reporter = std::make_shared<RecordingReporter>();
  std::shared_ptr<UserInterfacePresence> presence;
  const ConnectionID first = ConnectionID::next();
  const ConnectionID second = ConnectionID::next();
};

using Reports = std::vector<bool>;

TEST_F(UserInterfacePresenceTest, reportsTheFirstAndTheLast) {
  announce(first);
  EXPECT_EQ(reporter->reports, (Reports{true}));
  announce(second);
  end(first);
  EXPECT_EQ(reporter->reports, (Reports{true}));
  EXPECT_EQ(executor.sleeperCount(), 0U);
  end(second);
  EXPECT_EQ(reporter->reports, (Reports{true}));
  executor.advance(milliseconds(4'999));
  EXPECT_EQ(reporter->reports, (Reports{true}));
  executor.advance(milliseconds(1));
  EXPECT_EQ(reporter->reports, (Reports{true, false}));
}

TEST_F(UserInterfacePresenceTest, reportsAgainAfterItWasGone) {
  announce(first);
  end(first);
  executor.advance(seconds(5));
  announce(second);
  end(second);
  executor.advance(seconds(5));
  EXPECT_EQ(reporter->reports, (Reports{true, false, true, false}));
}

TEST_F(UserInterfacePresenceTest, neverReportsAnAbsenceForWhoReconnectsWithinTheGrace) {
  announce(first);
  for (int round = 0; round < 10; ++round) {
    const ConnectionID next = ConnectionID::next();
    end(first);
    executor.advance(milliseconds(4'999));
    announce(next);
    end(next);
    executor.advance(milliseconds(4'999));
    announce(first);
  }
  executor.advance(seconds(60));
  EXPECT_EQ(reporter->reports, (Reports{true}));
}

TEST_F(UserInterfacePresenceTest, beginsTheGraceAnewWithEachEnd) {
  announce(first);
  end(first);
  executor.advance(seconds(3));
  announce(first);
  end(first);
  executor.advance(seconds(3));
  EXPECT_EQ(reporter->reports, (Reports{true}));
  EXPECT_EQ(executor.sleeperCount(), 1U);
  executor.advance(seconds(2));
  EXPECT_EQ(reporter->reports, (Reports{true, false}));
}

TEST_F(UserInterfacePresenceTest, doesNothingForAConnectionThatNeverAnnounced) {
  end(first);
  EXPECT_EQ(executor.sleeperCount(), 0U);
  announce(first);
  end(second);
  executor.advance(seconds(60));
  EXPECT_EQ(reporter->reports, (Reports{true}));
}

TEST_F(UserInterfacePresenceTest, countsASecondAnnouncementOfAConnectionOnce) {
  announce(first);
  announce(first);
  end(first);
  executor.advance(seconds(5));
  end(first);
  executor.advance(seconds(5));
  EXPECT_EQ(reporter->reports, (Reports{true, false}));
}

TEST_F(UserInterfacePresenceTest, endsWithItsOwner) {
  announce(first);
  end(first);
  const std::weak_ptr<UserInterfacePresence> weak = presence;
  presence.reset();
  executor.advance(seconds(5));
  EXPECT_EQ(reporter->reports, (Reports{true, false}));
  EXPECT_TRUE(weak.expired());
}

// A sleep may be over and its news still on the way when somebody announces and leaves again.
TEST(UserInterfacePresence, takesNoOldGraceForANewOne) {
  test::DeterministicExecutor executor;
  const auto reporter = std::make_shared<RecordingReporter>();
  const auto sleeper = std::make_shared<test::ScriptedSleeper>();
  sleeper->ignoresCancellation = true;
  const auto presence = UserInterfacePresence::make(executor.executor(), reporter, sleeper);
  for (int round = 0; round < 2; ++round) {
    const ConnectionID connection = ConnectionID::next();
    executor.run(presence->announce(connection));
    executor.run(presence->connectionEnded(connection));
  }
  ASSERT_EQ(sleeper->sleeps.size(), 2U);
  EXPECT_EQ(sleeper->sleeps[0]->duration, seconds(5));
  EXPECT_TRUE(sleeper->sleeps[0]->isCancelled);
  sleeper->elapse(0);
  executor.runReady();
  EXPECT_EQ(reporter->reports, Reports{true});
  sleeper->elapse(1);
  executor.runReady();
  EXPECT_EQ(reporter->reports, (Reports{true, false}));
}

}  // namespace
}  // namespace stillow::authority
