#include "PlatformLinuxIPC/UnixSocketDaemonConnector.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <deque>
#include <map>
#include <utility>
#include <vector>

#include <boost/asio/buffer.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/write.hpp>
#include <sys/socket.h>
#include <sys/un.h>

#include "PlatformLinuxIPC/Completion.hpp"
#include "PlatformLinuxIPC/DaemonSocket.hpp"
#include "PlatformLinuxIPC/JSONRPC.hpp"
#include "PlatformLinuxIPC/SocketLimits.hpp"
#include "PlatformLinuxPeer/LogText.hpp"
#include "StillowCore/JSONText.hpp"

namespace stillow::platform {

using concurrency::Task;
using ipc::PlatformError;

namespace {

using Failure = DaemonConnectionFailure;
using Protocol = boost::asio::local::stream_protocol;
using Socket = Protocol::socket;
using Dependencies = UnixSocketDaemonConnector::Dependencies;

/// Between two tries while the daemon's queue of new connections is full.
constexpr std::chrono::milliseconds connectPause(20);
/// A line of the daemon's is bounded too: what listens there need not be the daemon.
constexpr std::size_t lineBytesMax = SocketLimits{}.lineBytesMax;
constexpr std::size_t lineValuesMax = SocketLimits{}.lineValuesMax;

Failure failureOf(int errorNumber) {
  switch (errorNumber) {
    case ENOENT:
    case ENOTDIR:
      return Failure::socketMissing;
    case ECONNREFUSED:
      return Failure::connectionRefused;
    case EACCES:
    case EPERM:
      return Failure::notPermitted;
    default:
      return Failure::other;
  }
}

/// A line feed between two tokens is a blank like any other; inside a string there is none.
std::string oneLine(std::string text) {
  std::ranges::replace(text, '\n', ' ');
  return text;
}
ipc::SharedBytes oneLine(ipc::SharedBytes bytes) {
  // What our own encoder wrote has none.
  if (!bytes || bytes->find('\n') == std::string::npos) return bytes;
  return std::make_shared<const std::string>(oneLine(*bytes));
}

/// Connects `socket`, or says why not. The socket's own asynchronous connect takes a full queue for
/// a connection under way, which a local one never is.
Task<std::optional<PlatformError>> connect(std::shared_ptr<const Dependencies> dependencies,
                                           std::shared_ptr<Socket> socket, bool requiresDaemon) {
  const std::filesystem::path& path = dependencies->socketPath;
  if (path.native().size() >= sizeof(sockaddr_un::sun_path)) {
    co_return connectionError(Failure::other, path, "the path is too long for a socket");
  }
  boost::system::error_code error;
  (void)socket->open(Protocol(), error);
  if (!error) (void)socket->native_non_blocking(true, error);
  if (error) co_return connectionError(Failure::other, path, error.message());
  const Protocol::endpoint endpoint(path.native());
  const concurrency::Cancellation never;
  auto left = dependencies->connectTimeMax;
  while (::connect(socket->native_handle(), endpoint.data(),
                   static_cast<socklen_t>(endpoint.size())) != 0) {
    const int errorNumber = errno;
    if (errorNumber == EINTR) continue;
    if (errorNumber != EAGAIN) {
      const Failure failure = failureOf(errorNumber);
      co_return connectionError(
          failure, path, failure == Failure::other ? systemErrorText(errorNumber) : std::string());
    }
    if (left <= std::chrono::nanoseconds(0)) co_return connectionError(Failure::timedOut, path);
    left -= connectPause;
    (void)co_await dependencies->sleeper->sleep(connectPause, never);
  }
  if (requiresDaemon) {
    const auto isDaemon = dependencies->requireDaemon(socket->native_handle(), path);
    if (!isDaemon) co_return connectionError(Failure::notTrusted, path, isDaemon.error());
  }
  co_return std::nullopt;
}

/// Lines, as they come out of a socket.
class LineReader {
 public:
  explicit LineReader(std::shared_ptr<Socket> socket) : socket_(std::move(socket)) {}

  /// The next line without its line feed; none at the end of the stream or for a line that is too
  /// long.
  static Task<std::optional<std::string>> next(std::shared_ptr<LineReader> self) {
    std::string line;
    for (;;) {
      const std::size_t lineFeed = self->unread_.find('\n');
      const std::string_view part = self->unread_.substr(0, lineFeed);
      if (line.size() + part.size() > lineBytesMax) co_return std::nullopt;
      line.append(part);
      if (lineFeed != std::string_view::npos) {
        self->unread_.remove_prefix(lineFeed + 1);
        co_return line;
      }
      const auto [error, count] =
          co_await self->socket_->async_read_some(boost::asio::buffer(self->chunk_), completion);
      if (error) co_return std::nullopt;
      self->unread_ = {self->chunk_.data(), count};
    }
  }

 private:
  const std::shared_ptr<Socket> socket_;
  std::array<char, 64 * 1024> chunk_{};
  std::string_view unread_;  ///< of the chunk
};

}  // namespace

/// One connection. Everything happens on a strand, so no member needs a lock.
class UnixSocketDaemonConnector::Connection final
    : public std::enable_shared_from_this<Connection> {
 public:
  using OnReply = std::function<void(ipc::DaemonReply)>;
  using OnError = std::function<void(PlatformError)>;

  Connection(std::shared_ptr<const Dependencies> dependencies,
             ipc::DaemonConnectionHandlers handlers)
      : dependencies_(std::move(dependencies)),
        handlers_(std::move(handlers)),
        strand_(boost::asio::make_strand(dependencies_->executor)),
        socket_(std::make_shared<Socket>(strand_)) {}

  void resume(bool requiresDaemon) {
    // Posted: a connection that fails at once must not tell so inside this call, whose caller may
    // hold a lock.
    boost::asio::post(strand_, [self = shared_from_this(), requiresDaemon] {
      concurrency::spawn(self->strand_, run(self, requiresDaemon));
    });
  }

  void send(ipc::DaemonOperation operation, ipc::SharedBytes request, OnReply onReply,
            OnError onError) {
    boost::asio::post(strand_, [=, self = shared_from_this(), request = std::move(request),
                                onReply = std::move(onReply), onError = std::move(onError)] {
      if (self->ended_) return onError(*self->ended_);
      const std::uint64_t id = ++self->lastCall_;
      self->calls_.emplace(id, Call{onReply, onError});
      self->outgoing_.push_back(rpc::callText(id, operation, oneLine(request)));
      self->startWriting();
    });
  }

  void invalidate() {
    boost::asio::post(strand_, [self = shared_from_this()] {
      self->end(connectionError(Failure::closedUnanswered, self->dependencies_->socketPath));
    });
  }

 private:
  struct Call {
    OnReply onReply;
    OnError onError;
  };

  static Task<void> run(std::shared_ptr<Connection> self, bool requiresDaemon) {
    auto failed = co_await connect(self->dependencies_, self->socket_, requiresDaemon);
    if (failed) {
      self->end(std::move(*failed));
      co_return;
    }
    self->isConnected_ = true;
    self->startWriting();
    const auto reader = std::make_shared<LineReader>(self->socket_);
    const std::filesystem::path& path = self->dependencies_->socketPath;
    while (!self->ended_) {
      const auto line = co_await LineReader::next(reader);
      if (!line) {
        self->end(connectionError(Failure::closedUnanswered, path));
      } else if (!self->take(*line)) {
        self->end(connectionError(Failure::answerUnreadable, path));
      }
    }
  }

  /// False if the line is no JSON-RPC.
  bool take(const std::string& line) {
    const auto message = rpc::readMessage(line, lineValuesMax);
    if (!message || ended_) return message.has_value();
    if (const auto* const push = std::get_if<rpc::Push>(&*message)) {
      handlers_.statusChanged(std::make_shared<const std::string>(push->status));
    } else if (const auto* const response = std::get_if<rpc::Response>(&*message)) {
      const auto call = calls_.extract(response->id);
      if (!call) return true;
      ipc::DaemonReply reply;
      if (response->error) {
        reply = ipc::DaemonReply::of(*response->error);
      } else if (response->result) {
        reply = ipc::DaemonReply::of(std::string(*response->result));
      }
      call.mapped().onReply(std::move(reply));
    } else if (const auto* const refused = std::get_if<rpc::RefusedLine>(&*message)) {
      // It does not say which line it was, so every call that waits is told.
      const auto calls = std::exchange(calls_, {});
      for (const auto& [id, call] : calls) call.onReply(ipc::DaemonReply::of(refused->error));
    }
    return true;
  }

  void startWriting() {
    if (!isConnected_ || outgoing_.empty() || ended_ || std::exchange(isWriting_, true)) return;
    concurrency::spawn(strand_, write(shared_from_this()));
  }

  static Task<void> write(std::shared_ptr<Connection> self) {
    while (!self->outgoing_.empty() && !self->ended_) {
      const rpc::Text text = std::move(self->outgoing_.front());
      self->outgoing_.pop_front();
      const std::string_view body = text.body ? std::string_view(*text.body) : std::string_view();
      const std::array<boost::asio::const_buffer, 4> buffers{
          boost::asio::buffer(text.head), boost::asio::buffer(body), boost::asio::buffer(text.tail),
          boost::asio::buffer("\n", 1)};
      const auto [error, count] =
          co_await boost::asio::async_write(*self->socket_, buffers, completion);
      if (error) {
        // The reader finds the end as well, behind answers that came before it.
        break;
      }
    }
    self->isWriting_ = false;
  }

  void end(PlatformError reason) {
    if (ended_) return;
    ended_ = std::move(reason);
    boost::system::error_code ignored;  // the descriptor is gone whatever close says
    (void)socket_->close(ignored);
    outgoing_.clear();
    // First, so that whoever calls again because of the error does so on a new connection.
    handlers_.lost();
    const auto calls = std::exchange(calls_, {});
    for (const auto& [id, call] : calls) call.onError(*ended_);
  }

  const std::shared_ptr<const Dependencies> dependencies_;
  const ipc::DaemonConnectionHandlers handlers_;
  const concurrency::Executor strand_;
  const std::shared_ptr<Socket> socket_;
  std::deque<rpc::Text> outgoing_;
  std::map<std::uint64_t, Call> calls_;
  std::uint64_t lastCall_ = 0;
  bool isConnected_ = false;
  bool isWriting_ = false;
  std::optional<PlatformError> ended_;
};

class UnixSocketDaemonConnector::Proxy final : public ipc::DaemonProxy {
 public:
  Proxy(std::shared_ptr<Connection> connection, Connection::OnError onError)
      : connection_(std::move(connection)), onError_(std::move(onError)) {}
  void send(ipc::DaemonOperation operation, ipc::SharedBytes request,
            std::function<void(ipc::DaemonReply)> reply) override {
    connection_->send(operation, std::move(request), std::move(reply), onError_);
  }

 private:
  const std::shared_ptr<Connection> connection_;
  const Connection::OnError onError_;
};

/// What the client holds. The connection itself lives on while its loops run.
class UnixSocketDaemonConnector::Face final : public ipc::DaemonConnection {
 public:
  explicit Face(std::shared_ptr<Connection> connection) : connection_(std::move(connection)) {}
  ~Face() override { connection_->invalidate(); }
  Face(const Face&) = delete;
  Face& operator=(const Face&) = delete;

  void setCodeSigningRequirement(const ipc::CodeSigningRequirement&) override {
    requiresDaemon_ = true;
  }
  void resume() override { connection_->resume(requiresDaemon_); }
  [[nodiscard]] std::shared_ptr<ipc::DaemonProxy> remoteProxy(
      std::function<void(PlatformError)> onError) override {
    return std::make_shared<Proxy>(connection_, std::move(onError));
  }
  void invalidate() override { connection_->invalidate(); }

 private:
  const std::shared_ptr<Connection> connection_;
  bool requiresDaemon_ = false;
};

UnixSocketDaemonConnector::UnixSocketDaemonConnector(Dependencies dependencies)
    : dependencies_(std::make_shared<const Dependencies>(std::move(dependencies))) {}

UnixSocketDaemonConnector::~UnixSocketDaemonConnector() = default;

std::shared_ptr<ipc::DaemonConnection> UnixSocketDaemonConnector::makeConnection(
    ipc::DaemonConnectionHandlers handlers) {
  return std::make_shared<Face>(std::make_shared<Connection>(dependencies_, std::move(handlers)));
}

namespace {

Task<std::expected<std::string, PlatformError>> exchange(
    std::shared_ptr<const Dependencies> dependencies, std::string line) {
  const auto socket = std::make_shared<Socket>(dependencies->executor);
  auto failed = co_await connect(dependencies, socket, true);
  if (failed) co_return std::unexpected(std::move(*failed));
  // A daemon that refuses us ends the connection; the reader finds that out.
  (void)co_await boost::asio::async_write(*socket, boost::asio::buffer(line), completion);
  const auto reader = std::make_shared<LineReader>(socket);
  auto answer = co_await LineReader::next(reader);
  if (!answer) {
    co_return std::unexpected(connectionError(Failure::closedUnanswered, dependencies->socketPath));
  }
  co_return std::move(*answer);
}

}  // namespace

Task<std::expected<std::string, PlatformError>> UnixSocketDaemonConnector::passThrough(
    std::string method, std::optional<std::string> params) const {
  std::string line = R"({"jsonrpc":"2.0","id":1,"method":)";
  core::json::appendString(line, method);
  if (params) line += R"(,"params":)" + oneLine(std::move(*params));
  line += "}\n";
  return exchange(dependencies_, std::move(line));
}

}  // namespace stillow::platform
