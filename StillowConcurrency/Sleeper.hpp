#pragma once

#include <chrono>

#include "StillowConcurrency/Cancellation.hpp"
#include "StillowConcurrency/Task.hpp"

namespace stillow::concurrency {

enum class SleepOutcome : bool { cancelled, elapsed };

/// Waiting, as something that can be handed in. The clock counts time asleep, so a sleep is over
/// when its moment has passed, whether or not the machine was awake.
class Sleeper {
 public:
  virtual ~Sleeper() = default;
  /// Ends after `duration`, or promptly once `cancellation` is cancelled; also if it already is.
  [[nodiscard]] virtual Task<SleepOutcome> sleep(std::chrono::nanoseconds duration,
                                                 Cancellation cancellation) = 0;

 protected:
  Sleeper() = default;
  Sleeper(const Sleeper&) = default;
  Sleeper& operator=(const Sleeper&) = default;
};

/// `seconds` as a duration; what is too long for the type becomes its maximum.
[[nodiscard]] inline std::chrono::nanoseconds nanoseconds(double seconds) {
  constexpr double limit = 9.2e9;
  if (!(seconds > 0)) return std::chrono::nanoseconds(0);
  if (seconds >= limit) return std::chrono::nanoseconds::max();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
      std::chrono::duration<double>(seconds));
}

}  // namespace stillow::concurrency
