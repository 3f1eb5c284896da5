#pragma once

#include "StillowAuthority/MonotonicTimeSource.hpp"

namespace stillow::platform {

/// Mach's continuous time: counts while the machine sleeps, starts anew at boot, and nobody can set
/// it.
class ContinuousMonotonicTimeSource final : public authority::MonotonicTimeSource {
 public:
  [[nodiscard]] double seconds() const override;
};

}  // namespace stillow::platform
