#pragma once

#include <chrono>

#include "StillowCore/Date.hpp"

namespace stillow::core {

/// The system's wall clock: a `WallClock` for entry routines. What decides gets one from outside.
/// May be called from any thread.
[[nodiscard]] inline Date systemTime() {
  const std::chrono::duration<double> sinceEpoch =
      std::chrono::system_clock::now().time_since_epoch();
  return Date::fromUnixSeconds(sinceEpoch.count());
}

}  // namespace stillow::core
