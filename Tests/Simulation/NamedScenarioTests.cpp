#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Promises.hpp"
#include "SimulatedMachine.hpp"

/// Situations that are worth a name, each under a number of schedules.
namespace stillow::simulation {
namespace {

using core::DegradedReason;
using core::EnforcementHealthStatus;
using core::EnforcementValidation;
using Result = ipc::CommitmentAuthorityClient::Result;

constexpr std::uint64_t schedules = 60;

/// A machine whose daemon is up and healthy.
class Scenario {
 public:
  explicit Scenario(std::uint64_t seed) : machine(seed) {
    machine.disk.medium.placeDirectory(stateDirectory, 0700);
    machine.startDaemon();
    machine.executor().runReady();
  }

  template <class T>
  T run(concurrency::Task<T> task) {
    const auto result = begin(machine, std::move(task));
    machine.executor().runReady();
    // A call ends by its deadline at the latest.
    for (int seconds = 0; !result->has_value() && seconds < 40; ++seconds) machine.advance(1);
    core::require(result->has_value(), "a call does not end");
    return std::move(**result);
  }
  ipc::DaemonStatus expect(concurrency::Task<Result> task) {
    Result result = run(std::move(task));
    EXPECT_TRUE(result) << ipc::description(result.error());
    return result ? std::move(*result) : ipc::DaemonStatus{};
  }
  static core::DomainSet sites(std::initializer_list<const char*> names) {
    std::vector<core::Domain> made;
    for (const char* const name : names) made.push_back(*core::Domain::make(name));
    return core::DomainSet::of(std::move(made));
  }
  /// A Commitment over one site, behind a validation.
  ipc::DaemonStatus activate(double seconds) {
    (void)expect(machine.client()->validateEnforcement());
    return expect(machine.client()->activate({core::CommitmentSelection::allWebsites{},
                                              {{*core::Domain::make("first.example"), {}}},
                                              *core::CommitmentDuration::fromSeconds(seconds)}));
  }
  [[nodiscard]] bool isHealthy() {
    return core::is<EnforcementHealthStatus::healthy>(machine.status().enforcement);
  }
  [[nodiscard]] bool isBlocking(const char* site) {
    return machine.kernel.isDropping(site, machine.now());
  }

  SimulatedMachine machine;
};

void underSchedules(const std::function<void(Scenario&)>& body) {
  for (std::uint64_t seed = 1; seed <= schedules; ++seed) {
    SCOPED_TRACE("schedule " + std::to_string(seed));
    Scenario scenario(seed);
    body(scenario);
    if (testing::Test::HasFailure()) return;
  }
}

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

}  // namespace
}  // namespace stillow::simulation
