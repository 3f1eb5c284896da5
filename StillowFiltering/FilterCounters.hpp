#pragma once

#include <cstdint>
#include <string>

namespace stillow::filtering {

/// What a filter has done since it started. Each flow is counted once, however many of its packets
/// are looked at.
struct FilterCounters {
  std::int64_t scopeGeneration = 0;  ///< of the Scope in force; 0: none
  std::int64_t flowsClassified = 0;
  std::int64_t flowsDropped = 0;
  std::int64_t flowsReleased = 0;
  std::int64_t flowsHeldForInspection = 0;  ///< at the moment
  std::int64_t ambiguousFlowsAllowed = 0;
  std::int64_t unattributedFlowsAllowed = 0;
  std::int64_t associationsRecorded = 0;
  std::int64_t associatedAddressCount = 0;  ///< at the moment

  friend bool operator==(const FilterCounters&, const FilterCounters&) = default;
};

/// "scopeGeneration=3 classified=10 dropped=2 ...": every counter, in order.
[[nodiscard]] std::string description(const FilterCounters& counters);

}  // namespace stillow::filtering
