#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "StillowAuthority/FilterArmingCoordinator.hpp"
#include "TestSupport/RecordingFaultReporter.hpp"
#include "TestSupport/ScriptedEnforcementDirectives.hpp"
#include "TestSupport/ScriptedFilterConfiguration.hpp"
#include "TestSupport/SimulatedAuthority.hpp"

namespace stillow::authority {
namespace {

using core::DegradedReason;
using filtering::ValidationProbe;
using test::domains;
using testing::ElementsAre;
using testing::IsEmpty;
using enum FilterArmingState;

class FilterArmingCoordinatorTest : public testing::Test {
 protected:
  FilterArmingCoordinatorTest() { run(arming->setFaults(faults)); }

  template <class T>
  T run(concurrency::Task<T> task) {
    return system.executor.run(std::move(task));
  }

  /// Starts `task`; true appears in the returned place once it is done.
  std::shared_ptr<std::optional<bool>> start(concurrency::Task<void> task) {
    return system.executor.start(thenTrue(std::move(task)));
  }
  static concurrency::Task<bool> thenTrue(concurrency::Task<void> task) {
    co_await std::move(task);
    co_return true;
  }

  ValidationProbe probe() {
    return ValidationProbe::issued(*core::Domain::make("probe.example"), system.now(), 20);
  }
  void showUserInterface() { run(arming->setUserInterfaceRunning(true)); }

  std::shared_ptr<FilterArmingCoordinator> makeArming() {
    return FilterArmingCoordinator::make(
        system.executor.executor(),
        {.authority = system.authority,
         .configuration = configuration,
         .directives = directives,
         .blocking = system.executor.blockingExecutor(),
         .clock = system.clock(),
         .errorLog = [this](const std::string& sentence) { log.push_back(sentence); }});
  }
  /// The statuses that a further observer is told, by their flag of the filter configuration.
  void watchStatuses() {
    run(system.authority->subscribe([this](CommitmentAuthority::StatusPointer status) {
      return note(&told, status->readiness.filterConfigurationIsEnabled);
    }));
  }
  static concurrency::Task<void> note(std::vector<bool>* told, bool isEnabled) {
    told->push_back(isEnabled);
    co_return;
  }

  test::SimulatedAuthority system;
  std::shared_ptr<test::ScriptedFilterConfiguration> configuration =
      std::make_shared<test::ScriptedFilterConfiguration>();
  std::shared_ptr<test::ScriptedEnforcementDirectives> directives =
      std::make_shared<test::ScriptedEnforcementDirectives>();
  std::shared_ptr<test::RecordingFaultReporter> faults =
      std::make_shared<test::RecordingFaultReporter>();
  std::vector<std::string> log;
  std::vector<bool> told;
  std::shared_ptr<FilterArmingCoordinator> arming = makeArming();
};

// ---- the apply loop

TEST_F(FilterArmingCoordinatorTest, writesTheConfigurationInItsFirstPass) {
  run(arming->reapply());
  EXPECT_THAT(configuration->applications, ElementsAre(disarmed));
  EXPECT_EQ(run(arming->appliedState()), disarmed);
}

TEST_F(FilterArmingCoordinatorTest, writesNothingWhenTheStateIsApplied) {
  showUserInterface();
  run(arming->reapply());
  run(arming->reapply());
  EXPECT_THAT(configuration->applications, ElementsAre(armed));
}

TEST_F(FilterArmingCoordinatorTest, makesExactlyOneMorePassForRequestsDuringAPass) {
  configuration->applyGate.hold();
  const auto first = start(arming->reapply());
  system.executor.runReady();
  ASSERT_EQ(configuration->applyGate.waiting(), 1U);

  run(arming->reapply());
  run(arming->reapply());
  EXPECT_FALSE(first->has_value());
  configuration->applyFailuresLeft = 1;  // so that the further pass has something to write
  configuration->applyGate.open();
  system.executor.runReady();

  EXPECT_TRUE(first->has_value());
  EXPECT_THAT(configuration->applications, ElementsAre(disarmed, disarmed));
}

TEST_F(FilterArmingCoordinatorTest, publishesTheStatusAfterAPassThatAppliedSomething) {
  watchStatuses();
  showUserInterface();
  EXPECT_THAT(told, ElementsAre(true));
  run(arming->reapply());
  EXPECT_THAT(told, ElementsAre(true)) << "a pass that applies nothing tells nobody";
}

TEST_F(FilterArmingCoordinatorTest, reportsFailedOpenWhenArmingFails) {
  watchStatuses();
  configuration->applyFailuresLeft = 1;
  showUserInterface();
  EXPECT_THAT(faults->faults, ElementsAre(DegradedReason::failedOpen));
  EXPECT_EQ(run(arming->appliedState()), std::nullopt);
  EXPECT_THAT(told, ElementsAre(false));
  EXPECT_THAT(configuration->applications, ElementsAre(armed)) << "no pass of its own accord";
  EXPECT_THAT(log, ElementsAre("The rules could not be changed."));

  run(arming->reapply());
  EXPECT_THAT(configuration->applications, ElementsAre(armed, armed));
  EXPECT_EQ(run(arming->appliedState()), armed);
}

TEST_F(FilterArmingCoordinatorTest, reportsNothingWhenDisarmingFails) {
  configuration->applyFailuresLeft = 1;
  run(arming->reapply());
  EXPECT_THAT(configuration->applications, ElementsAre(disarmed));
  EXPECT_THAT(faults->faults, IsEmpty());
  EXPECT_EQ(run(arming->appliedState()), std::nullopt);
}

TEST_F(FilterArmingCoordinatorTest, believesNoApplicationThatTheReadBackContradicts) {
  configuration->armingHasNoEffect = true;
  showUserInterface();
  EXPECT_EQ(run(arming->appliedState()), std::nullopt);
  EXPECT_THAT(faults->faults, ElementsAre(DegradedReason::failedOpen));
  EXPECT_THAT(configuration->applications, ElementsAre(armed)) << "no pass of its own accord";
  EXPECT_FALSE(system.status().readiness.filterConfigurationIsEnabled);
}

TEST_F(FilterArmingCoordinatorTest, believesNoApplicationThatCannotBeReadBack) {
  configuration->readingFailuresLeft = 1;
  showUserInterface();
  EXPECT_EQ(run(arming->appliedState()), std::nullopt);
  EXPECT_THAT(faults->faults, ElementsAre(DegradedReason::failedOpen));
  EXPECT_FALSE(system.status().readiness.filterConfigurationIsEnabled);
}

TEST_F(FilterArmingCoordinatorTest, reportsToNobodyAfterTheReporterIsGone) {
  faults.reset();
  configuration->applyFailuresLeft = 1;
  showUserInterface();
  EXPECT_EQ(run(arming->appliedState()), std::nullopt);
}

// ---- conditions

TEST_F(FilterArmingCoordinatorTest, armsForAUserInterfaceAndDisarmsAfterIt) {
  showUserInterface();
  run(arming->setUserInterfaceRunning(false));
  EXPECT_THAT(configuration->applications, ElementsAre(armed, disarmed));
}

TEST_F(FilterArmingCoordinatorTest, makesNoPassForAUserInterfaceStateThatItKnows) {
  run(arming->setUserInterfaceRunning(false));
  EXPECT_THAT(configuration->applications, IsEmpty());
  showUserInterface();
  configuration->isArmed = false;
  configuration->applyFailuresLeft = 0;
  const int readings = configuration->readings;
  showUserInterface();
  EXPECT_THAT(configuration->applications, ElementsAre(armed));
  EXPECT_EQ(configuration->readings, readings);
}

TEST_F(FilterArmingCoordinatorTest, armsWhenACommitmentBeginsAndDisarmsWhenItEnds) {
  run(arming->start());
  run(arming->reapply());
  system.activate({"example.com"}, 60);
  EXPECT_THAT(configuration->applications, ElementsAre(disarmed, armed));
  run(system.authority->recordRunningTime(60, RunningTimeRecording::durable));
  system.executor.runReady();
  EXPECT_THAT(configuration->applications, ElementsAre(disarmed, armed, disarmed));
}

// ---- read-backs

TEST_F(FilterArmingCoordinatorTest, putsBackRulesThatAnotherProgramRemoved) {
  showUserInterface();
  configuration->isArmed = false;
  const auto found = run(arming->readiness());
  EXPECT_TRUE(found.filterConfigurationIsEnabled) << "as it is after the repair";
  EXPECT_THAT(configuration->applications, ElementsAre(armed, armed));
  EXPECT_THAT(faults->faults, ElementsAre(DegradedReason::failedOpen));
  EXPECT_EQ(run(arming->appliedState()), armed);
}

TEST_F(FilterArmingCoordinatorTest, saysWhatItFindsWhenRemovedRulesCannotBePutBack) {
  showUserInterface();
  configuration->isArmed = false;
  configuration->applyFailuresLeft = 1;
  const auto found = run(arming->readiness());
  EXPECT_FALSE(found.filterConfigurationIsEnabled);
  EXPECT_THAT(configuration->applications, ElementsAre(armed, armed));
  EXPECT_EQ(run(arming->appliedState()), std::nullopt);
  // Known to be lost: asking again is no reason to try again, or asking would be a busy loop.
  (void)run(arming->readiness());
  EXPECT_THAT(configuration->applications, ElementsAre(armed, armed));
}

TEST_F(FilterArmingCoordinatorTest, takesNoReadBackDuringAPassForALoss) {
  showUserInterface();
  configuration->applyGate.hold();
  (void)start(arming->setUserInterfaceRunning(false));
  system.executor.runReady();
  ASSERT_EQ(configuration->applyGate.waiting(), 1U);
  configuration->isArmed = false;  // the pass has got that far
  EXPECT_FALSE(run(arming->readiness()).filterConfigurationIsEnabled);
  configuration->applyGate.open();
  system.executor.runReady();
  EXPECT_THAT(configuration->applications, ElementsAre(armed, disarmed));
  EXPECT_THAT(faults->faults, IsEmpty());
}

TEST_F(FilterArmingCoordinatorTest, takesNoReadBackThatAWholePassOverlappedForALoss) {
  run(arming->reapply());
  configuration->readingGate.hold();
  const auto found = system.executor.start(arming->readiness());  // sees "disarmed"
  system.executor.runReady();
  (void)start(arming->setUserInterfaceRunning(true));
  system.executor.runReady();
  configuration->readingGate.open();
  system.executor.runReady();
  EXPECT_TRUE(found->has_value());
  EXPECT_THAT(configuration->applications, ElementsAre(disarmed, armed));
  EXPECT_THAT(faults->faults, IsEmpty());
}

TEST_F(FilterArmingCoordinatorTest, saysNothingIsReadyWhenTheSystemCannotBeAsked) {
  showUserInterface();
  configuration->readingFailuresLeft = 1;
  EXPECT_EQ(run(arming->readiness()), FilterPathReadiness{});
  EXPECT_THAT(configuration->applications, ElementsAre(armed));
}

// ---- directives

TEST_F(FilterArmingCoordinatorTest, publishesThePresentDirectiveWhenItStarts) {
  system.activate({"example.com"});
  run(arming->start());
  ASSERT_EQ(directives->published.size(), 1U);
  EXPECT_EQ(directives->published[0],
            (filtering::EnforcementDirective{
                .scope = core::Scope{.generation = 1, .domains = domains({"example.com"})},
                .validation = std::nullopt,
                .publishedAt = system.now()}));
  EXPECT_FALSE(arming->hasUnpublishedDirective());
}

TEST_F(FilterArmingCoordinatorTest, startsOnce) {
  run(arming->start());
  run(arming->start());
  EXPECT_EQ(directives->attempts, 1);
  system.activate({"example.com"});
  EXPECT_EQ(directives->attempts, 2);
}

TEST_F(FilterArmingCoordinatorTest, writesNoDirectiveForAStatusThatChangesNeitherScopeNorProbe) {
  run(arming->start());
  system.activate({"example.com"});
  const int attempts = directives->attempts;
  system.executor.advance(std::chrono::seconds(5));  // publishedAt would differ
  run(system.authority->publishStatus());
  run(system.authority->recordEnforcement(
      core::EnforcementHealthStatus::degraded{DegradedReason::pathUnverified}));
  system.executor.runReady();
  EXPECT_EQ(directives->attempts, attempts);
}

TEST_F(FilterArmingCoordinatorTest, publishesNothingAfterItStopped) {
  run(arming->start());
  run(arming->stop());
  system.activate({"example.com"});
  EXPECT_EQ(directives->attempts, 1);
  run(arming->start());
  EXPECT_EQ(directives->attempts, 2);
  EXPECT_EQ(directives->inForce->scope->domains, domains({"example.com"}));
}

TEST_F(FilterArmingCoordinatorTest, hasTheDirectiveInForceBeforeAnActivationIsAnswered) {
  run(arming->start());
  run(system.authority->record(core::EnforcementValidation::passed{}, system.now()));
  const auto answer =
      system.executor.start(system.authority->activate(test::activationOf({"example.com"})));
  while (!answer->has_value()) {
    ASSERT_TRUE(system.executor.step());
  }
  ASSERT_TRUE((*answer)->has_value());
  EXPECT_TRUE(directives->inForce->scope.has_value());
}

TEST_F(FilterArmingCoordinatorTest, takesTheScopeAwayWhenTheCommitmentEnds) {
  run(arming->start());
  system.activate({"example.com"}, 60);
  run(system.authority->recordRunningTime(60, RunningTimeRecording::inMemory));
  system.executor.runReady();
  EXPECT_EQ(directives->inForce->scope, std::nullopt);
}

TEST_F(FilterArmingCoordinatorTest, reportsADirectiveThatCouldNotBeWrittenAndWritesItAgain) {
  run(arming->start());
  directives->failuresLeft = 2;  // the activation's status, and that of the arming behind it
  system.activate({"example.com"});
  EXPECT_TRUE(arming->hasUnpublishedDirective());
  EXPECT_THAT(faults->faults, ElementsAre(DegradedReason::recoveringFromCorruption,
                                          DegradedReason::recoveringFromCorruption));
  EXPECT_THAT(configuration->applications, ElementsAre(armed)) << "armed all the same";

  run(system.authority->publishStatus());
  system.executor.runReady();
  EXPECT_FALSE(arming->hasUnpublishedDirective());
  EXPECT_EQ(directives->inForce->scope->domains, domains({"example.com"}));
}

TEST_F(FilterArmingCoordinatorTest, reportsADirectiveThatCouldNotBeWrittenAtTheStart) {
  directives->failuresLeft = 1;
  run(arming->start());
  EXPECT_TRUE(arming->hasUnpublishedDirective());
  EXPECT_THAT(faults->faults, ElementsAre(DegradedReason::recoveringFromCorruption));
}

TEST_F(FilterArmingCoordinatorTest, takesBackAScopeWhoseFailedWriteHadReachedTheFilter) {
  run(arming->start());
  directives->failureStillReplaces = true;
  directives->fails = [] { return true; };
  system.activate({"example.com"}, 60);
  directives->fails = nullptr;
  ASSERT_TRUE(directives->inForce->scope.has_value());
  // The Commitment ends. What counts as delivered has no Scope either, but the file has one.
  run(system.authority->recordRunningTime(60, RunningTimeRecording::inMemory));
  system.executor.runReady();
  EXPECT_EQ(directives->inForce->scope, std::nullopt);
}

// ---- lending

TEST_F(FilterArmingCoordinatorTest, lendsAProbeAndArms) {
  run(arming->start());
  const auto lent = probe();
  EXPECT_TRUE(run(arming->lend(lent)));
  EXPECT_EQ(directives->inForce->validation, lent);
  EXPECT_THAT(configuration->applications, ElementsAre(armed));
}

TEST_F(FilterArmingCoordinatorTest, lendsNothingWhenTheProbeCannotBePublished) {
  run(arming->start());
  directives->failuresLeft = 1;
  EXPECT_FALSE(run(arming->lend(probe())));
  EXPECT_THAT(configuration->applications, IsEmpty());
  run(arming->reapply());
  EXPECT_THAT(configuration->applications, ElementsAre(disarmed)) << "no probe is lent";
  run(system.authority->publishStatus());
  EXPECT_EQ(directives->inForce->validation, std::nullopt);
}

TEST_F(FilterArmingCoordinatorTest, takesAProbeBackAndDisarms) {
  run(arming->start());
  (void)run(arming->lend(probe()));
  run(arming->reclaim());
  EXPECT_EQ(directives->inForce->validation, std::nullopt);
  EXPECT_THAT(configuration->applications, ElementsAre(armed, disarmed));
}

TEST_F(FilterArmingCoordinatorTest, publishesNothingWhenNoProbeIsThereToTakeBack) {
  run(arming->start());
  const int attempts = directives->attempts;
  run(arming->reclaim());
  EXPECT_EQ(directives->attempts, attempts);
  EXPECT_THAT(configuration->applications, IsEmpty());
}

TEST_F(FilterArmingCoordinatorTest, hasArmedByTheTimeAProbeIsLentEvenIfAPassIsUnderWay) {
  run(arming->start());
  configuration->applyGate.hold();
  (void)start(arming->reapply());
  system.executor.runReady();
  ASSERT_THAT(configuration->applications, ElementsAre(disarmed));

  const auto lent = system.executor.start(arming->lend(probe()));
  system.executor.runReady();
  EXPECT_FALSE(lent->has_value());
  configuration->applyGate.open();
  while (!lent->has_value()) ASSERT_TRUE(system.executor.step());
  EXPECT_TRUE(configuration->isArmed);
}

TEST_F(FilterArmingCoordinatorTest, keepsTheFilterArmedWhenACommitmentBeganDuringTheProbe) {
  run(arming->start());
  (void)run(arming->lend(probe()));
  system.activate({"example.com"});
  run(arming->reclaim());
  EXPECT_THAT(configuration->applications, ElementsAre(armed));
  EXPECT_TRUE(directives->inForce->scope.has_value());
  EXPECT_EQ(directives->inForce->validation, std::nullopt);
}

TEST_F(FilterArmingCoordinatorTest, neverPublishesAnOlderScopeOverANewerOneWhateverTheOrder) {
  for (std::uint64_t seed = 0; seed < 200; ++seed) {
    SCOPED_TRACE(seed);
    test::SimulatedAuthority other(seed);
    auto store = std::make_shared<test::ScriptedEnforcementDirectives>();
    const auto coordinator = FilterArmingCoordinator::make(
        other.executor.executor(), {.authority = other.authority,
                                    .configuration = configuration,
                                    .directives = store,
                                    .blocking = other.executor.blockingExecutor(),
                                    .clock = other.clock()});
    other.executor.run(coordinator->start());
    other.activate({"a.example"});
    const auto lent = other.executor.start(coordinator->lend(probe()));
    const auto grown = other.executor.start(
        other.authority->strengthen(ipc::ScopeAddition::websites{domains({"b.example"})}));
    const auto taken = other.executor.start(thenTrue(coordinator->reclaim()));
    other.executor.runReady();
    std::int64_t generation = 0;
    for (const auto& directive : store->published) {
      const std::int64_t published = directive.scope ? directive.scope->generation : 0;
      EXPECT_GE(published, generation);
      generation = published;
    }
    EXPECT_EQ(generation, 2);
  }
}

// ---- failures that meet

TEST_F(FilterArmingCoordinatorTest, comesToRestWhenPublicationAndArmingFailTogether) {
  // Health as it is in the daemon: each fault changes the status, and that is told to everybody.
  class Telling final : public EnforcementFaultReporting {
   public:
    explicit Telling(std::shared_ptr<CommitmentAuthority> authority)
        : authority_(std::move(authority)) {}
    concurrency::Task<void> reportFault(DegradedReason reason) override {
      ++reports;
      (void)co_await authority_->recordEnforcement(core::EnforcementHealthStatus::degraded{reason});
    }
    int reports = 0;

   private:
    std::shared_ptr<CommitmentAuthority> authority_;
  };
  const auto telling = std::make_shared<Telling>(system.authority);
  run(arming->setFaults(telling));
  run(arming->start());
  directives->fails = [] { return true; };
  configuration->applyFails = [] { return true; };

  system.activate({"example.com"});  // fails the process if it does not come to rest
  EXPECT_THAT(configuration->applications, ElementsAre(armed)) << "one attempt for one request";
  EXPECT_LE(directives->attempts, 8);
  EXPECT_LE(telling->reports, 8);
  EXPECT_TRUE(arming->hasUnpublishedDirective());

  // Both are repaired by the next request from outside, without a restart.
  directives->fails = nullptr;
  configuration->applyFails = nullptr;
  EXPECT_TRUE(run(arming->lend(probe())));
  EXPECT_TRUE(configuration->isArmed);
  EXPECT_FALSE(arming->hasUnpublishedDirective());
}

TEST_F(FilterArmingCoordinatorTest, disarmsDuringRepeatedPublicationFailures) {
  run(arming->start());
  directives->fails = [] { return true; };
  system.activate({"example.com"}, 60);
  run(system.authority->recordRunningTime(60, RunningTimeRecording::inMemory));
  system.executor.runReady();
  EXPECT_THAT(configuration->applications, ElementsAre(armed, disarmed));
}

TEST_F(FilterArmingCoordinatorTest, doesNotOutliveItsOwnerThroughItsObserver) {
  run(arming->start());
  const std::weak_ptr<FilterArmingCoordinator> weak = arming;
  arming.reset();
  EXPECT_TRUE(weak.expired());
  system.activate({"example.com"});
  EXPECT_EQ(directives->attempts, 1);
}

}  // namespace
}  // namespace stillow::authority
