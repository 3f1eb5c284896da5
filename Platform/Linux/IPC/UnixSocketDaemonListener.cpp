#include "PlatformLinuxIPC/UnixSocketDaemonListener.hpp"

#include <map>
#include <mutex>
#include <optional>
#include <utility>

#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <sys/socket.h>

#include "PlatformLinuxIPC/Completion.hpp"
#include "PlatformLinuxIPC/ListeningSocket.hpp"
#include "PlatformLinuxIPC/UnixSocketConnection.hpp"

namespace stillow::platform {

using concurrency::Task;

namespace {

using Protocol = boost::asio::local::stream_protocol;

/// The system's own word for who connected, for counting and for the log.
std::optional<ipc::PeerProcess> processAt(int connectedSocket) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (::getsockopt(connectedSocket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
    return std::nullopt;
  }
  return ipc::PeerProcess{.pid = credentials.pid, .uid = credentials.uid};
}

std::shared_ptr<SocketServer> serverOf(const UnixSocketDaemonListener::Dependencies& dependencies,
                                       std::weak_ptr<ipc::DaemonListenerDelegate> delegate) {
  const SocketLimits& limits = dependencies.limits;
  return std::make_shared<SocketServer>(SocketServer{
      .limits = limits,
      .executor = dependencies.executor,
      .blocking = dependencies.blocking,
      .sleeper = dependencies.sleeper,
      .delegate = std::move(delegate),
      .budget = ByteBudget::make(limits.bufferedBytesMax),
      .ledger = std::make_shared<ConnectionLedger>(
          ConnectionLedger::Limits{.connectionsMax = limits.connectionsMax,
                                   .connectionsPerUserMax = limits.connectionsPerUserMax,
                                   .callsPerUserMax = limits.callsInFlightPerUserMax,
                                   .callsMax = limits.callsInFlightMax,
                                   .requestBytesPerUserMax = limits.requestBytesPerUserMax,
                                   .requestBytesMax = limits.requestBytesMax}),
      .log = std::make_shared<RefusalLog>(dependencies.executor, dependencies.sleeper,
                                          dependencies.log, limits.logLinesMax, limits.logWindow),
      .bigLines = FairGate(limits.bigLinesMax, limits.bigLinesPerUserMax),
      .peerChecks = FairGate(limits.peerChecksMax, limits.peerChecksPerUserMax),
      .callsAtWork = FairGate(limits.callsAtWorkMax, limits.callsAtWorkPerUserMax)});
}

}  // namespace

/// Accepts until it is stopped.
class UnixSocketDaemonListener::Acceptor final : public std::enable_shared_from_this<Acceptor> {
 public:
  Acceptor(std::shared_ptr<SocketServer> server, std::shared_ptr<ipc::PeerIdentifying> peers)
      : server_(std::move(server)),
        peers_(std::move(peers)),
        strand_(boost::asio::make_strand(server_->executor)),
        socket_(strand_) {}

  std::expected<void, std::string> listen(const std::filesystem::path& path) {
    auto listening = listenAt(path, server_->limits.backlog);
    if (!listening) return std::unexpected(std::move(listening.error()));
    boost::system::error_code error;
    (void)socket_.assign(Protocol(), listening->get(), error);
    if (error) return std::unexpected("Waiting for connections failed: " + error.message());
    (void)std::move(*listening).release();
    concurrency::spawn(strand_, accept(shared_from_this()));
    return {};
  }

  void stop() {
    boost::asio::post(strand_, [self = shared_from_this()] {
      boost::system::error_code ignored;  // the descriptor is gone whatever close says
      (void)self->socket_.close(ignored);
      for (const auto& [id, weak] : self->connections_) {
        if (const auto connection = weak.lock()) connection->stop();
      }
    });
  }

  [[nodiscard]] const SocketServer& server() const { return *server_; }

 private:
  static Task<void> accept(std::shared_ptr<Acceptor> self) {
    const concurrency::Cancellation never;
    bool isStarved = false;
    while (self->socket_.is_open()) {
      const concurrency::Executor strand = boost::asio::make_strand(self->server_->executor);
      auto [error, socket] = co_await self->socket_.async_accept(strand, completion);
      if (!self->socket_.is_open()) co_return;
      if (!error) {
        if (std::exchange(isStarved, false))
          self->server_->log->write("accepting connections again");
        self->serve(std::move(socket));
        continue;
      }
      // One that was gone before it was accepted is nothing. Whatever else it is, mostly too many
      // open descriptors here or in the whole system, it will still be so at once: the connection
      // stays where it is and the next try comes after a pause.
      if (error == boost::asio::error::connection_aborted) continue;
      if (!std::exchange(isStarved, true)) {
        self->server_->log->write("no connection can be accepted: " + error.message());
      }
      (void)co_await self->server_->sleeper->sleep(self->server_->limits.acceptPause, never);
    }
  }

  void serve(UnixSocketConnection::Socket socket) {
    const auto process = processAt(socket.native_handle());
    const auto delegate = server_->delegate.lock();
    if (!process || !delegate) return;
    auto place = server_->ledger->addConnection(static_cast<uid_t>(process->uid));
    if (!place) return refuse(*process, "too many connections are open");
    const int descriptor = socket.native_handle();
    const auto connection = std::make_shared<UnixSocketConnection>(server_, std::move(socket),
                                                                   *process, std::move(place));
    const auto terms = delegate->shouldAcceptNewConnection(connection);
    if (!terms) {
      connection->discard();
      return refuse(*process, "the code-signing requirement does not compile");
    }
    std::shared_ptr<ipc::ConnectedPeer> peer;
    if (terms->requirement) {
      auto connected = peers_->connectedPeer(descriptor);
      if (!connected) {
        connection->stop();
        return refuse(*process, connected.error());
      }
      peer = std::move(*connected);
    }
    std::erase_if(connections_, [](const auto& entry) { return entry.second.expired(); });
    connections_.emplace(connection->identity(), connection);
    connection->begin(terms->requirement, std::move(peer));
  }

  void refuse(const ipc::PeerProcess& process, std::string_view reason) {
    server_->log->write("refused the connection of process " + std::to_string(process.pid) +
                        " of user " + std::to_string(process.uid) + ": " + std::string(reason));
  }

  const std::shared_ptr<SocketServer> server_;
  const std::shared_ptr<ipc::PeerIdentifying> peers_;
  const concurrency::Executor strand_;
  Protocol::acceptor socket_;
  std::map<ipc::ConnectionID, std::weak_ptr<UnixSocketConnection>> connections_;
};

UnixSocketDaemonListener::UnixSocketDaemonListener(Dependencies dependencies)
    : dependencies_(std::move(dependencies)) {}

UnixSocketDaemonListener::~UnixSocketDaemonListener() {
  if (acceptor_) acceptor_->stop();
}

std::expected<void, std::string> UnixSocketDaemonListener::start(
    std::weak_ptr<ipc::DaemonListenerDelegate> delegate) {
  core::require(!acceptor_, "a listener is started once");
  auto acceptor =
      std::make_shared<Acceptor>(serverOf(dependencies_, std::move(delegate)), dependencies_.peers);
  auto listening = acceptor->listen(dependencies_.socketPath);
  if (listening) acceptor_ = std::move(acceptor);
  return listening;
}

UnixSocketDaemonListener::Load UnixSocketDaemonListener::load() const {
  if (!acceptor_) return {};
  const SocketServer& server = acceptor_->server();
  return {.connections = server.ledger->connections(),
          .calls = server.ledger->calls(),
          .bufferedBytes = server.budget->bytesUsed()};
}

}  // namespace stillow::platform
