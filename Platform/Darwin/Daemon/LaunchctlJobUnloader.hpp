#pragma once

#include <chrono>
#include <expected>
#include <string>
#include <string_view>

#include "StillowAuthority/PrivilegedUninstall.hpp"

namespace stillow::platform {

/// Makes launchd end a job and forget it.
class LaunchctlJobUnloader final : public authority::PrivilegedJobUnloading {
 public:
  /// Past it the command is ended, and has failed.
  static constexpr std::chrono::seconds commandMax{5};

  [[nodiscard]] std::expected<void, std::string> unload(std::string_view label) override;
};

}  // namespace stillow::platform
