#pragma once

#include <expected>
#include <memory>
#include <string>

#include "StillowIPC/DaemonConnection.hpp"

namespace stillow::platform {

/// The daemon's Mach service.
///
/// launchd knows the service by the daemon's property list, so a process that it did not start can
/// listen but will never be connected to. The requirement of a connection is set before it is
/// resumed; the system then drops any peer that does not satisfy it, and no call of such a peer
/// gets here.
class XPCDaemonListener final : public ipc::DaemonListening {
 public:
  /// Listens under `machServiceName` once it is started.
  explicit XPCDaemonListener(std::string machServiceName);
  /// Ends every connection.
  ~XPCDaemonListener() override;
  XPCDaemonListener(const XPCDaemonListener&) = delete;
  XPCDaemonListener& operator=(const XPCDaemonListener&) = delete;

  [[nodiscard]] std::expected<void, std::string> start(
      std::weak_ptr<ipc::DaemonListenerDelegate> delegate) override;

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace stillow::platform
