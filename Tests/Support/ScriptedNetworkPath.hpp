#pragma once

#include <optional>
#include <vector>

#include "StillowAuthority/NetworkPathObserving.hpp"

namespace stillow::test {

/// A network whose path changes when a test says so. Whoever begins to follow it gets the present
/// path first, if there is one.
class ScriptedNetworkPath final : public authority::NetworkPathObserving {
 public:
  using Snapshot = authority::NetworkPathSnapshot;

  [[nodiscard]] concurrency::Channel<Snapshot> paths() override {
    const auto& observation = observations.emplace_back(1);
    if (present) (void)observation.give(*present);
    return observation;
  }
  void give(const Snapshot& snapshot) {
    if (present) present = snapshot;
    for (const auto& observation : observations) (void)observation.give(snapshot);
  }

  std::optional<Snapshot> present;
  std::vector<concurrency::Channel<Snapshot>> observations;
};

}  // namespace stillow::test
