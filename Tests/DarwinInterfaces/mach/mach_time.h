// See README.md in the folder above.
#pragma once

#include <cstdint>

#define KERN_SUCCESS 0
typedef int kern_return_t;
typedef struct mach_timebase_info {
  std::uint32_t numer;
  std::uint32_t denom;
} mach_timebase_info_data_t;

extern "C" {
kern_return_t mach_timebase_info(mach_timebase_info_data_t* info);
std::uint64_t mach_continuous_time(void);
}
