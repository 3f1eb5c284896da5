#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "StillowConcurrency/Sleeper.hpp"
#include "StillowConcurrency/Task.hpp"

namespace stillow::platform {

/// The service manager's watchdog: it kills a process that gives no sign of life for too long.
class ServiceWatchdog {
 public:
  struct Parts {
    std::shared_ptr<concurrency::Sleeper> sleeper;
    /// Comes back if the process does what it is there for. What hangs is not cut short: then there
    /// is no sign of life any more, as it should be.
    std::function<concurrency::Task<void>()> roundTrip;
    std::function<void()> giveSign;
    std::chrono::nanoseconds interval;
  };

  /// How often to give a sign, half the time that the manager waits for one; none if it does not
  /// watch this process. Read from the environment.
  [[nodiscard]] static std::optional<std::chrono::nanoseconds> interval();

  /// To the manager of this process; nothing if there is none.
  static void notifyManager();

  /// A sign after each round trip, for as long as they come back. Never ends by itself.
  [[nodiscard]] static concurrency::Task<void> feed(Parts parts);
};

}  // namespace stillow::platform
