#pragma once

#include <algorithm>
#include <cstdint>

namespace stillow::authority {

/// How long to wait between attempts to recover.
struct RecoveryBackoff {
  double initialDelay = 5;    ///< seconds
  double multiplier = 2;      ///< from one attempt to the next
  double maximumDelay = 300;  ///< seconds

  /// Seconds before `attempt`, which counts from 1.
  [[nodiscard]] constexpr double delay(std::int64_t attempt) const noexcept {
    double seconds = initialDelay;
    for (std::int64_t step = 1; step < attempt; ++step) {
      if (seconds >= maximumDelay) return maximumDelay;
      seconds *= multiplier;
    }
    return std::min(seconds, maximumDelay);
  }

  friend bool operator==(const RecoveryBackoff&, const RecoveryBackoff&) = default;
};

}  // namespace stillow::authority
