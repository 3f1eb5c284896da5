#pragma once

#include <memory>
#include <string>

#include "StillowIPC/DaemonConnection.hpp"

namespace stillow::platform {

/// Opens connections to the daemon's Mach service, in the privileged part of the name space: a name
/// that a user's own process offers there is not ours.
class XPCDaemonConnector final : public ipc::DaemonConnecting {
 public:
  explicit XPCDaemonConnector(std::string machServiceName)
      : machServiceName_(std::move(machServiceName)) {}

  [[nodiscard]] std::shared_ptr<ipc::DaemonConnection> makeConnection(
      ipc::DaemonConnectionHandlers handlers) override;

 private:
  const std::string machServiceName_;
};

}  // namespace stillow::platform
