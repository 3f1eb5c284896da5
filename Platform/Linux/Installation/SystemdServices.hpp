#pragma once

#include <memory>
#include <utility>

#include "PlatformLinuxDaemon/CommandRunner.hpp"
#include "StillowIPC/DaemonRegistration.hpp"

namespace stillow::platform {

/// systemd in the place of macOS's service management: registering the daemon is enabling its unit
/// and starting it. An administrator who masked the unit has yet to approve of it.
class SystemdServices final : public ipc::DaemonServiceManaging {
 public:
  explicit SystemdServices(std::shared_ptr<CommandRunning> commands)
      : commands_(std::move(commands)) {}

  [[nodiscard]] std::unique_ptr<ipc::DaemonService> daemonService() override;

 private:
  std::shared_ptr<CommandRunning> commands_;
};

}  // namespace stillow::platform
