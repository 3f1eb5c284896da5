#pragma once

#include <cstdint>

#include "StillowConcurrency/Channel.hpp"

namespace stillow::authority {

/// What happened on the filter's path since the daemon started, as counts that only grow: the
/// newest observation stands for all before it, so none is missed by a slow reader.
struct FilterPathObservation {
  std::uint64_t filterEndings = 0;         ///< a filter that was found to be ours came to its end
  std::uint64_t filterBeginnings = 0;      ///< something suggests that a filter has started
  std::uint64_t configurationChanges = 0;  ///< somebody changed the system's rules; maybe not ours

  friend bool operator==(const FilterPathObservation&, const FilterPathObservation&) = default;
};

/// Tells of changes on the filter's path as they happen; asks nobody in between.
class FilterPathObserving {
 public:
  virtual ~FilterPathObserving() = default;
  /// One observation per change from now on; only the newest unread one is kept. Finishing the
  /// channel ends the observation.
  [[nodiscard]] virtual concurrency::Channel<FilterPathObservation> observations() = 0;

 protected:
  FilterPathObserving() = default;
  FilterPathObserving(const FilterPathObserving&) = default;
  FilterPathObserving& operator=(const FilterPathObserving&) = default;
};

}  // namespace stillow::authority
