#include <chrono>
#include <cmath>
#include <cstdint>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "AuthorityTesting.hpp"
#include "StillowAuthority/CommitmentClock.hpp"

namespace stillow::authority {
namespace {

using namespace std::chrono_literals;
using concurrency::Channel;
using concurrency::OneShot;
using concurrency::Task;
using core::Date;
using testing::AuthorityWorld;
using testing::domains;
using testing::seedCount;
using testing::start;
using StatusPointer = CommitmentAuthority::StatusPointer;

/// Follows the executor's virtual time; the machine's sleep and the user's hand come on top.
struct TestTime final : MonotonicTimeSource {
  explicit TestTime(test::DeterministicExecutor& world) : executor(world) {}
  [[nodiscard]] double seconds() const override {
    return uptime + std::chrono::duration<double>(executor.now()).count();
  }
  [[nodiscard]] Date wall() const { return {wallAhead + seconds()}; }

  test::DeterministicExecutor& executor;
  double uptime = 5'000;
  double wallAhead = start.secondsSinceReferenceDate - 5'000;
};

struct TestInvalidations final : ProjectionInvalidationSource {
  Channel<ProjectionInvalidation> invalidations() override {
    ++streams;
    newest = Channel<ProjectionInvalidation>(16);
    return newest;
  }
  Channel<ProjectionInvalidation> newest{16};
  int streams = 0;
};

struct ClockWorld : AuthorityWorld {
  explicit ClockWorld(std::uint64_t seed = 0,
                      std::optional<CommitmentCheckpoint> current = std::nullopt)
      : AuthorityWorld(seed, std::move(current)) {
    wallClock = [shared = time] { return shared->wall(); };
    begin();
    observe();
    makeClock();
  }
  void makeClock() {
    clock = CommitmentClock::make(executor.executor(), authority,
                                  {time, wallClock, executor.sleeper(), invalidations});
  }

  /// Ticks go on meanwhile, for the machine is awake.
  void passTime(std::chrono::nanoseconds duration) { executor.advance(duration); }
  /// The machine sleeps: time passes and nothing runs.
  void fallAsleep(double seconds) { time->uptime += seconds; }
  void setWallClockAhead(double seconds) { time->wallAhead += seconds; }

  /// Runs until the baseline is there, then activates, then lets one more tick see it.
  void startWithCommitment(double seconds = 3'600) {
    run(clock->start());
    passTime(1s);
    EXPECT_TRUE(activate(domains({"a.example"}), seconds).has_value());
    passTime(1s);
    currentStore->all.clear();
    told.clear();
  }
  double remaining() {
    const auto answered = status();
    return answered.active() == nullptr ? 0 : answered.active()->remainingDuration;
  }

  std::shared_ptr<TestTime> time = std::make_shared<TestTime>(executor);
  std::shared_ptr<TestInvalidations> invalidations = std::make_shared<TestInvalidations>();
  std::shared_ptr<CommitmentClock> clock;
};

/// A sample whose end somebody can wait for.
Task<bool> sampled(std::shared_ptr<CommitmentClock> clock) {
  co_await clock->sampleNow();
  co_return true;
}

TEST(CommitmentClock, hasTheCadenceOfTheDaemonAsItsDefault) {
  const CommitmentClock::Cadence cadence;
  EXPECT_EQ(cadence.tickInterval, 1s);
  EXPECT_EQ(cadence.checkpointInterval, 60.0);
  EXPECT_EQ(cadence.sleepGapThreshold, 10.0);
  EXPECT_EQ(cadence.wallClockJumpTolerance, 2.0);
}

TEST(CommitmentClock, chargesEachSecondInMemoryAndWritesTheSixtieth) {
  ClockWorld world;
  world.startWithCommitment();
  for (int second = 1; second < 60; ++second) {
    world.passTime(1s);
    ASSERT_EQ(world.remaining(), 3'600 - second);
    ASSERT_TRUE(world.currentStore->all.empty()) << second;
    ASSERT_TRUE(world.told.empty()) << second;
  }
  world.passTime(1s);
  ASSERT_EQ(world.currentStore->all.size(), 1U);
  EXPECT_EQ(world.currentStore->content->state.commitment()->remainingDuration, 3'540);
  EXPECT_EQ(world.told.size(), 1U);
  world.passTime(600s);
  EXPECT_EQ(world.currentStore->all.size(), 11U);
}

TEST(CommitmentClock, chargesTheTimeAsleepInFullAndWritesItAtOnce) {
  ClockWorld world;
  world.startWithCommitment(10'000);
  world.fallAsleep(3'599);
  world.passTime(1s);
  EXPECT_EQ(world.remaining(), 6'400);
  ASSERT_EQ(world.currentStore->all.size(), 1U);
  ASSERT_EQ(world.told.size(), 1U);
  EXPECT_EQ(world.told[0].active()->remainingDuration, 6'400);
}

TEST(CommitmentClock, writesAGapOfTenSecondsAndNoneBelow) {
  ClockWorld below;
  below.startWithCommitment();
  below.fallAsleep(8.5);
  below.passTime(1s);
  EXPECT_EQ(below.remaining(), 3'590.5);
  EXPECT_TRUE(below.currentStore->all.empty());

  ClockWorld at;
  at.startWithCommitment();
  at.fallAsleep(9);
  at.passTime(1s);
  EXPECT_EQ(at.remaining(), 3'590);
  EXPECT_EQ(at.currentStore->all.size(), 1U);
}

TEST(CommitmentClock, endsACommitmentAtTheTickThatReachesItsEnd) {
  ClockWorld world;
  world.startWithCommitment(2.5);
  world.passTime(2s);
  EXPECT_EQ(world.remaining(), 0.5);
  world.passTime(1s);
  EXPECT_EQ(world.status().commitment,
            ipc::CommitmentStatus(ipc::CommitmentStatus::expired{world.time->wall()}));
  EXPECT_EQ(world.currentStore->all.size(), 1U);
  EXPECT_EQ(world.told.size(), 1U);
}

TEST(CommitmentClock, tellsWhenTheWallClockStraysByMoreThanItsTolerance) {
  for (const double stray : {5.0, -5.0, 2.5, 2.0, -2.0, 0.0}) {
    SCOPED_TRACE(stray);
    ClockWorld world;
    world.startWithCommitment();
    world.setWallClockAhead(stray);
    world.passTime(1s);
    EXPECT_EQ(world.told.size(), std::abs(stray) > 2 ? 1U : 0U);
    EXPECT_EQ(world.remaining(), 3'599) << "running time is not wall time";
    world.told.clear();
    world.passTime(1s);
    EXPECT_TRUE(world.told.empty()) << "once is enough";
  }
}

TEST(CommitmentClock, doesNotTakeAnAnnouncedClockChangeForAJump) {
  for (std::uint64_t seed = 0; seed < seedCount; ++seed) {
    SCOPED_TRACE(seed);
    ClockWorld world(seed);
    world.startWithCommitment();
    world.setWallClockAhead(3'600);
    world.invalidations->newest.give(ProjectionInvalidation::systemClockChanged);
    world.executor.runReady();
    ASSERT_EQ(world.told.size(), 1U);
    EXPECT_EQ(world.told[0].active()->projectedEndTime.date, world.time->wall() + 3'600);
    world.passTime(1s);
    EXPECT_EQ(world.told.size(), 1U);
  }
}

TEST(CommitmentClock, tellsOfAnotherTimeZoneOnlyWhileACommitmentIsActive) {
  ClockWorld world;
  world.run(world.clock->start());
  world.passTime(1s);
  world.invalidations->newest.give(ProjectionInvalidation::timeZoneChanged);
  world.executor.runReady();
  EXPECT_TRUE(world.told.empty());
  ASSERT_TRUE(world.activate().has_value());
  world.told.clear();
  world.invalidations->newest.give(ProjectionInvalidation::timeZoneChanged);
  world.executor.runReady();
  EXPECT_EQ(world.told.size(), 1U);
}

TEST(CommitmentClock, chargesNothingAtItsFirstSampleWhateverTheUptime) {
  ClockWorld world(0, testing::checkpoint(AuthorityState::active{testing::commitment()}));
  world.time->uptime = 1e6;
  world.run(world.clock->start());
  world.passTime(1s);
  EXPECT_EQ(world.remaining(), 3'600);
  world.passTime(1s);
  EXPECT_EQ(world.remaining(), 3'599);
}

TEST(CommitmentClock, resumesAfterARestartWithTheStoredRemainder) {
  ClockWorld world;
  world.startWithCommitment();
  world.passTime(90s);
  ASSERT_EQ(world.remaining(), 3'510);
  // The machine is off for a day; the monotonic clock starts anew.
  world.clock.reset();
  world.time->wallAhead += 86'400 + world.time->seconds();
  world.time->uptime = 3 - std::chrono::duration<double>(world.executor.now()).count();
  world.begin();
  world.makeClock();
  EXPECT_EQ(world.remaining(), 3'540) << "what was not written is given back";
  world.run(world.clock->start());
  world.passTime(1s);
  EXPECT_EQ(world.remaining(), 3'540);
  world.passTime(1s);
  EXPECT_EQ(world.remaining(), 3'539);
}

TEST(CommitmentClock, doesNotChargeAnIntervalThatBeganWithoutACommitment) {
  ClockWorld world;
  world.run(world.clock->start());
  world.passTime(1s);
  world.passTime(250ms);
  ASSERT_TRUE(world.activate().has_value());
  world.passTime(750ms);
  EXPECT_EQ(world.remaining(), 3'600);
  world.passTime(1s);
  EXPECT_EQ(world.remaining(), 3'599);
}

TEST(CommitmentClock, tellsOfAGapInWhichACommitmentBegan) {
  ClockWorld world;
  world.run(world.clock->start());
  world.passTime(1s);
  ASSERT_TRUE(world.activate().has_value());
  world.told.clear();
  world.fallAsleep(30);
  world.passTime(1s);
  EXPECT_EQ(world.remaining(), 3'600);
  EXPECT_EQ(world.told.size(), 1U);
}

TEST(CommitmentClock, isSilentWithoutACommitment) {
  ClockWorld world;
  world.run(world.clock->start());
  world.passTime(2s);
  world.fallAsleep(100);
  world.setWallClockAhead(100);
  world.passTime(2s);
  world.fallAsleep(-50);
  world.passTime(2s);
  EXPECT_TRUE(world.told.empty());
  EXPECT_TRUE(world.currentStore->all.empty());
}

// A new Commitment never pays for the interval in which an old one ended.
TEST(CommitmentClock, doesNotChargeANewCommitmentForTheEndOfAnOldOne) {
  ClockWorld world;
  world.startWithCommitment(1);
  world.passTime(1s);
  ASSERT_EQ(world.remaining(), 0);
  world.passTime(500ms);
  ASSERT_TRUE(world.activate(domains({"b.example"}), 60).has_value());
  world.passTime(500ms);
  EXPECT_EQ(world.remaining(), 60);
  world.passTime(1s);
  EXPECT_EQ(world.remaining(), 59);
}

TEST(CommitmentClock, neverChargesACommitmentForTimeBeforeIt) {
  for (std::uint64_t seed = 0; seed < 4 * seedCount; ++seed) {
    SCOPED_TRACE(seed);
    ClockWorld world(seed);
    world.startWithCommitment(1);
    world.passValidation();
    // The old one ends at this tick; the new one begins somewhere around it, as the seed has it.
    const auto wake = *world.executor.nextWakeUp();
    const auto activate = [&] {
      return world.executor.start(
          world.authority->activate(testing::activationRequest(domains({"b.example"}), 60)));
    };
    auto result = activate();
    world.executor.advance(wake - world.executor.now());
    for (int i = 0; i < 5 && !(result->has_value() && (*result)->has_value()); ++i) {
      result = activate();
      world.executor.runReady();
    }
    ASSERT_TRUE(result->has_value() && (*result)->has_value());
    world.passTime(1s);
    EXPECT_GE(world.remaining(), 59);
  }
}

TEST(CommitmentClock, writesTheSixtiethSecondOfEachCommitmentAnew) {
  ClockWorld world;
  world.startWithCommitment(50);
  world.passTime(50s);
  ASSERT_EQ(world.remaining(), 0);
  ASSERT_TRUE(world.activate(domains({"b.example"})).has_value());
  world.passTime(1s);
  world.currentStore->all.clear();
  world.passTime(59s);
  EXPECT_TRUE(world.currentStore->all.empty());
  world.passTime(1s);
  EXPECT_EQ(world.currentStore->all.size(), 1U);
}

TEST(CommitmentClock, publishesInsteadOfChargingWhenTheMonotonicClockDoesNotAdvance) {
  ClockWorld world;
  world.startWithCommitment();
  world.fallAsleep(-1);
  world.passTime(1s);
  EXPECT_EQ(world.remaining(), 3'600);
  EXPECT_EQ(world.told.size(), 1U);
  world.passTime(1s);
  EXPECT_EQ(world.remaining(), 3'599);
}

// ---- samples on request

TEST(CommitmentClock, chargesTheTimeUpToNowOnRequest) {
  ClockWorld world;
  world.startWithCommitment();
  world.passTime(250ms);
  world.run(world.clock->sampleNow());
  EXPECT_EQ(world.remaining(), 3'599.75);
  world.passTime(750ms);
  EXPECT_EQ(world.remaining(), 3'599);
  EXPECT_TRUE(world.currentStore->all.empty());
}

// Otherwise the hour asleep would be charged to what the extension adds.
TEST(CommitmentClock, chargesAnHourAsleepBeforeAnExtensionIsRuled) {
  ClockWorld world;
  world.startWithCommitment(7'200);
  world.fallAsleep(3'600);
  world.run(world.clock->sampleNow());
  ASSERT_EQ(world.remaining(), 3'600);
  const Date end = world.time->wall() + 5'000;
  ASSERT_TRUE(world.run(world.authority->extend({end})).has_value());
  world.passTime(1s);
  EXPECT_EQ(world.remaining(), 4'999);
}

TEST(CommitmentClock, neverInterleavesSamples) {
  for (std::uint64_t seed = 0; seed < seedCount; ++seed) {
    SCOPED_TRACE(seed);
    ClockWorld world(seed);
    world.startWithCommitment();
    const double before = world.time->seconds();
    for (int i = 0; i < 40; ++i) {
      for (int j = 0; j < 3; ++j) {
        world.executor.start(sampled(world.clock));
        for (std::uint64_t steps = world.executor.random()() % 20; steps > 0; --steps) {
          world.executor.step();
        }
      }
      if (i % 10 == 0) world.invalidations->newest.give(ProjectionInvalidation::timeZoneChanged);
      world.passTime(std::chrono::milliseconds(125 * (world.executor.random()() % 16)));
    }
    world.run(world.clock->sampleNow());
    EXPECT_EQ(world.remaining(), 3'600 - (world.time->seconds() - before));
  }
}

// ---- start and stop

TEST(CommitmentClock, doesNothingWhileItIsStopped) {
  ClockWorld world(0, testing::checkpoint(AuthorityState::active{testing::commitment()}));
  world.run(world.clock->sampleNow());
  world.passTime(5s);
  world.run(world.clock->sampleNow());
  EXPECT_EQ(world.remaining(), 3'600);
  world.run(world.clock->start());
  world.passTime(1s);
  EXPECT_EQ(world.remaining(), 3'600) << "the first tick is the baseline";
}

TEST(CommitmentClock, startsOnceHoweverOftenItIsAsked) {
  ClockWorld world;
  world.startWithCommitment();
  world.run(world.clock->start());
  EXPECT_EQ(world.executor.sleeperCount(), 1U);
  EXPECT_EQ(world.invalidations->streams, 1);
  world.passTime(1s);
  EXPECT_EQ(world.remaining(), 3'599);
}

TEST(CommitmentClock, endsBothLoopsPromptlyWhenStoppedAndCountsFromABaselineAfterwards) {
  for (std::uint64_t seed = 0; seed < seedCount; ++seed) {
    SCOPED_TRACE(seed);
    ClockWorld world(seed);
    world.startWithCommitment();
    world.passTime(1s);
    world.run(world.clock->stop());
    world.executor.runReady();
    EXPECT_EQ(world.executor.sleeperCount(), 0U);
    EXPECT_TRUE(world.invalidations->newest.isFinished());
    world.told.clear();
    world.passTime(100s);
    EXPECT_TRUE(world.told.empty());
    EXPECT_EQ(world.remaining(), 3'599);
    world.run(world.clock->stop());
    world.run(world.clock->start());
    EXPECT_EQ(world.invalidations->streams, 2);
    world.passTime(1s);
    EXPECT_EQ(world.remaining(), 3'599);
    world.passTime(1s);
    EXPECT_EQ(world.remaining(), 3'598);
  }
}

TEST(CommitmentClock, countsWhatWasChargedBeforeAStopTowardsTheNextWrite) {
  ClockWorld world;
  world.startWithCommitment();
  world.passTime(40s);
  world.run(world.clock->stop());
  world.run(world.clock->start());
  world.passTime(20s);
  EXPECT_TRUE(world.currentStore->all.empty());
  world.passTime(1s);
  EXPECT_EQ(world.currentStore->all.size(), 1U);
}

/// An observer that keeps the authority's turn until it is let go.
struct Gate {
  Task<void> pass(StatusPointer) {
    if (std::exchange(isTaken, true)) co_return;
    (void)co_await opened.wait();
  }
  bool isTaken = false;
  OneShot<bool> opened;
};

TEST(CommitmentClock, discardsASampleThatAStopCameAcross) {
  for (std::uint64_t seed = 0; seed < seedCount; ++seed) {
    SCOPED_TRACE(seed);
    ClockWorld world(seed);
    world.startWithCommitment();
    Gate gate;
    (void)world.run(
        world.authority->subscribe([&](StatusPointer status) { return gate.pass(status); }));
    world.executor.start(world.authority->publishStatus());
    world.executor.runReady();
    world.passTime(1s);  // the tick waits for the authority
    world.run(world.clock->stop());
    world.run(world.clock->start());
    world.fallAsleep(500);
    gate.opened.settle(true);
    world.executor.runReady();
    EXPECT_EQ(world.remaining(), 3'600);
    world.passTime(1s);
    EXPECT_EQ(world.remaining(), 3'600) << "the first sample since the start is a baseline";
    world.passTime(1s);
    EXPECT_EQ(world.remaining(), 3'599);
  }
}

TEST(CommitmentClock, leavesNothingRunningWhenItIsLetGo) {
  for (std::uint64_t seed = 0; seed < seedCount; ++seed) {
    SCOPED_TRACE(seed);
    ClockWorld world(seed);
    world.startWithCommitment();
    const std::weak_ptr<CommitmentClock> weak = world.clock;
    world.clock.reset();
    EXPECT_TRUE(weak.expired()) << "the loops hold it weakly";
    world.executor.runReady();
    EXPECT_EQ(world.executor.sleeperCount(), 0U);
    EXPECT_TRUE(world.invalidations->newest.isFinished());
    world.passTime(5s);
    EXPECT_EQ(world.remaining(), 3'600);
  }
}

// ---- promises

TEST(CommitmentClock, keepsAtMostAMinuteOfChargedTimeInMemoryOnly) {
  for (std::uint64_t seed = 0; seed < seedCount; ++seed) {
    SCOPED_TRACE(seed);
    ClockWorld world(seed);
    world.startWithCommitment(86'400);
    for (int i = 0; i < 300 && world.remaining() > 0; ++i) {
      if (world.executor.random()() % 20 == 0) {
        world.fallAsleep(static_cast<double>(world.executor.random()() % 200) / 8);
      }
      world.passTime(std::chrono::milliseconds(125 * (1 + world.executor.random()() % 32)));
      const double onDisk = world.currentStore->content->state.isActive()
                                ? world.currentStore->content->state.commitment()->remainingDuration
                                : 0;
      ASSERT_GE(onDisk, world.remaining());
      ASSERT_LE(onDisk - world.remaining(), 60);
    }
  }
}

TEST(CommitmentClock, neverEndsACommitmentBeforeItsSecondsHaveRun) {
  for (std::uint64_t seed = 0; seed < seedCount; ++seed) {
    SCOPED_TRACE(seed);
    ClockWorld world(seed);
    world.run(world.clock->start());
    world.passTime(1s);
    ASSERT_TRUE(world.activate(domains({"a.example"}), 100).has_value());
    const double activated = world.time->seconds();
    for (int i = 0; i < 400 && world.status().active() != nullptr; ++i) {
      switch (world.executor.random()() % 6) {
        case 0:
          world.setWallClockAhead(static_cast<double>(world.executor.random()() % 1'000) - 500);
          break;
        case 1:
          world.fallAsleep(static_cast<double>(world.executor.random()() % 12));
          break;
        case 2:
          world.executor.start(sampled(world.clock));
          break;
        case 3:
          world.run(world.clock->stop());
          world.run(world.clock->start());
          break;
        default:
          world.passTime(std::chrono::milliseconds(125 * (1 + world.executor.random()() % 16)));
      }
    }
    ASSERT_EQ(world.status().active(), nullptr);
    EXPECT_GE(world.time->seconds() - activated, 100);
  }
}

}  // namespace
}  // namespace stillow::authority
