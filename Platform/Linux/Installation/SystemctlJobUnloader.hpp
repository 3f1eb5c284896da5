#pragma once

#include <expected>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "PlatformLinuxDaemon/CommandRunner.hpp"
#include "StillowAuthority/PrivilegedUninstall.hpp"

namespace stillow::platform {

/// Stops and disables the unit of a job. Both are tried whatever becomes of the other: a daemon
/// that cannot be stopped should at least not come back with the system. The reason is the first
/// error.
class SystemctlJobUnloader final : public authority::PrivilegedJobUnloading {
 public:
  explicit SystemctlJobUnloader(std::shared_ptr<CommandRunning> commands)
      : commands_(std::move(commands)) {}

  [[nodiscard]] std::expected<void, std::string> unload(std::string_view label) override;

 private:
  std::shared_ptr<CommandRunning> commands_;
};

}  // namespace stillow::platform
