#pragma once

#include <cstddef>
#include <expected>
#include <filesystem>
#include <memory>
#include <string>

#include "PlatformLinuxIPC/RefusalLog.hpp"
#include "PlatformLinuxIPC/SocketLimits.hpp"
#include "StillowConcurrency/BlockingExecutor.hpp"
#include "StillowConcurrency/Sleeper.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowIPC/DaemonConnection.hpp"
#include "StillowIPC/PeerIdentifying.hpp"

namespace stillow::platform {

/// The daemon's socket: JSON-RPC 2.0, one text per line, over a Unix-domain stream socket.
///
/// Every connection has a strand of its own on the executor, which any number of threads may run,
/// and whose context has to be one that sockets can use, such as an io_context.
class UnixSocketDaemonListener final : public ipc::DaemonListening {
 public:
  struct Dependencies {
    concurrency::Executor executor;
    /// Looks at peers' executables: at least `limits.peerChecksMax` threads that do nothing else.
    std::shared_ptr<concurrency::BlockingExecutor> blocking;
    std::shared_ptr<concurrency::Sleeper> sleeper;
    std::shared_ptr<ipc::PeerIdentifying> peers;
    std::filesystem::path socketPath;
    /// One line for each connection that was refused or lost and for each time none can be
    /// accepted.
    LogSink log;
    SocketLimits limits{};
  };

  explicit UnixSocketDaemonListener(Dependencies dependencies);
  /// Ends every connection.
  ~UnixSocketDaemonListener() override;
  UnixSocketDaemonListener(const UnixSocketDaemonListener&) = delete;
  UnixSocketDaemonListener& operator=(const UnixSocketDaemonListener&) = delete;

  /// Makes the socket, for everybody to connect to (0666), in its directory (0755), which is made
  /// if it is missing. A socket that nobody listens at is replaced; one that somebody does is an
  /// error, and so is anything else at that path. Clients see a socket only once it can be
  /// connected to.
  [[nodiscard]] std::expected<void, std::string> start(
      std::weak_ptr<ipc::DaemonListenerDelegate> delegate) override;

  /// What clients take at the moment; for tests and for the log.
  struct Load {
    std::size_t connections = 0;
    std::size_t calls = 0;  ///< those of connections that are gone among them
    std::size_t bufferedBytes = 0;
  };
  [[nodiscard]] Load load() const;

 private:
  class Acceptor;

  const Dependencies dependencies_;
  std::shared_ptr<Acceptor> acceptor_;
};

}  // namespace stillow::platform
