#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "StillowConcurrency/OneShot.hpp"
#include "StillowConcurrency/Sleeper.hpp"
#include "StillowIPC/DaemonConnection.hpp"
#include "StillowIPC/DaemonStatus.hpp"

namespace stillow::ipc::testing {

/// A sleeper whose every sleep the test ends.
class ScriptedSleeper final : public concurrency::Sleeper {
 public:
  struct Sleep {
    std::chrono::nanoseconds duration;
    concurrency::OneShot<concurrency::SleepOutcome> end;
    bool isCancelled = false;
  };

  concurrency::Task<concurrency::SleepOutcome> sleep(
      std::chrono::nanoseconds duration, concurrency::Cancellation cancellation) override {
    auto sleep = std::make_shared<Sleep>(Sleep{duration, {}});
    sleeps.push_back(sleep);
    if (returnsAtOnce) sleep->end.settle(concurrency::SleepOutcome::elapsed);
    return wait(std::move(sleep), std::move(cancellation));
  }

  /// Lets the time of the sleep that began as number `index` pass.
  void elapse(std::size_t index) {
    sleeps.at(index)->end.settle(concurrency::SleepOutcome::elapsed);
  }

  bool returnsAtOnce = false;
  std::vector<std::shared_ptr<Sleep>> sleeps;

 private:
  static concurrency::Task<concurrency::SleepOutcome> wait(std::shared_ptr<Sleep> sleep,
                                                           concurrency::Cancellation cancellation) {
    const auto registration = cancellation.onCancel([sleep] {
      sleep->isCancelled = true;
      sleep->end.settle(concurrency::SleepOutcome::cancelled);
    });
    const auto outcome = co_await sleep->end.wait();
    co_return outcome;
  }
};

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
