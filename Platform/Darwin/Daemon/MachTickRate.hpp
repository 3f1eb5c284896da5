#pragma once

#include "StillowAuthority/TickRate.hpp"

namespace stillow::platform {

/// Of Mach's counters. Asked for once per process.
[[nodiscard]] authority::TickRate machTickRate() noexcept;

}  // namespace stillow::platform
