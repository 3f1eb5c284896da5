#pragma once

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
using core::DegradedReason;
using core::EnforcementHealthStatus;
using core::EnforcementValidation;
using Result = ipc::CommitmentAuthorityClient::Result;

inline constexpr std::uint64_t schedules = 60;

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
  static ipc::ActivationRequest activation(double seconds) {
    return {core::CommitmentSelection::allWebsites{},
            {{*core::Domain::make("first.example"), {}}},
            *core::CommitmentDuration::fromSeconds(seconds)};
  }
  /// A Commitment over one site, behind a validation.
  ipc::DaemonStatus activate(double seconds) {
    (void)expect(machine.client()->validateEnforcement());
    return expect(machine.client()->activate(activation(seconds)));
  }
  [[nodiscard]] bool isHealthy() {
    return core::is<EnforcementHealthStatus::healthy>(machine.status().enforcement);
  }
  [[nodiscard]] bool isBlocking(const char* site) {
    return machine.kernel.isDropping(site, machine.now());
  }

  SimulatedMachine machine;
};

inline void underSchedules(const std::function<void(Scenario&)>& body) {
  for (std::uint64_t seed = 1; seed <= schedules; ++seed) {
    SCOPED_TRACE("schedule " + std::to_string(seed));
    Scenario scenario(seed);
    body(scenario);
    if (testing::Test::HasFailure()) return;
  }
}

}  // namespace stillow::simulation
