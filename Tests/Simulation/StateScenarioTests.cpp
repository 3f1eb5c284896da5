#include "Scenario.hpp"

/// What is stored, and what is charged.
namespace stillow::simulation {
namespace {

TEST(Scenarios, chargesNothingTwiceWhenExtendedJustBeforeATickOrAfterASleep) {
  underSchedules([](Scenario& scenario) {
    auto& machine = scenario.machine;
    (void)scenario.activate(600);
    machine.advance(10.999);
    const auto extendTo = [&](double secondsFromNow) {
      const auto answer = scenario.expect(
          machine.client()->extend({core::ProjectedEndTime{machine.now() + secondsFromNow}}));
      ASSERT_NE(answer.active(), nullptr);
      EXPECT_NEAR(answer.active()->remainingDuration, secondsFromNow, 0.002);
    };
    extendTo(1'000);
    machine.advance(5);
    EXPECT_NEAR(machine.status().active()->remainingDuration, 995, 1.01);
    EXPECT_GE(machine.status().active()->remainingDuration, 995 - 0.01);

    machine.sleep(300);  // before any tick has seen it
    extendTo(1'500);
    machine.advance(5);
    EXPECT_GE(machine.status().active()->remainingDuration, 1'495 - 0.01)
        << "the sleep was charged to the extension";
    EXPECT_LE(machine.status().active()->remainingDuration, 1'496.01);
  });
}

TEST(Scenarios, chargesNoExtensionWithASleepInTheMiddleOfItsCall) {
  underSchedules([](Scenario& scenario) {
    auto& machine = scenario.machine;
    (void)scenario.activate(600);
    machine.advance(3.5);
    const core::Date newEnd = machine.now() + 1'500;
    const auto answer = begin(machine, machine.client()->extend({core::ProjectedEndTime{newEnd}}));
    const auto steps = machine.executor().random()() % 60;
    for (std::uint64_t step = 0; step < steps; ++step) (void)machine.executor().step();
    machine.sleep(300);
    machine.executor().runReady();
    ASSERT_TRUE(answer->has_value());
    machine.advance(3);
    const auto status = machine.status();
    ASSERT_NE(status.active(), nullptr);
    // The client may have given up waiting meanwhile, and a request that did not get through yet
    // may have been lost. But one that was ruled on holds to the moment.
    const bool isExtended = status.active()->projectedEndTime.date - newEnd > -800;
    if (!isExtended) return;
    EXPECT_GE(status.active()->projectedEndTime.date - newEnd, -0.11)
        << "the sleep was charged to the extension";
  });
}

TEST(Scenarios, chargesACommitmentNothingForTheOneBefore) {
  underSchedules([](Scenario& scenario) {
    auto& machine = scenario.machine;
    (void)scenario.activate(20);
    for (int looks = 0; machine.status().active() != nullptr && looks < 300; ++looks) {
      machine.advance(0.1);
    }
    // The sample that ended the first one is hardly over; nine tenths of a second remain to the
    // next.
    machine.advance(0.8);
    (void)scenario.activate(100);
    machine.advance(0.5);
    ASSERT_NE(machine.status().active(), nullptr);
    EXPECT_GE(machine.status().active()->remainingDuration, 100 - 0.51);
  });
}

TEST(Scenarios, goesOnAndRecoversWhenBothStoresFail) {
  underSchedules([](Scenario& scenario) {
    auto& machine = scenario.machine;
    (void)scenario.activate(3'000);
    machine.disk.isFull = true;
    const auto grown = scenario.expect(machine.client()->strengthen(
        ipc::ScopeAddition::websites{Scenario::sites({"second.example"})}));
    EXPECT_EQ(grown.active()->scopeGeneration, 2) << "the change holds in memory";
    machine.executor().runReady();
    EXPECT_EQ(machine.status().enforcement,
              EnforcementHealthStatus::degraded{DegradedReason::recoveringFromCorruption});
    machine.advance(100);
    EXPECT_FALSE(scenario.isHealthy());
    const int failures = machine.disk.failures;
    machine.advance(100);
    EXPECT_LE(machine.disk.failures - failures, 20) << "retries come from the back-off alone";

    machine.disk.isFull = false;
    machine.advance(310);
    EXPECT_TRUE(scenario.isHealthy());
    EXPECT_TRUE(scenario.isBlocking("second.example"));
    machine.losePower(60);
    machine.startDaemon();
    EXPECT_EQ(machine.status().active()->scopeGeneration, 2);
  });
}

TEST(Scenarios, isNotHealthyWhileOnlyTheCheckpointsCannotBeWritten) {
  underSchedules([](Scenario& scenario) {
    auto& machine = scenario.machine;
    (void)scenario.activate(3'000);
    machine.disk.refusesCheckpoints = true;
    (void)scenario.expect(machine.client()->strengthen(
        ipc::ScopeAddition::websites{Scenario::sites({"second.example"})}));
    machine.executor().runReady();
    EXPECT_EQ(machine.status().enforcement,
              EnforcementHealthStatus::degraded{DegradedReason::recoveringFromCorruption});
    EXPECT_TRUE(scenario.isBlocking("second.example")) << "the directive could be written";
    for (int look = 0; look < 20; ++look) {
      machine.advance(5);
      EXPECT_FALSE(scenario.isHealthy()) << "a crash would lose the second site";
    }
    machine.disk.mend();
    machine.advance(310);
    EXPECT_TRUE(scenario.isHealthy());
    machine.losePower(60);
    machine.startDaemon();
    ASSERT_NE(machine.status().active(), nullptr);
    EXPECT_EQ(machine.status().active()->scopeGeneration, 2);
  });
}

TEST(Scenarios, adoptsACheckpointThatCouldNotBeReadForAWhile) {
  underSchedules([](Scenario& scenario) {
    auto& machine = scenario.machine;
    const auto before = scenario.activate(3'000);
    machine.killDaemon();
    machine.disk.isUnreadable = true;
    machine.startDaemon();
    EXPECT_EQ(machine.status().active(), nullptr);
    EXPECT_EQ(machine.status().enforcement,
              EnforcementHealthStatus::degraded{DegradedReason::failedOpen});
    machine.advance(20);
    machine.disk.isUnreadable = false;
    machine.advance(60);
    const auto status = machine.status();
    ASSERT_NE(status.active(), nullptr) << "the good checkpoint was buried";
    EXPECT_EQ(status.active()->activatedAt, before.active()->activatedAt);
    EXPECT_TRUE(scenario.isBlocking("first.example"));
  });
}

TEST(Scenarios, goesOnWithTheLastGoodCheckpointWhenTheCurrentOneIsDamaged) {
  underSchedules([](Scenario& scenario) {
    auto& machine = scenario.machine;
    const auto before = scenario.activate(3'000);
    (void)scenario.expect(machine.client()->strengthen(
        ipc::ScopeAddition::websites{Scenario::sites({"second.example"})}));
    machine.advance(70);  // a charge was saved, so both files know of the second site
    machine.killDaemon();
    machine.disk.medium.placeFile(checkpointPath, R"({"schemaVersion":1,"checksum":")");
    machine.startDaemon();
    const auto found = machine.status();
    ASSERT_NE(found.active(), nullptr) << "the good copy was not used, or there was none";
    EXPECT_EQ(found.active()->activatedAt, before.active()->activatedAt);
    EXPECT_EQ(found.active()->scopeGeneration, 2);
    EXPECT_GE(found.active()->remainingDuration, 3'000 - 71.1);
    EXPECT_EQ(found.enforcement,
              EnforcementHealthStatus::degraded{DegradedReason::recoveringFromCorruption});
    EXPECT_TRUE(scenario.isBlocking("second.example"));

    machine.advance(30);
    EXPECT_TRUE(scenario.isHealthy());
    machine.losePower(5);
    machine.startDaemon();
    ASSERT_NE(machine.status().active(), nullptr) << "the damaged file was not replaced";
    EXPECT_EQ(machine.status().active()->scopeGeneration, 2);
  });
}

TEST(Scenarios, writesNoOlderStateOverACheckpointThatItCannotReadYet) {
  underSchedules([](Scenario& scenario) {
    auto& machine = scenario.machine;
    (void)scenario.activate(3'000);
    (void)scenario.expect(machine.client()->strengthen(
        ipc::ScopeAddition::websites{Scenario::sites({"second.example"})}));
    machine.killDaemon();
    machine.disk.hidesCurrent = true;
    machine.startDaemon();
    ASSERT_NE(machine.status().active(), nullptr);
    EXPECT_EQ(machine.status().active()->scopeGeneration, 1) << "the state before the last save";
    machine.advance(130);  // seconds are charged, and would be saved twice
    machine.disk.hidesCurrent = false;
    machine.advance(310);
    EXPECT_EQ(machine.status().active()->scopeGeneration, 2) << "the newer state was buried";
    EXPECT_TRUE(scenario.isBlocking("second.example"));
    EXPECT_TRUE(scenario.isHealthy());
  });
}

TEST(Scenarios, callsACommitmentThatItFoundHealthyOnlyAfterALook) {
  underSchedules([](Scenario& scenario) {
    auto& machine = scenario.machine;
    (void)scenario.activate(3'000);
    machine.losePower(60);
    machine.applyHangs = true;  // nobody knows yet whether anything is blocked, and nothing is
    machine.startDaemon();
    EXPECT_FALSE(scenario.isHealthy());
    machine.advance(15);
    EXPECT_FALSE(scenario.isHealthy());
    for (const auto& status : machine.takeAnnounced()) {
      EXPECT_FALSE(core::is<EnforcementHealthStatus::healthy>(status.enforcement));
    }
    machine.applyHangs = false;
    machine.advance(60);
    EXPECT_TRUE(scenario.isHealthy());
    EXPECT_TRUE(scenario.isBlocking("first.example"));
  });
}

TEST(Scenarios, endsACommitmentByItselfAndLiftsTheBlock) {
  underSchedules([](Scenario& scenario) {
    auto& machine = scenario.machine;
    (void)scenario.activate(90);
    machine.advance(89);
    EXPECT_TRUE(scenario.isBlocking("first.example"));
    machine.advance(3);
    EXPECT_EQ(machine.status().active(), nullptr);
    EXPECT_FALSE(scenario.isBlocking("first.example"));
    EXPECT_FALSE(machine.kernel.isArmed);
  });
}

}  // namespace
}  // namespace stillow::simulation
