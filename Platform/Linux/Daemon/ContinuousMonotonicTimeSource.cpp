#include "PlatformLinuxDaemon/ContinuousMonotonicTimeSource.hpp"

#include <ctime>

#include "StillowCore/Invariant.hpp"

namespace stillow::platform {

double ContinuousMonotonicTimeSource::seconds() const {
  timespec now{};
  // Every kernel since 2.6.39 has this clock, and asking for it has no other way to fail.
  core::require(::clock_gettime(CLOCK_BOOTTIME, &now) == 0, "CLOCK_BOOTTIME cannot be read");
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

}  // namespace stillow::platform
