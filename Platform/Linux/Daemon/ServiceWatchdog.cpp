#include "PlatformLinuxDaemon/ServiceWatchdog.hpp"

#include <cstdint>

#include <systemd/sd-daemon.h>

namespace stillow::platform {

std::optional<std::chrono::nanoseconds> ServiceWatchdog::interval() {
  std::uint64_t microseconds = 0;
  if (::sd_watchdog_enabled(0, &microseconds) <= 0) return std::nullopt;
  return std::chrono::microseconds(microseconds / 2);
}

void ServiceWatchdog::notifyManager() {
  (void)::sd_notify(0, "WATCHDOG=1");  // a manager that cannot be told will act by itself
}

concurrency::Task<void> ServiceWatchdog::feed(Parts parts) {
  while (true) {
    co_await parts.roundTrip();
    parts.giveSign();
    const auto slept = co_await parts.sleeper->sleep(parts.interval, {});
    (void)slept;  // nobody cancels it
  }
}

}  // namespace stillow::platform
