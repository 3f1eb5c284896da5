#pragma once

#include <vector>

#include "StillowAuthority/FilterPathObserving.hpp"

namespace stillow::test {

/// Tells of a filter's end, its beginning and changed rules when a test says so.
class ScriptedFilterPath final : public authority::FilterPathObserving {
 public:
  using Observation = authority::FilterPathObservation;

  [[nodiscard]] concurrency::Channel<Observation> observations() override {
    return channels.emplace_back(1);
  }
  void filterEnds() { ++now.filterEndings, tell(); }
  void filterBegins() { ++now.filterBeginnings, tell(); }
  void configurationChanges() { ++now.configurationChanges, tell(); }

  Observation now;
  std::vector<concurrency::Channel<Observation>> channels;

 private:
  void tell() const {
    for (const auto& channel : channels) (void)channel.give(now);
  }
};

}  // namespace stillow::test
