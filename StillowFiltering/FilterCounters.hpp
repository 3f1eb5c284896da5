#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "StillowFiltering/FlowClassification.hpp"

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

  // Each of these stops the process where a counter would overflow.

  /// A flow showed its name and its address, after which the table holds `addressCount` addresses.
  void countAssociation(std::size_t addressCount) noexcept;
  /// A new flow was judged so.
  void countClassified(const FlowClassification& classification) noexcept;
  /// The inspection of a flow ended so: dropped or released.
  void countEndOfInspection(const FlowDisposition& disposition) noexcept;

  friend bool operator==(const FilterCounters&, const FilterCounters&) = default;
};

/// "scopeGeneration=3 classified=10 dropped=2 ...": every counter, in order.
[[nodiscard]] std::string description(const FilterCounters& counters);

}  // namespace stillow::filtering
