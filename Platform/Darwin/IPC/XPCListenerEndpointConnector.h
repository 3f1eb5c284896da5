// Objective-C, for adapters only.
#pragma once

#include <memory>

#import <Foundation/Foundation.h>

#include "StillowIPC/DaemonConnection.hpp"

namespace stillow::platform {

/// Opens connections to a listener that has no name but handed out its endpoint.
class XPCListenerEndpointConnector final : public ipc::DaemonConnecting {
 public:
  explicit XPCListenerEndpointConnector(NSXPCListenerEndpoint* _Nonnull endpoint)
      : endpoint_(endpoint) {}

  [[nodiscard]] std::shared_ptr<ipc::DaemonConnection> makeConnection(
      ipc::DaemonConnectionHandlers handlers) override;

 private:
  NSXPCListenerEndpoint* const _Nonnull endpoint_;
};

}  // namespace stillow::platform
