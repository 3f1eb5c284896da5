#include <chrono>
#include <memory>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "StillowAuthority/EnforcementHealthCoordinator.hpp"
#include "TestSupport/ScriptedNetworkPath.hpp"
#include "TestSupport/ScriptedVerifier.hpp"
#include "TestSupport/SimulatedAuthority.hpp"

namespace stillow::authority {
namespace {

using core::DegradedReason;
using core::EnforcementHealthStatus;
using std::chrono::seconds;
using test::domains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Event = EnforcementHealthEvent;
using Question = test::ScriptedVerifier::Question;
using Verification = EnforcementVerification;
using enum core::DegradedReason;

const NetworkPathSnapshot wired{.isSatisfied = true, .usesVPN = false, .interfaces = {"eth0"}};
const NetworkPathSnapshot wiredAndWireless{
    .isSatisfied = true, .usesVPN = false, .interfaces = {"eth0", "wlan0"}};

CommitmentCheckpoint runningCheckpoint() {
  return {.state = AuthorityState::active{core::Commitment{
              .activatedAt = test::SimulatedAuthority::start,
              .scope = core::Scope{.generation = 4, .domains = domains({"kept.example"})},
              .remainingDuration = 600,
              .health = core::CommitmentHealth::healthy}},
          .writtenAt = test::SimulatedAuthority::start,
          .sequence = 9};
}

class EnforcementHealthCoordinatorTest : public testing::Test {
 protected:
  EnforcementHealthCoordinatorTest() { begin(); }

  /// A new daemon over what is on disk.
  void begin() {
    system.begin();
    health = EnforcementHealthCoordinator::make(
        system.executor.executor(), {.authority = system.authority,
                                     .verifier = verifier,
                                     .paths = paths,
                                     .sleeper = system.executor.sleeper(),
                                     .onEvent = [this](Event event) { events.push_back(event); }});
  }
  template <class T>
  T run(concurrency::Task<T> task) {
    return system.executor.run(std::move(task));
  }
  static concurrency::Task<bool> thenTrue(concurrency::Task<void> task) {
    co_await std::move(task);
    co_return true;
  }
  void advance(seconds duration) { system.executor.advance(duration); }
  void give(const NetworkPathSnapshot& snapshot) {
    paths->give(snapshot);
    system.executor.runReady();
  }
  EnforcementHealthStatus published() { return system.status().enforcement; }
  static EnforcementHealthStatus degraded(DegradedReason reason) {
    return EnforcementHealthStatus::degraded{reason};
  }
  static constexpr EnforcementHealthStatus::healthy healthy{};
  void loseCurrentCheckpoint() {
    system.lastKnownGood->checkpoint = runningCheckpoint();
    system.current->checkpoint = runningCheckpoint();
    system.current->loadFailuresLeft = 1;
  }

  test::SimulatedAuthority system;
  std::shared_ptr<test::ScriptedVerifier> verifier = std::make_shared<test::ScriptedVerifier>();
  std::shared_ptr<test::ScriptedNetworkPath> paths = std::make_shared<test::ScriptedNetworkPath>();
  std::vector<Event> events;
  std::shared_ptr<EnforcementHealthCoordinator> health;
};

// ---- the start

TEST_F(EnforcementHealthCoordinatorTest, isHealthyAfterARecoveryFromTheCurrentCheckpoint) {
  system.current->checkpoint = runningCheckpoint();
  begin();
  EXPECT_EQ(published(), degraded(recoveringFromCorruption)) << "unproven until reconciled";
  run(health->reconcileWithRecovery());
  EXPECT_EQ(published(), healthy);
  EXPECT_EQ(system.status().active()->health, core::CommitmentHealth::healthy);
  EXPECT_THAT(events, IsEmpty());
  EXPECT_EQ(system.executor.sleeperCount(), 0U) << "nothing to recover";
}

TEST_F(EnforcementHealthCoordinatorTest, recoversAfterAStartFromTheLastKnownGoodCheckpoint) {
  loseCurrentCheckpoint();
  begin();
  run(health->reconcileWithRecovery());
  EXPECT_EQ(published(), degraded(recoveringFromCorruption));
  EXPECT_THAT(events, ElementsAre(Event::enteredDegraded{recoveringFromCorruption}));
  advance(seconds(5));
  EXPECT_EQ(published(), healthy);
  EXPECT_THAT(verifier->questions, ElementsAre(Question{4, domains({"kept.example"})}));
  EXPECT_THAT(events, ElementsAre(Event::enteredDegraded{recoveringFromCorruption},
                                  Event::returnedToHealthy{}));
}

TEST_F(EnforcementHealthCoordinatorTest, isOpenAfterAStartWithoutATrustworthyCheckpoint) {
  system.current->checkpoint = runningCheckpoint();
  system.current->loadFailuresLeft = 1;
  begin();
  run(health->reconcileWithRecovery());
  EXPECT_EQ(published(), degraded(failedOpen));
  EXPECT_THAT(events, ElementsAre(Event::enteredDegraded{failedOpen}));
  EXPECT_EQ(system.executor.sleeperCount(), 1U);
}

TEST_F(EnforcementHealthCoordinatorTest, isNeverHealthyAfterAStartInWhichAFaultCameFirst) {
  run(health->reportFault(failedOpen));
  run(health->reconcileWithRecovery());
  EXPECT_EQ(published(), degraded(failedOpen));
}

// ---- faults

TEST_F(EnforcementHealthCoordinatorTest, changesTheReasonOfAFurtherFaultWithoutAnEvent) {
  run(health->reconcileWithRecovery());
  run(health->reportFault(failedOpen));
  run(health->reportFault(recoveringFromCorruption));
  EXPECT_EQ(published(), degraded(recoveringFromCorruption));
  EXPECT_THAT(events, ElementsAre(Event::enteredDegraded{failedOpen}));
  EXPECT_EQ(system.executor.sleeperCount(), 1U) << "one recovery loop";
}

TEST_F(EnforcementHealthCoordinatorTest, recoversFromAFaultAfterTheFirstDelay) {
  run(health->reconcileWithRecovery());
  run(health->reportFault(failedOpen));
  system.executor.advance(seconds(5) - std::chrono::nanoseconds(1));
  EXPECT_THAT(verifier->questions, IsEmpty());
  system.executor.advance(std::chrono::nanoseconds(1));
  EXPECT_EQ(published(), healthy);
  EXPECT_THAT(verifier->questions, ElementsAre(Question{0, {}})) << "no Commitment is active";
  EXPECT_THAT(events, ElementsAre(Event::enteredDegraded{failedOpen}, Event::returnedToHealthy{}));
  EXPECT_EQ(system.executor.sleeperCount(), 0U);
}

TEST_F(EnforcementHealthCoordinatorTest, waitsLongerFromAttemptToAttempt) {
  run(health->reconcileWithRecovery());
  verifier->verdict = Verification::unverified{pathUnverified};
  run(health->reportFault(failedOpen));
  std::vector<double> moments;
  for (int attempt = 0; attempt < 9; ++attempt) {
    const auto next = system.executor.nextWakeUp();
    ASSERT_TRUE(next);
    moments.push_back(std::chrono::duration<double>(*next - system.executor.now()).count());
    system.executor.advance(*next - system.executor.now());
    EXPECT_THAT(verifier->questions, SizeIs(attempt + 1));
  }
  EXPECT_THAT(moments, ElementsAre(5, 10, 20, 40, 80, 160, 300, 300, 300));
  EXPECT_EQ(published(), degraded(pathUnverified));
  EXPECT_THAT(events, ElementsAre(Event::enteredDegraded{failedOpen}));
}

TEST_F(EnforcementHealthCoordinatorTest, triesTheDurableStateAgainBeforeItVerifies) {
  loseCurrentCheckpoint();
  system.current->loadFailuresLeft = 1'000;
  begin();
  run(health->reconcileWithRecovery());
  int told = 0;
  run(system.authority->subscribe([&told](CommitmentAuthority::StatusPointer) {
    return [](int* count) -> concurrency::Task<void> {
      ++*count;
      co_return;
    }(&told);
  }));
  advance(seconds(5));
  EXPECT_THAT(verifier->questions, IsEmpty());
  EXPECT_EQ(told, 1) << "the present status is told again";
  EXPECT_EQ(published(), degraded(recoveringFromCorruption));

  system.current->loadFailuresLeft = 0;
  advance(seconds(10));
  EXPECT_THAT(verifier->questions, SizeIs(1));
  EXPECT_EQ(published(), healthy);
}

TEST_F(EnforcementHealthCoordinatorTest, startsANewLoopForAFaultAfterRecovery) {
  run(health->reconcileWithRecovery());
  run(health->reportFault(failedOpen));
  advance(seconds(5));
  run(health->reportFault(recoveringFromCorruption));
  EXPECT_EQ(published(), degraded(recoveringFromCorruption));
  advance(seconds(5));
  EXPECT_EQ(published(), healthy);
  EXPECT_THAT(verifier->questions, SizeIs(2));
}

TEST_F(EnforcementHealthCoordinatorTest, givesUpRecoveryOnceItIsHealthyForAnotherReason) {
  system.activate({"example.com"});
  run(health->reconcileWithRecovery());
  run(health->start());
  give(wired);
  run(health->reportFault(failedOpen));
  give(wiredAndWireless);  // verified at once
  EXPECT_EQ(published(), healthy);
  EXPECT_THAT(verifier->questions, SizeIs(1));
  advance(seconds(1'000));
  EXPECT_THAT(verifier->questions, SizeIs(1));
  EXPECT_EQ(system.executor.sleeperCount(), 0U);
}

// ---- verdicts and faults that cross

TEST_F(EnforcementHealthCoordinatorTest, ignoresASuccessThatBeganBeforeAFault) {
  system.activate({"example.com"});
  run(health->reconcileWithRecovery());
  run(health->start());
  give(wired);
  verifier->gate.hold();
  give(wiredAndWireless);
  ASSERT_THAT(verifier->questions, SizeIs(1));
  run(health->reportFault(failedOpen));
  verifier->gate.open();
  system.executor.runReady();
  EXPECT_EQ(published(), degraded(failedOpen));
  EXPECT_THAT(events, ElementsAre(Event::enteredDegraded{failedOpen}));
}

TEST_F(EnforcementHealthCoordinatorTest, takesASuccessThatAFaultOvertookForAFailedAttempt) {
  run(health->reconcileWithRecovery());
  run(health->reportFault(failedOpen));
  verifier->gate.hold();
  advance(seconds(5));
  ASSERT_THAT(verifier->questions, SizeIs(1));
  run(health->reportFault(failedOpen));
  verifier->gate.open();
  system.executor.runReady();
  EXPECT_EQ(published(), degraded(failedOpen));
  const auto next = system.executor.nextWakeUp();
  ASSERT_TRUE(next);
  EXPECT_EQ(*next - system.executor.now(), seconds(10)) << "the second attempt's delay";
  advance(seconds(10));
  EXPECT_EQ(published(), healthy);
}

TEST_F(EnforcementHealthCoordinatorTest, appliesAFailureWhateverCameMeanwhile) {
  system.activate({"example.com"});
  run(health->reconcileWithRecovery());
  run(health->start());
  give(wired);
  verifier->gate.hold();
  verifier->verdict = Verification::unverified{pathUnverified};
  give(wiredAndWireless);
  run(health->reportFault(failedOpen));
  verifier->gate.open();
  system.executor.runReady();
  EXPECT_EQ(published(), degraded(pathUnverified));
}

// ---- the network

TEST_F(EnforcementHealthCoordinatorTest, verifiesNothingForTheFirstPath) {
  system.activate({"example.com"});
  run(health->start());
  give(wired);
  EXPECT_THAT(verifier->questions, IsEmpty());
}

TEST_F(EnforcementHealthCoordinatorTest, verifiesForEachKindOfChange) {
  system.activate({"example.com"});
  run(health->start());
  give(wired);
  auto snapshot = wired;
  snapshot.interfaces.insert("wlan0");
  give(snapshot);
  EXPECT_THAT(verifier->questions, ElementsAre(Question{1, domains({"example.com"})}))
      << "the set of interfaces alone";
  snapshot.usesVPN = true;
  give(snapshot);
  EXPECT_THAT(verifier->questions, SizeIs(2));
  snapshot.isSatisfied = false;
  give(snapshot);
  EXPECT_THAT(verifier->questions, SizeIs(3));
  give(snapshot);
  EXPECT_THAT(verifier->questions, SizeIs(3)) << "no change";
}

TEST_F(EnforcementHealthCoordinatorTest, verifiesNothingWithoutAnActiveCommitment) {
  run(health->start());
  give(wired);
  give(wiredAndWireless);
  EXPECT_THAT(verifier->questions, IsEmpty());
  // That path was seen all the same: it is no change for the Commitment that begins now.
  system.activate({"example.com"});
  give(wiredAndWireless);
  EXPECT_THAT(verifier->questions, IsEmpty());
}

TEST_F(EnforcementHealthCoordinatorTest, looksOnlyAtTheNewestOfThePathsThatPassedDuringATest) {
  system.activate({"example.com"});
  run(health->start());
  give(wired);
  verifier->gate.hold();
  give(wiredAndWireless);
  for (int change = 0; change < 10; ++change) give(change % 2 == 0 ? wired : wiredAndWireless);
  give(wired);
  verifier->gate.open();
  system.executor.runReady();
  EXPECT_THAT(verifier->questions, SizeIs(2));
}

TEST_F(EnforcementHealthCoordinatorTest, startsRecoveryWhenTheNewPathIsUnverified) {
  system.activate({"example.com"});
  run(health->reconcileWithRecovery());
  run(health->start());
  give(wired);
  verifier->verdict = Verification::unverified{pathUnverified};
  give(wiredAndWireless);
  EXPECT_EQ(published(), degraded(pathUnverified));
  verifier->verdict = Verification::verified{};
  advance(seconds(5));
  EXPECT_EQ(published(), healthy);
}

TEST_F(EnforcementHealthCoordinatorTest, observesPathsOnce) {
  run(health->start());
  run(health->start());
  EXPECT_THAT(paths->observations, SizeIs(1));
}

// ---- expediting

TEST_F(EnforcementHealthCoordinatorTest, waitsNoLongerThanTheFirstDelayWhenExpedited) {
  run(health->reconcileWithRecovery());
  verifier->verdict = Verification::unverified{failedOpen};
  run(health->reportFault(failedOpen));
  advance(seconds(5 + 10 + 20 + 40));
  ASSERT_THAT(verifier->questions, SizeIs(4));
  verifier->verdict = Verification::verified{};
  run(health->expediteRecovery());
  advance(seconds(5));
  EXPECT_THAT(verifier->questions, SizeIs(5));
  EXPECT_EQ(published(), healthy);
}

TEST_F(EnforcementHealthCoordinatorTest, attemptsNoOftenerThanTheFirstDelayHoweverOftenExpedited) {
  run(health->reconcileWithRecovery());
  verifier->verdict = Verification::unverified{failedOpen};
  run(health->reportFault(failedOpen));
  for (int second = 0; second < 60; ++second) {
    advance(seconds(1));
    run(health->expediteRecovery());
  }
  EXPECT_GE(verifier->questions.size(), 8U) << "it is not put off for ever either";
  EXPECT_LE(verifier->questions.size(), 12U);
}

TEST_F(EnforcementHealthCoordinatorTest, doesNothingWhenExpeditedWhileHealthy) {
  run(health->reconcileWithRecovery());
  run(health->expediteRecovery());
  advance(seconds(1'000));
  EXPECT_THAT(verifier->questions, IsEmpty());
}

// ---- the end

TEST_F(EnforcementHealthCoordinatorTest, endsItsLoopsWhenStopped) {
  system.activate({"example.com"});
  run(health->reconcileWithRecovery());
  run(health->start());
  give(wired);
  run(health->reportFault(failedOpen));
  run(health->stop());
  EXPECT_EQ(system.executor.sleeperCount(), 0U);
  EXPECT_TRUE(paths->observations[0].isFinished());
  give(wiredAndWireless);
  advance(seconds(1'000));
  EXPECT_THAT(verifier->questions, IsEmpty());
}

TEST_F(EnforcementHealthCoordinatorTest, countsNoVerdictAfterItStopped) {
  system.activate({"example.com"});
  run(health->reconcileWithRecovery());
  run(health->start());
  give(wired);
  run(health->reportFault(failedOpen));
  verifier->gate.hold();
  advance(seconds(5));
  ASSERT_THAT(verifier->questions, SizeIs(1));
  run(health->stop());
  verifier->gate.open();
  advance(seconds(1'000));
  EXPECT_EQ(published(), degraded(failedOpen));
  EXPECT_EQ(system.executor.sleeperCount(), 0U);
}

TEST_F(EnforcementHealthCoordinatorTest, countsNoVerdictOnAPathAfterItStopped) {
  system.activate({"example.com"});
  run(health->reconcileWithRecovery());
  run(health->start());
  give(wired);
  verifier->gate.hold();
  verifier->verdict = Verification::unverified{pathUnverified};
  give(wiredAndWireless);
  ASSERT_THAT(verifier->questions, SizeIs(1));
  run(health->stop());
  verifier->gate.open();
  system.executor.runReady();
  EXPECT_EQ(published(), healthy);
  EXPECT_EQ(system.executor.sleeperCount(), 0U);
}

TEST_F(EnforcementHealthCoordinatorTest, isNotKeptAliveByItsLoops) {
  run(health->start());
  run(health->reportFault(failedOpen));
  const std::weak_ptr<EnforcementHealthCoordinator> weak = health;
  health.reset();
  EXPECT_TRUE(weak.expired());
  system.executor.runReady();
  EXPECT_EQ(system.executor.sleeperCount(), 0U);
  EXPECT_TRUE(paths->observations[0].isFinished());
}

TEST_F(EnforcementHealthCoordinatorTest, publishesWhatItHoldsInTheEndWhateverTheOrder) {
  for (std::uint64_t seed = 1; seed <= 200; ++seed) {
    SCOPED_TRACE(seed);
    test::SimulatedAuthority other(seed);
    const auto coordinator = EnforcementHealthCoordinator::make(
        other.executor.executor(), {.authority = other.authority,
                                    .verifier = verifier,
                                    .paths = paths,
                                    .sleeper = other.executor.sleeper()});
    for (const auto reason : {failedOpen, recoveringFromCorruption, pathUnverified, failedOpen}) {
      (void)other.executor.start(thenTrue(coordinator->reportFault(reason)));
    }
    other.executor.runReady();
    const auto shown = other.status().enforcement;
    // Publishing once more tells what the coordinator holds: nothing may be left to change.
    other.executor.run(coordinator->reconcileWithRecovery());
    EXPECT_EQ(other.status().enforcement, shown);
  }
}

}  // namespace
}  // namespace stillow::authority
