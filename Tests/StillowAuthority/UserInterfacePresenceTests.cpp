#include <chrono>
#include <vector>

#include <gtest/gtest.h>

#include "StillowAuthority/UserInterfacePresence.hpp"
#include "TestSupport/DeterministicExecutor.hpp"

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

// The sleep may be over and its news still on the way when somebody announces and leaves again.
TEST(UserInterfacePresence, takesNoOldGraceForANewOneUnderAnySchedule) {
  for (std::uint64_t seed = 0; seed < 500; ++seed) {
    SCOPED_TRACE(seed);
    test::DeterministicExecutor executor(seed);
    const auto reporter = std::make_shared<RecordingReporter>();
    const auto presence =
        UserInterfacePresence::make(executor.executor(), reporter, executor.sleeper());
    const ConnectionID first = ConnectionID::next();
    const ConnectionID second = ConnectionID::next();
    executor.run(presence->announce(first));
    executor.run(presence->connectionEnded(first));
    executor.advance(milliseconds(4'999));
    (void)executor.start(
        concurrency::Task<int>([](auto sleeper, auto shared, auto other) -> concurrency::Task<int> {
          (void)co_await sleeper->sleep(milliseconds(1), {});
          co_await shared->announce(other);
          co_await shared->connectionEnded(other);
          co_return 0;
        }(executor.sleeper(), presence, second)));
    executor.advance(milliseconds(1));
    // Either the absence was reported before the second came, or it is not reported yet.
    const Reports early{true, false, true};
    const Reports kept{true};
    EXPECT_TRUE(reporter->reports == early || reporter->reports == kept)
        << ::testing::PrintToString(reporter->reports);
    const Reports before = reporter->reports;
    executor.advance(milliseconds(4'999));
    EXPECT_EQ(reporter->reports, before);
    executor.advance(milliseconds(1));
    EXPECT_FALSE(reporter->reports.back());
  }
}

}  // namespace
}  // namespace stillow::authority
