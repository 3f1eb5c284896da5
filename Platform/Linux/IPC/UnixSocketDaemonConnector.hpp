#pragma once

#include <chrono>
#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "StillowConcurrency/Sleeper.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowIPC/DaemonConnection.hpp"
#include "StillowIPC/PlatformError.hpp"

namespace stillow::platform {

/// Opens connections to the daemon's socket.
///
/// A requirement that is set on a connection means here that the daemon is root and that nobody but
/// root can have put its socket where it is: a user's program may not read what a process of root's
/// executes.
class UnixSocketDaemonConnector final : public ipc::DaemonConnecting {
 public:
  /// Whether the daemon that `connectedSocket` reached at a path is ours; the error says why not.
  using DaemonCheck = std::function<std::expected<void, std::string>(
      int connectedSocket, const std::filesystem::path& socketPath)>;

  struct Dependencies {
    /// Of a context that sockets can use, such as an io_context.
    concurrency::Executor executor;
    std::shared_ptr<concurrency::Sleeper> sleeper;
    std::filesystem::path socketPath;
    /// The product's own is `requireRootDaemon`.
    DaemonCheck requireDaemon;
    /// How long a daemon whose queue of new connections is full is waited for.
    std::chrono::nanoseconds connectTimeMax = std::chrono::seconds(5);
  };

  explicit UnixSocketDaemonConnector(Dependencies dependencies);
  ~UnixSocketDaemonConnector() override;
  UnixSocketDaemonConnector(const UnixSocketDaemonConnector&) = delete;
  UnixSocketDaemonConnector& operator=(const UnixSocketDaemonConnector&) = delete;

  [[nodiscard]] std::shared_ptr<ipc::DaemonConnection> makeConnection(
      ipc::DaemonConnectionHandlers handlers) override;

  /// Passes one call through as it is, on a connection of its own: `method` is any text, `params`
  /// any JSON text. Gives the daemon's line, whatever it says. Not bounded in time: that is the
  /// caller's matter.
  [[nodiscard]] concurrency::Task<std::expected<std::string, ipc::PlatformError>> passThrough(
      std::string method, std::optional<std::string> params) const;

 private:
  class Connection;
  class Face;
  class Proxy;

  const std::shared_ptr<const Dependencies> dependencies_;
};

}  // namespace stillow::platform
