#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "StillowIPC/DaemonConnection.hpp"
#include "StillowIPC/DaemonStatus.hpp"

namespace stillow::ipc::testing {

/// One call as the far end sees it.
struct ScriptedCall {
  DaemonOperation operation;
  SharedBytes request;
  std::function<void(DaemonReply)> reply;
  std::function<void(PlatformError)> fail;
};

/// The far end of everything: the test answers, pushes and loses connections by hand, on the spot.
class ScriptedDaemon final : public DaemonConnecting {
 public:
  struct Connection final : DaemonConnection {
    struct Proxy final : DaemonProxy {
      Proxy(Connection& o, std::function<void(PlatformError)> e)
          : owner(o), onError(std::move(e)) {}
      void send(DaemonOperation operation, SharedBytes request,
                std::function<void(DaemonReply)> reply) override {
        owner.daemon.calls.push_back({operation, std::move(request), std::move(reply), onError});
        if (owner.daemon.onCall) owner.daemon.onCall(owner.daemon.calls.back());
      }
      Connection& owner;
      std::function<void(PlatformError)> onError;
    };

    Connection(ScriptedDaemon& d, DaemonConnectionHandlers h) : daemon(d), handlers(std::move(h)) {}
    void setCodeSigningRequirement(const CodeSigningRequirement& text) override {
      requirement = text;
      requirementCameBeforeResume = !isResumed;
    }
    void resume() override { isResumed = true; }
    std::shared_ptr<DaemonProxy> remoteProxy(std::function<void(PlatformError)> onError) override {
      if (daemon.offersNoProxy) return nullptr;
      return std::make_shared<Proxy>(*this, std::move(onError));
    }
    void invalidate() override { isInvalidated = true; }

    ScriptedDaemon& daemon;
    DaemonConnectionHandlers handlers;
    std::optional<CodeSigningRequirement> requirement;
    bool requirementCameBeforeResume = false;
    bool isResumed = false;
    bool isInvalidated = false;
  };

  std::shared_ptr<DaemonConnection> makeConnection(DaemonConnectionHandlers handlers) override {
    connections.push_back(std::make_shared<Connection>(*this, std::move(handlers)));
    return connections.back();
  }

  void push(const DaemonStatus& status) { pushBytes(*DaemonWireCoding::encode(status)); }
  void pushBytes(std::string bytes) {
    connections.back()->handlers.statusChanged(
        std::make_shared<const std::string>(std::move(bytes)));
  }
  void interrupt() { connections.back()->handlers.lost(); }

  bool offersNoProxy = false;
  std::function<void(ScriptedCall&)> onCall;
  std::vector<ScriptedCall> calls;
  std::vector<std::shared_ptr<Connection>> connections;
};

inline DaemonReply reply(const DaemonStatus& status) {
  return DaemonReply::of(*DaemonWireCoding::encode(status));
}

inline PlatformError interruption() {
  return {.domain = std::string(PlatformError::cocoaDomain),
          .code = 4097,
          .description = "connection interrupted",
          .payload = std::nullopt};
}

}  // namespace stillow::ipc::testing
