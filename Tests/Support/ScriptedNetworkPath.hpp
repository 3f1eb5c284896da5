#pragma once

#include <vector>

#include "StillowAuthority/NetworkPathObserving.hpp"

namespace stillow::test {

/// A network whose path changes when a test says so.
class ScriptedNetworkPath final : public authority::NetworkPathObserving {
 public:
  using Snapshot = authority::NetworkPathSnapshot;

  [[nodiscard]] concurrency::Channel<Snapshot> paths() override {
    return observations.emplace_back(1);
  }
  void give(const Snapshot& snapshot) const {
    for (const auto& observation : observations) (void)observation.give(snapshot);
  }

  std::vector<concurrency::Channel<Snapshot>> observations;
};

}  // namespace stillow::test
