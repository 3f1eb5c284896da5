#include "PlatformDarwinIPC/XPCDaemonListener.hpp"

#import <Foundation/Foundation.h>

#include <map>
#include <mutex>
#include <utility>

#import "PlatformDarwinIPC/FoundationValues.h"
#import "PlatformDarwinIPC/StillowXPCProtocols.h"
#include "StillowIPC/NewestPush.hpp"

namespace stillow::platform {

namespace {

using ipc::DaemonOperation;

/// One accepted connection. It owns the system's object; the object's handlers know it by its
/// number only, so neither keeps the other.
class XPCServedConnection final : public ipc::ServedConnection,
                                  public std::enable_shared_from_this<XPCServedConnection> {
 public:
  explicit XPCServedConnection(NSXPCConnection* connection) : connection_(connection) {}

  [[nodiscard]] ipc::ConnectionID identity() const noexcept override { return id_; }
  [[nodiscard]] NSXPCConnection* connection() const noexcept { return connection_; }

  void push(ipc::SharedBytes status) override {
    const std::lock_guard lock(mutex_);
    if (const auto bytes = pushes_.offer(std::move(status))) send(bytes);
  }

  /// `reply` is the block that the call came with. A push that still waits goes first: an answer
  /// must not be followed by an older status.
  void answer(const ipc::DaemonReply& answered, StillowXPCReply reply) {
    @autoreleasepool {
      NSData* const bytes = answered.bytes ? foundationData(*answered.bytes) : nil;
      NSError* const error = answered.error ? foundationError(*answered.error) : nil;
      const std::lock_guard lock(mutex_);
      if (const auto waiting = pushes_.takeWaiting()) sendNow(waiting);
      reply(bytes, error);
    }
  }

  /// Nothing is sent any more, and nothing more comes.
  void end() {
    {
      const std::lock_guard lock(mutex_);
      hasEnded_ = true;
    }
    [connection_ invalidate];
  }

 private:
  // The caller of these holds the lock. Neither waits: the system queues what is sent.
  void sendNow(const ipc::SharedBytes& status) {
    if (hasEnded_) return;
    @autoreleasepool {
      const id proxy = connection_.remoteObjectProxy;
      if (![proxy conformsToProtocol:@protocol(StillowDaemonClientXPCProtocol)]) return;
      [static_cast<id<StillowDaemonClientXPCProtocol>>(proxy)
          daemonStatusChangedWithStatus:foundationData(*status)];
    }
  }

  void send(const ipc::SharedBytes& status) {
    if (hasEnded_) return;
    sendNow(status);
    // A peer that takes nothing would otherwise make the system queue one status after the other
    // in our memory. The barrier comes when this one has left.
    const std::weak_ptr<XPCServedConnection> weak = weak_from_this();
    [connection_ scheduleSendBarrierBlock:^{
      if (const auto self = weak.lock()) self->noteSent();
    }];
  }

  void noteSent() {
    const std::lock_guard lock(mutex_);
    if (const auto next = pushes_.noteSent()) send(next);
  }

  const ipc::ConnectionID id_ = ipc::ConnectionID::next();
  NSXPCConnection* const connection_;
  std::mutex mutex_;
  ipc::NewestPush pushes_;
  bool hasEnded_ = false;
};

/// What the listener's delegate and the connections' handlers share.
class Connections final : public std::enable_shared_from_this<Connections> {
 public:
  explicit Connections(std::weak_ptr<ipc::DaemonListenerDelegate> delegate)
      : delegate_(std::move(delegate)) {}

  [[nodiscard]] std::shared_ptr<ipc::DaemonListenerDelegate> delegate() const {
    return delegate_.lock();
  }

  void add(const std::shared_ptr<XPCServedConnection>& connection) {
    const std::lock_guard lock(mutex_);
    live_.emplace(connection->identity(), connection);
  }

  /// Interrupted or invalid: for a peer that is gone there is nothing left to do but to let go.
  void noteEnd(ipc::ConnectionID id) {
    std::shared_ptr<XPCServedConnection> ended;
    {
      const std::lock_guard lock(mutex_);
      if (const auto node = live_.extract(id)) ended = node.mapped();
    }
    if (ended) ended->end();
    if (const auto told = delegate()) told->ended(id);
  }

  void endAll() {
    std::map<ipc::ConnectionID, std::shared_ptr<XPCServedConnection>> ended;
    {
      const std::lock_guard lock(mutex_);
      ended.swap(live_);
    }
    for (const auto& [id, connection] : ended) connection->end();
  }

 private:
  const std::weak_ptr<ipc::DaemonListenerDelegate> delegate_;
  std::mutex mutex_;
  std::map<ipc::ConnectionID, std::shared_ptr<XPCServedConnection>> live_;
};

}  // namespace

}  // namespace stillow::platform

using stillow::ipc::DaemonOperation;

/// What one connection exports. Calls come in on the connection's own queue, one at a time.
@interface StillowExportedDaemon : NSObject <StillowDaemonXPCProtocol>
- (instancetype)initWithConnection:(std::weak_ptr<stillow::platform::XPCServedConnection>)connection
                          delegate:(std::weak_ptr<stillow::ipc::DaemonListenerDelegate>)delegate;
@end

@implementation StillowExportedDaemon {
  std::weak_ptr<stillow::platform::XPCServedConnection> _connection;
  std::weak_ptr<stillow::ipc::DaemonListenerDelegate> _delegate;
}

- (instancetype)initWithConnection:(std::weak_ptr<stillow::platform::XPCServedConnection>)connection
                          delegate:(std::weak_ptr<stillow::ipc::DaemonListenerDelegate>)delegate {
  self = [super init];
  if (self != nil) {
    _connection = std::move(connection);
    _delegate = std::move(delegate);
  }
  return self;
}

- (void)receive:(DaemonOperation)operation
        request:(nullable NSData*)request
          reply:(StillowXPCReply)reply {
  const auto delegate = _delegate.lock();
  // Of a connection whose end has been noted the service wants no more; its peer waits for nothing.
  if (!delegate) return;
  const auto connection = _connection.lock();
  const StillowXPCReply answer = [reply copy];
  const std::weak_ptr<stillow::platform::XPCServedConnection> weak = _connection;
  delegate->received(
      connection,
      {.operation = operation,
       .request = stillow::platform::sharedBytes(request),
       .answer = stillow::ipc::CallAnswer([weak, answer](const stillow::ipc::DaemonReply& reached) {
         if (const auto live = weak.lock()) live->answer(reached, answer);
       })});
}

- (void)statusWithReply:(StillowXPCReply)reply {
  [self receive:DaemonOperation::status request:nil reply:reply];
}
- (void)activateWithRequest:(NSData*)request reply:(StillowXPCReply)reply {
  [self receive:DaemonOperation::activate request:request reply:reply];
}
- (void)strengthenWithRequest:(NSData*)request reply:(StillowXPCReply)reply {
  [self receive:DaemonOperation::strengthen request:request reply:reply];
}
- (void)extendWithRequest:(NSData*)request reply:(StillowXPCReply)reply {
  [self receive:DaemonOperation::extend request:request reply:reply];
}
- (void)subscribeToStatusChangesWithReply:(StillowXPCReply)reply {
  [self receive:DaemonOperation::subscribeToStatusChanges request:nil reply:reply];
}
- (void)validateEnforcementWithReply:(StillowXPCReply)reply {
  [self receive:DaemonOperation::validateEnforcement request:nil reply:reply];
}
- (void)acknowledgeExpiryWithReply:(StillowXPCReply)reply {
  [self receive:DaemonOperation::acknowledgeExpiry request:nil reply:reply];
}
- (void)armFilterConfigurationWithReply:(StillowXPCReply)reply {
  [self receive:DaemonOperation::armFilterConfiguration request:nil reply:reply];
}
- (void)announceUserInterfaceWithReply:(StillowXPCReply)reply {
  [self receive:DaemonOperation::announceUserInterface request:nil reply:reply];
}
@end

@interface StillowListenerDelegate : NSObject <NSXPCListenerDelegate>
- (instancetype)initWithConnections:(std::shared_ptr<stillow::platform::Connections>)connections;
@end

@implementation StillowListenerDelegate {
  std::shared_ptr<stillow::platform::Connections> _connections;
}

- (instancetype)initWithConnections:(std::shared_ptr<stillow::platform::Connections>)connections {
  self = [super init];
  if (self != nil) _connections = std::move(connections);
  return self;
}

- (BOOL)listener:(NSXPCListener*)__unused listener
    shouldAcceptNewConnection:(NSXPCConnection*)newConnection {
  const auto delegate = _connections->delegate();
  if (!delegate) return NO;
  const auto served = std::make_shared<stillow::platform::XPCServedConnection>(newConnection);
  newConnection.exportedInterface =
      [NSXPCInterface interfaceWithProtocol:@protocol(StillowDaemonXPCProtocol)];
  newConnection.exportedObject = [[StillowExportedDaemon alloc] initWithConnection:served
                                                                          delegate:delegate];
  newConnection.remoteObjectInterface =
      [NSXPCInterface interfaceWithProtocol:@protocol(StillowDaemonClientXPCProtocol)];

  const auto terms = delegate->shouldAcceptNewConnection(served);
  if (!terms) return NO;
  // Before anything of the peer is read. The delegate has compiled the text: one that does not
  // compile would be an exception here.
  if (terms->requirement) {
    [newConnection
        setCodeSigningRequirement:stillow::platform::foundationString(terms->requirement->text)];
  }

  _connections->add(served);
  const std::weak_ptr<stillow::platform::Connections> weak = _connections;
  const stillow::ipc::ConnectionID identity = served->identity();
  const auto ended = ^{
    if (const auto connections = weak.lock()) connections->noteEnd(identity);
  };
  newConnection.invalidationHandler = ended;
  newConnection.interruptionHandler = ended;
  [newConnection resume];
  return YES;
}
@end

namespace stillow::platform {

struct XPCDaemonListener::Implementation {
  std::string machServiceName;
  NSXPCListener* listener = nil;
  StillowListenerDelegate* delegate = nil;  // the listener holds its delegate weakly
  std::shared_ptr<Connections> connections;
};

XPCDaemonListener::XPCDaemonListener(std::string machServiceName)
    : implementation_(std::make_unique<Implementation>()) {
  implementation_->machServiceName = std::move(machServiceName);
}

XPCDaemonListener::~XPCDaemonListener() {
  [implementation_->listener invalidate];
  if (implementation_->connections) implementation_->connections->endAll();
}

std::expected<void, std::string> XPCDaemonListener::start(
    std::weak_ptr<ipc::DaemonListenerDelegate> delegate) {
  @autoreleasepool {
    implementation_->connections = std::make_shared<Connections>(std::move(delegate));
    implementation_->delegate =
        [[StillowListenerDelegate alloc] initWithConnections:implementation_->connections];
    implementation_->listener = [[NSXPCListener alloc]
        initWithMachServiceName:foundationString(implementation_->machServiceName)];
    implementation_->listener.delegate = implementation_->delegate;
    [implementation_->listener resume];
    // The system tells nobody whether the name could be taken.
    return {};
  }
}

}  // namespace stillow::platform
