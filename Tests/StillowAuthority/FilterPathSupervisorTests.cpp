#include <chrono>
#include <memory>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "StillowAuthority/FilterPathSupervisor.hpp"
#include "TestSupport/DeterministicExecutor.hpp"
#include "TestSupport/RecordingFaultReporter.hpp"
#include "TestSupport/ScriptedFilterPath.hpp"

namespace stillow::authority {
namespace {

using concurrency::Task;
using core::DegradedReason;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

class ScriptedPath final : public FilterPathReporting, public FilterArmingReapplying {
 public:
  bool isApproved = true;
  int looks = 0;
  int reapplications = 0;

  Task<FilterPathReadiness> readiness() override {
    ++looks;
    co_return FilterPathReadiness{.extensionIsApproved = isApproved,
                                  .filterConfigurationIsEnabled = true};
  }
  Task<void> reapply() override {
    ++reapplications;
    co_return;
  }
};

class FilterPathSupervisorTest : public testing::Test {
 protected:
  void start() { executor.run(supervisor->start()); }
  void advance(std::chrono::nanoseconds duration) { executor.advance(duration); }

  test::DeterministicExecutor executor;
  std::shared_ptr<ScriptedPath> path = std::make_shared<ScriptedPath>();
  std::shared_ptr<test::RecordingFaultReporter> health =
      std::make_shared<test::RecordingFaultReporter>();
  std::shared_ptr<test::ScriptedFilterPath> observer = std::make_shared<test::ScriptedFilterPath>();
  std::shared_ptr<FilterPathSupervisor> supervisor =
      FilterPathSupervisor::make(executor.executor(), {.path = path,
                                                       .arming = path,
                                                       .faults = health,
                                                       .recovery = health,
                                                       .observer = observer,
                                                       .sleeper = executor.sleeper()});
};

TEST_F(FilterPathSupervisorTest, hasReportedAnAbsentFilterWhenItsStartReturns) {
  path->isApproved = false;
  start();
  EXPECT_THAT(health->faults, ElementsAre(DegradedReason::failedOpen));
}

TEST_F(FilterPathSupervisorTest, saysNothingOfAFilterThatIsThere) {
  start();
  advance(seconds(10));
  EXPECT_THAT(health->faults, IsEmpty());
  EXPECT_EQ(health->expedited, 0);
  EXPECT_EQ(path->reapplications, 0);
}

TEST_F(FilterPathSupervisorTest, asksNothingWhileNothingHappens) {
  start();
  advance(std::chrono::hours(24));
  EXPECT_EQ(path->looks, 1);
  EXPECT_EQ(executor.sleeperCount(), 0U);
}

TEST_F(FilterPathSupervisorTest, stopsLookingForAnAbsentFilterAfterAFewLooks) {
  path->isApproved = false;
  start();
  advance(std::chrono::hours(24));
  EXPECT_EQ(path->looks, 4);
  EXPECT_THAT(health->faults, ElementsAre(DegradedReason::failedOpen)) << "one fault, not four";
  EXPECT_EQ(executor.sleeperCount(), 0U);
}

TEST_F(FilterPathSupervisorTest, reportsTheEndOfTheFilterAtOnce) {
  start();
  advance(seconds(10));
  path->isApproved = false;
  observer->filterEnds();
  executor.runReady();
  EXPECT_THAT(health->faults, ElementsAre(DegradedReason::failedOpen));
}

TEST_F(FilterPathSupervisorTest, reportsAnEndEvenIfTheNextFilterIsThereAlready) {
  start();
  advance(seconds(10));
  observer->filterEnds();
  executor.runReady();
  EXPECT_THAT(health->faults, ElementsAre(DegradedReason::failedOpen));
  EXPECT_EQ(path->reapplications, 1);
  EXPECT_EQ(health->expedited, 1);
}

TEST_F(FilterPathSupervisorTest, findsAFilterThatIsRestartedAtOnceWithoutASign) {
  start();
  advance(seconds(10));
  path->isApproved = false;
  observer->filterEnds();
  advance(std::chrono::milliseconds(500));
  path->isApproved = true;
  advance(std::chrono::milliseconds(1'000));
  EXPECT_EQ(path->reapplications, 1);
  EXPECT_EQ(health->expedited, 1);
}

TEST_F(FilterPathSupervisorTest, findsAFilterThatStartsMuchLaterByItsSign) {
  path->isApproved = false;
  start();
  advance(std::chrono::hours(1));
  observer->filterBegins();  // it is not ready yet
  executor.runReady();
  EXPECT_EQ(health->expedited, 0);
  path->isApproved = true;
  advance(seconds(1));
  EXPECT_EQ(path->reapplications, 1);
  EXPECT_EQ(health->expedited, 1);
  EXPECT_THAT(health->faults, ElementsAre(DegradedReason::failedOpen));
}

TEST_F(FilterPathSupervisorTest, reportsAStrangerInThePlaceOfTheFilter) {
  start();
  advance(seconds(10));
  path->isApproved = false;
  observer->configurationChanges();
  executor.runReady();
  EXPECT_THAT(health->faults, ElementsAre(DegradedReason::failedOpen));
}

TEST_F(FilterPathSupervisorTest, looksOnceASecondHoweverOftenTheRulesChange) {
  start();
  for (int change = 0; change < 10'000; ++change) {
    observer->configurationChanges();
    advance(std::chrono::milliseconds(1));
  }
  EXPECT_LE(path->looks, 12);
  EXPECT_GE(path->looks, 10);
}

TEST_F(FilterPathSupervisorTest, looksOnceASecondHoweverOftenTheFilterCrashes) {
  start();
  for (int crash = 0; crash < 1'000; ++crash) {
    observer->filterEnds();
    advance(std::chrono::milliseconds(10));
  }
  EXPECT_LE(path->looks, 12);
}

TEST_F(FilterPathSupervisorTest, missesNoEndThatAnotherChangeFollowed) {
  start();
  observer->filterEnds();
  observer->configurationChanges();
  observer->filterBegins();
  advance(seconds(2));
  EXPECT_THAT(health->faults, ElementsAre(DegradedReason::failedOpen));
}

TEST_F(FilterPathSupervisorTest, endsWhenStopped) {
  path->isApproved = false;
  start();
  executor.run(supervisor->stop());
  executor.runReady();
  EXPECT_EQ(executor.sleeperCount(), 0U);
  observer->filterBegins();
  advance(seconds(10));
  EXPECT_EQ(path->looks, 1);
}

TEST_F(FilterPathSupervisorTest, isNotKeptAliveByItsLoop) {
  start();
  const std::weak_ptr<FilterPathSupervisor> weak = supervisor;
  supervisor.reset();
  EXPECT_TRUE(weak.expired());
  executor.runReady();
  EXPECT_TRUE(observer->channels[0].isFinished());
}

}  // namespace
}  // namespace stillow::authority
