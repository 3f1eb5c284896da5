#include "Scenario.hpp"

/// Filter, clients and health.
namespace stillow::simulation {
namespace {

TEST(Scenarios, answersTwoValidationsAtOnceFromRunsThatDoNotMix) {
  underSchedules([](Scenario& scenario) {
    auto& machine = scenario.machine;
    machine.connectionSeconds = 1;
    const auto first = begin(machine, machine.client(0)->validateEnforcement());
    machine.advance(0.5);
    const auto second = begin(machine, machine.client(1)->validateEnforcement());
    machine.advance(20);
    ASSERT_TRUE(first->has_value() && second->has_value());
    ASSERT_TRUE(**first && **second);
    for (const auto& answer : {**first, **second}) {
      EXPECT_EQ(answer->readiness.validation, EnforcementValidation::passed{});
    }
    EXPECT_EQ(machine.kernel.adopted->validation, std::nullopt) << "no probe is left behind";
    EXPECT_FALSE(machine.kernel.isArmed) << "nothing keeps the filter armed";
  });
}

TEST(Scenarios, takesNoValidationsProbeBackWithThatOfAnother) {
  underSchedules([](Scenario& scenario) {
    auto& machine = scenario.machine;
    machine.connectionSeconds = 1;
    const auto first = begin(machine, machine.client(0)->validateEnforcement());
    machine.advance(1.5);
    const auto second = begin(machine, machine.client(1)->validateEnforcement());
    machine.sleep(0.5);  // the first one ends in the very moment in which the second begins
    machine.executor().runReady();
    machine.advance(20);
    for (const auto& answer : {first, second}) {
      ASSERT_TRUE(answer->has_value() && **answer);
      EXPECT_EQ((**answer)->readiness.validation, EnforcementValidation::passed{});
    }
    EXPECT_EQ(machine.kernel.adopted->validation, std::nullopt);
    EXPECT_FALSE(machine.kernel.isArmed);
  });
}

TEST(Scenarios, losesNothingWhenAScopeGrowsWhileAProbeIsTakenBack) {
  underSchedules([](Scenario& scenario) {
    auto& machine = scenario.machine;
    (void)scenario.activate(600);
    machine.connectionGate.hold();
    const auto validation = begin(machine, machine.client(0)->validateEnforcement());
    machine.executor().runReady();
    machine.connectionGate.open();  // what follows is the second connection, and the reclaim
    const auto grown = begin(machine, machine.client(1)->strengthen(ipc::ScopeAddition::websites{
                                          Scenario::sites({"second.example"})}));
    machine.executor().runReady();
    ASSERT_TRUE(validation->has_value() && grown->has_value() && **grown);
    const auto& adopted = *machine.kernel.adopted;
    EXPECT_EQ(adopted.validation, std::nullopt);
    ASSERT_TRUE(adopted.scope);
    EXPECT_EQ(adopted.scope->generation, 2);
    EXPECT_TRUE(scenario.isBlocking("first.example"));
    EXPECT_TRUE(scenario.isBlocking("second.example"));
    EXPECT_FALSE(scenario.isBlocking("old-probe.stillow.larchmoor.com"));
  });
}

TEST(Scenarios, disarmsWhenTheLastClientIsGoneHoweverItWent) {
  underSchedules([](Scenario& scenario) {
    auto& machine = scenario.machine;
    (void)scenario.expect(machine.client(0)->announceUserInterface());
    machine.executor().runReady();
    EXPECT_TRUE(machine.kernel.isArmed) << "a user interface is there";
    const auto second = begin(machine, machine.client(1)->announceUserInterface());
    const auto steps = machine.executor().random()() % 40;
    for (std::uint64_t step = 0; step < steps; ++step) (void)machine.executor().step();
    machine.endpoint()->interruptAll();
    machine.executor().runReady();
    // It may have connected only behind that.
    machine.client(1)->invalidate();
    machine.advance(60);
    EXPECT_TRUE(second->has_value());
    EXPECT_FALSE(machine.kernel.isArmed) << "somebody who is gone keeps the filter armed";
  });
}

TEST(Scenarios, leavesNoObserverBehindWhenAConnectionEndsWhileItSubscribes) {
  underSchedules([](Scenario& scenario) {
    auto& machine = scenario.machine;
    const auto read = [](ipc::DaemonStatusStream stream, int* count) -> concurrency::Task<bool> {
      while (true) {
        const auto status = co_await stream.next();
        if (!status) co_return true;
        ++*count;
      }
    };
    auto client = machine.client(0);
    (void)scenario.expect(client->status());  // there is a connection that can end
    const std::size_t connections = machine.endpoint()->connectionCount();
    int statuses = 0;
    const auto ended = begin(machine, read(client->statusChanges(), &statuses));
    const auto steps = machine.executor().random()() % 40;
    for (std::uint64_t step = 0; step < steps; ++step) (void)machine.executor().step();
    if (steps % 2 == 0) {
      client->invalidate();
    } else {
      machine.endpoint()->interruptAll();
    }
    machine.executor().runReady();
    ASSERT_TRUE(ended->has_value()) << "the stream ended with its connection";
    const int before = statuses;
    machine.advance(6);
    EXPECT_LT(machine.endpoint()->connectionCount(), connections) << "somebody holds it still";
    // Everybody else is served as before, and a new subscription works.
    int again = 0;
    const auto other = begin(machine, read(machine.client(1)->statusChanges(), &again));
    (void)scenario.activate(60);
    EXPECT_GT(again, 1);
    EXPECT_FALSE(other->has_value());
    EXPECT_EQ(statuses, before);
    EXPECT_EQ(machine.status().active()->scope, Scenario::sites({"first.example"}));
  });
}

TEST(Scenarios, doesNotTakeASuccessThatAFaultCrossedForHealth) {
  underSchedules([](Scenario& scenario) {
    auto& machine = scenario.machine;
    (void)scenario.activate(3'000);
    ASSERT_TRUE(scenario.isHealthy());
    machine.connectionGate.hold();
    machine.changeNetwork({.isSatisfied = true, .usesVPN = true, .interfaces = {"eth0", "tun0"}});
    machine.executor().runReady();
    ASSERT_EQ(machine.connectionGate.waiting(), 1U) << "a verification is under way";
    machine.killFilter();
    machine.startFilter();  // at once, so that the verification will succeed
    machine.executor().runReady();
    EXPECT_FALSE(scenario.isHealthy());
    machine.connectionGate.open();
    machine.executor().runReady();
    EXPECT_FALSE(scenario.isHealthy()) << "what was seen is older than the fault";
    machine.advance(30);
    EXPECT_TRUE(scenario.isHealthy());
  });
}

TEST(Scenarios, opensTheDoorEvenIfTheFirstPassHangs) {
  for (std::uint64_t seed = 1; seed <= schedules; ++seed) {
    SCOPED_TRACE(seed);
    SimulatedMachine machine(seed);
    machine.disk.medium.placeDirectory(stateDirectory, 0700);
    machine.applyHangs = true;
    machine.startDaemon();
    const auto early = begin(machine, machine.client()->status());
    machine.advance(1);
    ASSERT_TRUE(early->has_value());
    machine.advance(10);
    const auto late = begin(machine, machine.client()->status());
    machine.executor().runReady();
    ASSERT_TRUE(late->has_value());
    EXPECT_TRUE((*late)->has_value());
  }
}

TEST(Scenarios, isNeverHealthyAfterAStartWithoutAFilter) {
  for (std::uint64_t seed = 1; seed <= schedules; ++seed) {
    SCOPED_TRACE(seed);
    SimulatedMachine machine(seed);
    machine.disk.medium.placeDirectory(stateDirectory, 0700);
    machine.kernel.filterIsPresent = false;
    machine.startDaemon();
    machine.advance(30);
    for (const auto& status : machine.takeAnnounced()) {
      EXPECT_FALSE(core::is<EnforcementHealthStatus::healthy>(status.enforcement));
    }
    EXPECT_EQ(machine.status().enforcement,
              EnforcementHealthStatus::degraded{DegradedReason::failedOpen});
    machine.startFilter();
    machine.advance(30);
    EXPECT_TRUE(core::is<EnforcementHealthStatus::healthy>(machine.status().enforcement));
  }
}

TEST(Scenarios, leavesNothingRunningWhenEverythingIsLetGo) {
  for (std::uint64_t seed = 1; seed <= schedules; ++seed) {
    SCOPED_TRACE(seed);
    Scenario scenario(seed);
    auto& machine = scenario.machine;
    (void)scenario.activate(600);
    machine.killFilter();
    (void)scenario.expect(machine.client()->announceUserInterface());
    machine.executor().runReady();
    EXPECT_GT(machine.executor().sleeperCount(), 0U);
    machine.letGo();
    // Naps and graces may still run out, but they wake nobody who works on.
    machine.executor().advance(std::chrono::hours(1));
    EXPECT_EQ(machine.executor().sleeperCount(), 0U) << "a loop outlived its owner";
  }
}

TEST(Scenarios, provesNothingWhileAnArmedFilterDropsNothing) {
  underSchedules([](Scenario& scenario) {
    auto& machine = scenario.machine;
    machine.kernel.dropsNothing = true;
    const auto status = scenario.expect(machine.client()->validateEnforcement());
    EXPECT_EQ(status.readiness.validation,
              EnforcementValidation(EnforcementValidation::failed{
                  core::EnforcementValidationFailure::connectionNotDropped}));
    const Result refused = scenario.run(machine.client()->activate(Scenario::activation(600)));
    EXPECT_FALSE(refused.has_value());

    machine.kernel.dropsNothing = false;
    (void)scenario.activate(600);
    machine.kernel.dropsNothing = true;
    machine.changeNetwork({.isSatisfied = true, .usesVPN = false, .interfaces = {"wlan0"}});
    machine.advance(10);
    EXPECT_FALSE(scenario.isHealthy()) << "nobody looked when the network changed";
    machine.kernel.dropsNothing = false;
    machine.advance(60);
    EXPECT_TRUE(scenario.isHealthy());
  });
}

}  // namespace
}  // namespace stillow::simulation
