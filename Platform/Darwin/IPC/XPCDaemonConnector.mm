#include "PlatformDarwinIPC/XPCDaemonConnector.hpp"

#import <Foundation/Foundation.h>

#include <utility>

#import "PlatformDarwinIPC/FoundationValues.h"
#import "PlatformDarwinIPC/StillowXPCProtocols.h"
#import "PlatformDarwinIPC/XPCListenerEndpointConnector.h"

/// What a client exports to the daemon.
@interface StillowStatusChangeReceiver : NSObject <StillowDaemonClientXPCProtocol>
- (instancetype)initWithHandler:(std::function<void(stillow::ipc::SharedBytes)>)handler;
@end

@implementation StillowStatusChangeReceiver {
  std::function<void(stillow::ipc::SharedBytes)> _handler;
}

- (instancetype)initWithHandler:(std::function<void(stillow::ipc::SharedBytes)>)handler {
  self = [super init];
  if (self != nil) _handler = std::move(handler);
  return self;
}

- (void)daemonStatusChangedWithStatus:(NSData*)status {
  _handler(stillow::platform::sharedBytes(status));
}
@end

namespace stillow::platform {

namespace {

using ipc::DaemonOperation;

/// The daemon's object on one connection, with what to do when a call of it fails.
class XPCDaemonProxy final : public ipc::DaemonProxy {
 public:
  explicit XPCDaemonProxy(id<StillowDaemonXPCProtocol> remote) : remote_(remote) {}

  void send(DaemonOperation operation, ipc::SharedBytes request,
            std::function<void(ipc::DaemonReply)> reply) override {
    @autoreleasepool {
      NSData* const bytes = request ? foundationData(*request) : [NSData data];
      const StillowXPCReply answer = ^(NSData* status, NSError* error) {
        // An error counts even if bytes came with it.
        if (error != nil) {
          reply(ipc::DaemonReply::of(platformError(error)));
        } else {
          reply(ipc::DaemonReply::of(sharedBytes(status)));
        }
      };
      switch (operation) {
        case DaemonOperation::status:
          return [remote_ statusWithReply:answer];
        case DaemonOperation::activate:
          return [remote_ activateWithRequest:bytes reply:answer];
        case DaemonOperation::strengthen:
          return [remote_ strengthenWithRequest:bytes reply:answer];
        case DaemonOperation::extend:
          return [remote_ extendWithRequest:bytes reply:answer];
        case DaemonOperation::subscribeToStatusChanges:
          return [remote_ subscribeToStatusChangesWithReply:answer];
        case DaemonOperation::validateEnforcement:
          return [remote_ validateEnforcementWithReply:answer];
        case DaemonOperation::acknowledgeExpiry:
          return [remote_ acknowledgeExpiryWithReply:answer];
        case DaemonOperation::armFilterConfiguration:
          return [remote_ armFilterConfigurationWithReply:answer];
        case DaemonOperation::announceUserInterface:
          return [remote_ announceUserInterfaceWithReply:answer];
      }
    }
  }

 private:
  const id<StillowDaemonXPCProtocol> remote_;
};

class XPCClientConnection final : public ipc::DaemonConnection {
 public:
  XPCClientConnection(NSXPCConnection* connection, ipc::DaemonConnectionHandlers handlers)
      : connection_(connection) {
    connection_.remoteObjectInterface =
        [NSXPCInterface interfaceWithProtocol:@protocol(StillowDaemonXPCProtocol)];
    connection_.exportedInterface =
        [NSXPCInterface interfaceWithProtocol:@protocol(StillowDaemonClientXPCProtocol)];
    connection_.exportedObject =
        [[StillowStatusChangeReceiver alloc] initWithHandler:std::move(handlers.statusChanged)];
    const auto lost = std::move(handlers.lost);
    connection_.invalidationHandler = ^{
      lost();
    };
    connection_.interruptionHandler = ^{
      lost();
    };
  }
  /// The system's object has to be invalidated before it goes.
  ~XPCClientConnection() override { [connection_ invalidate]; }
  XPCClientConnection(const XPCClientConnection&) = delete;
  XPCClientConnection& operator=(const XPCClientConnection&) = delete;

  void setCodeSigningRequirement(const ipc::CodeSigningRequirement& requirement) override {
    [connection_ setCodeSigningRequirement:foundationString(requirement.text)];
  }

  void resume() override { [connection_ resume]; }

  [[nodiscard]] std::shared_ptr<ipc::DaemonProxy> remoteProxy(
      std::function<void(ipc::PlatformError)> onError) override {
    @autoreleasepool {
      const id remote = [connection_ remoteObjectProxyWithErrorHandler:^(NSError* error) {
        onError(platformError(error));
      }];
      if (![remote conformsToProtocol:@protocol(StillowDaemonXPCProtocol)]) return nullptr;
      return std::make_shared<XPCDaemonProxy>(remote);
    }
  }

  void invalidate() override { [connection_ invalidate]; }

 private:
  NSXPCConnection* const connection_;
};

}  // namespace

std::shared_ptr<ipc::DaemonConnection> XPCDaemonConnector::makeConnection(
    ipc::DaemonConnectionHandlers handlers) {
  @autoreleasepool {
    return std::make_shared<XPCClientConnection>(
        [[NSXPCConnection alloc] initWithMachServiceName:foundationString(machServiceName_)
                                                 options:NSXPCConnectionPrivileged],
        std::move(handlers));
  }
}

std::shared_ptr<ipc::DaemonConnection> XPCListenerEndpointConnector::makeConnection(
    ipc::DaemonConnectionHandlers handlers) {
  @autoreleasepool {
    return std::make_shared<XPCClientConnection>(
        [[NSXPCConnection alloc] initWithListenerEndpoint:endpoint_], std::move(handlers));
  }
}

}  // namespace stillow::platform
