#include "PlatformDarwinDaemon/ContinuousMonotonicTimeSource.hpp"

#include <mach/mach_time.h>

#include "PlatformDarwinDaemon/MachTickRate.hpp"

namespace stillow::platform {

authority::TickRate machTickRate() noexcept {
  static const authority::TickRate rate = [] {
    mach_timebase_info_data_t base{};
    const bool isKnown = ::mach_timebase_info(&base) == KERN_SUCCESS;
    return authority::TickRate::of(isKnown, base.numer, base.denom);
  }();
  return rate;
}

double ContinuousMonotonicTimeSource::seconds() const {
  return static_cast<double>(::mach_continuous_time()) * machTickRate().secondsPerTick();
}

}  // namespace stillow::platform
