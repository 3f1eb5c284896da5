#pragma once

#include <atomic>
#include <compare>
#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "StillowIPC/CodeSigningRequirement.hpp"
#include "StillowIPC/DaemonOperation.hpp"
#include "StillowIPC/DaemonWireCoding.hpp"
#include "StillowIPC/PlatformError.hpp"

/// The seam between service and client on one side and what carries their messages on the other:
/// the platform's XPC connections, a Unix-domain socket, or memory. What is above it knows no bytes
/// but the records'; what is below it knows no records.
namespace stillow::ipc {

/// Names one connection for as long as the process lives: a number is never given twice.
struct ConnectionID {
  std::uint64_t number = 0;

  /// Any thread.
  [[nodiscard]] static ConnectionID next() noexcept {
    static std::atomic<std::uint64_t> last{0};
    return {++last};
  }

  friend bool operator==(ConnectionID, ConnectionID) noexcept = default;
  friend auto operator<=>(ConnectionID, ConnectionID) noexcept = default;
};

/// What a call is answered with: bytes or an error. Neither means an empty reply, which is a fault
/// of whoever gave it.
struct DaemonReply {
  SharedBytes bytes;
  std::optional<PlatformError> error;

  [[nodiscard]] static DaemonReply of(SharedBytes bytes) {
    return {std::move(bytes), std::nullopt};
  }
  [[nodiscard]] static DaemonReply of(std::string bytes) {
    return of(std::make_shared<const std::string>(std::move(bytes)));
  }
  [[nodiscard]] static DaemonReply of(PlatformError error) { return {nullptr, std::move(error)}; }
};

// ---- the daemon's side

/// Where the answer to one call goes, exactly once: the first answer wins and later ones are
/// ignored. Copies share the call. If the last copy is destroyed unanswered, the call is answered
/// with an error, so no caller of a connection that still stands waits for what cannot come. Any
/// thread.
class CallAnswer {
 public:
  explicit CallAnswer(std::function<void(DaemonReply)> deliver)
      : call_(std::make_shared<Call>(std::move(deliver))) {}

  void settle(DaemonReply reply) const { call_->settle(std::move(reply)); }

 private:
  struct Call {
    explicit Call(std::function<void(DaemonReply)> d) : deliver(std::move(d)) {}
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;
    ~Call();
    void settle(DaemonReply reply);

    std::atomic<bool> isSettled{false};
    std::function<void(DaemonReply)> deliver;
  };
  std::shared_ptr<Call> call_;
};

/// A connection as the daemon sees it. Any thread may call any operation.
class ServedConnection {
 public:
  virtual ~ServedConnection() = default;

  [[nodiscard]] virtual ConnectionID identity() const noexcept = 0;

  /// Sends `daemonStatusChanged`. Never waits and never fails: after the connection's end nothing
  /// happens, and what a slow peer has not taken is replaced by the newest. Messages leave in the
  /// order in which they were handed over, answers and pushes alike.
  virtual void push(SharedBytes status) = 0;

 protected:
  ServedConnection() = default;
  ServedConnection(const ServedConnection&) = default;
  ServedConnection& operator=(const ServedConnection&) = default;
};

/// What a connection has to fulfil before a call of it is let through.
struct ConnectionTerms {
  std::optional<CodeSigningRequirement> requirement;  ///< absent: none; else it compiles
};

/// One incoming call.
struct DaemonCall {
  DaemonOperation operation;
  SharedBytes request;  ///< the encoded request record; null where there is none
  CallAnswer answer;
};

/// What a listener hands its connections to. Called from any thread, for different connections at
/// once.
class DaemonListenerDelegate {
 public:
  virtual ~DaemonListenerDelegate() = default;

  /// Once for each new connection, before anything of it is read. None: the connection is refused
  /// and closed, and `ended` is not called for it.
  [[nodiscard]] virtual std::optional<ConnectionTerms> shouldAcceptNewConnection(
      const std::shared_ptr<ServedConnection>& connection) = 0;

  /// A call of a connection that has fulfilled its terms. Must not block. `connection` is the one
  /// that the call came in on; null if that cannot be told any more.
  virtual void received(std::shared_ptr<ServedConnection> connection, DaemonCall call) = 0;

  /// The connection was interrupted or is invalid. May be called for both, so more than once; no
  /// call and no push gets through afterwards.
  virtual void ended(ConnectionID connection) = 0;

 protected:
  DaemonListenerDelegate() = default;
  DaemonListenerDelegate(const DaemonListenerDelegate&) = default;
  DaemonListenerDelegate& operator=(const DaemonListenerDelegate&) = default;
};

class DaemonListening {
 public:
  virtual ~DaemonListening() = default;
  /// Begins to accept connections; when this returns without an error, clients can connect. The
  /// delegate is held weakly. At most one call. The error is one sentence for the log.
  [[nodiscard]] virtual std::expected<void, std::string> start(
      std::weak_ptr<DaemonListenerDelegate> delegate) = 0;

 protected:
  DaemonListening() = default;
  DaemonListening(const DaemonListening&) = default;
  DaemonListening& operator=(const DaemonListening&) = default;
};

// ---- the client's side

/// The daemon's operations over one connection.
class DaemonProxy {
 public:
  virtual ~DaemonProxy() = default;
  /// Sends one call and returns. `reply` is called at most once, on any thread; replies and pushes
  /// of one connection come one at a time in the order in which they arrived. If the connection
  /// fails first, the proxy's error handler is called instead.
  virtual void send(DaemonOperation operation, SharedBytes request,
                    std::function<void(DaemonReply)> reply) = 0;

 protected:
  DaemonProxy() = default;
  DaemonProxy(const DaemonProxy&) = default;
  DaemonProxy& operator=(const DaemonProxy&) = default;
};

/// What a client is told of a connection. Both may be called on any thread, never inside a call of
/// the connection.
struct DaemonConnectionHandlers {
  std::function<void(SharedBytes)> statusChanged;  ///< a pushed, encoded status
  /// The connection was interrupted or invalidated, by whomever. May be called for both.
  std::function<void()> lost;
};

/// A connection as the client sees it. Any thread may call any operation.
class DaemonConnection {
 public:
  virtual ~DaemonConnection() = default;

  /// Before `resume`: who the daemon has to be. What does not satisfy it is never spoken to. The
  /// text compiles.
  virtual void setCodeSigningRequirement(const CodeSigningRequirement& requirement) = 0;
  /// Begins. Failures come through the handlers, never from here. Letting go of a connection that
  /// has begun ends it.
  virtual void resume() = 0;
  /// Null if the connection offers no usable proxy. Each call sent through it that the connection
  /// fails reaches `onError`, at most once per call.
  [[nodiscard]] virtual std::shared_ptr<DaemonProxy> remoteProxy(
      std::function<void(PlatformError)> onError) = 0;
  /// Ends the connection; calls in flight fail. Harmless twice.
  virtual void invalidate() = 0;

 protected:
  DaemonConnection() = default;
  DaemonConnection(const DaemonConnection&) = default;
  DaemonConnection& operator=(const DaemonConnection&) = default;
};

/// A place that connections can be opened to.
class DaemonConnecting {
 public:
  virtual ~DaemonConnecting() = default;
  /// A connection that has not begun. Never null.
  [[nodiscard]] virtual std::shared_ptr<DaemonConnection> makeConnection(
      DaemonConnectionHandlers handlers) = 0;

 protected:
  DaemonConnecting() = default;
  DaemonConnecting(const DaemonConnecting&) = default;
  DaemonConnecting& operator=(const DaemonConnecting&) = default;
};

}  // namespace stillow::ipc
