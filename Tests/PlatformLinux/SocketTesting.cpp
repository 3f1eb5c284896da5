#include "SocketTesting.hpp"

#include <cerrno>
#include <cstring>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

namespace stillow::platform::test {

// ---- TestDaemon

std::optional<ipc::ConnectionTerms> TestDaemon::shouldAcceptNewConnection(
    const std::shared_ptr<ipc::ServedConnection>& connection) {
  state_.change([&](State& state) { state.connections.push_back(connection); });
  return terms;
}

void TestDaemon::received(std::shared_ptr<ipc::ServedConnection> connection, ipc::DaemonCall call) {
  if (statusBytes && call.operation == ipc::DaemonOperation::status) {
    state_.change([](State& state) { ++state.callsReceived; });
    call.answer.settle(ipc::DaemonReply::of(statusBytes));
    return;
  }
  state_.change([&](State& state) {
    ++state.callsReceived;
    state.calls.push_back({std::move(connection), call.operation,
                           call.request ? std::optional(*call.request) : std::nullopt,
                           std::move(call.answer)});
  });
}

void TestDaemon::ended(ipc::ConnectionID connection) {
  state_.change([&](State& state) { state.endings.push_back(connection); });
}

TestDaemon::Received TestDaemon::next() {
  state_.waitUntil([](const State& state) { return !state.calls.empty(); }, "no call came");
  return state_.change([](State& state) {
    Received first = std::move(state.calls.front());
    state.calls.pop_front();
    return first;
  });
}

std::vector<std::shared_ptr<ipc::ServedConnection>> TestDaemon::connections() const {
  return state_.read([](const State& state) { return state.connections; });
}

void TestDaemon::waitForConnections(std::size_t count) {
  state_.waitUntil([&](const State& state) { return state.connections.size() >= count; },
                   "nobody connected");
}

void TestDaemon::waitForEndings(std::size_t count) {
  state_.waitUntil([&](const State& state) { return state.endings.size() >= count; },
                   "no connection ended");
}

std::size_t TestDaemon::endings() const {
  return state_.read([](const State& state) { return state.endings.size(); });
}

std::size_t TestDaemon::callsReceived() const {
  return state_.read([](const State& state) { return state.callsReceived; });
}

void TestDaemon::forget() {
  State dropped;
  state_.change([&](State& state) { std::swap(state, dropped); });
}

// ---- TestPeers

namespace {

class TestPeer final : public ipc::ConnectedPeer {
 public:
  TestPeer(ipc::PeerProcess process, std::function<TestPeers::Answer(ipc::PeerProcess)> identity,
           std::shared_ptr<int> holder)
      : process_(process), identity_(std::move(identity)), holder_(std::move(holder)) {}
  [[nodiscard]] ipc::PeerProcess process() const override { return process_; }
  [[nodiscard]] TestPeers::Answer codeIdentity() const override { return identity_(process_); }

 private:
  const ipc::PeerProcess process_;
  const std::function<TestPeers::Answer(ipc::PeerProcess)> identity_;
  const std::shared_ptr<int> holder_;
};

}  // namespace

std::expected<std::unique_ptr<ipc::ConnectedPeer>, std::string> TestPeers::connectedPeer(
    int connectedSocket) {
  if (refusal) return std::unexpected(*refusal);
  ucred credentials{};
  socklen_t length = sizeof credentials;
  core::require(::getsockopt(connectedSocket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0,
                "no credentials");
  return std::make_unique<TestPeer>(
      ipc::PeerProcess{.pid = credentials.pid, .uid = credentials.uid}, identity, holders_);
}

ipc::CodeIdentity application() {
  return {.identifier = "com.larchmoor.Stillow",
          .leafOrganizationalUnit = "Q4ZT8NWK2R",
          .anchorIsTrusted = true};
}

// ---- RawClient

RawClient::RawClient(std::string path)
    : path_(std::move(path)), socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  core::require(static_cast<bool>(socket_), "no socket to be had");
}

RawClient RawClient::connected(const std::string& path) {
  RawClient client(path);
  client.connect();
  return client;
}

void RawClient::connect() { core::require(tryConnect(), "nobody listens"); }

bool RawClient::tryConnect() const {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  core::require(path_.size() < sizeof address.sun_path, "the path is too long");
  std::memcpy(address.sun_path, path_.data(), path_.size());
  return ::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

void RawClient::connectAs(uid_t user) {
  // The call itself, for this thread alone: the library's function changes every thread.
  core::require(::syscall(SYS_setresuid, -1, user, -1) == 0, "this test takes root");
  connect();
  core::require(::syscall(SYS_setresuid, -1, 0, -1) == 0, "the way back to root is shut");
}

bool RawClient::send(std::string_view text) const {
  while (!text.empty()) {
    pollfd state{.fd = socket_.get(), .events = POLLOUT, .revents = 0};
    core::require(::poll(&state, 1, static_cast<int>(patience.count()) * 1'000) > 0,
                  "the daemon reads no more");
    const auto sent = ::send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (sent < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

bool RawClient::sendLine(std::string_view text) const { return send(std::string(text) + "\n"); }

std::size_t RawClient::sendWithoutWaiting(std::string_view text) const {
  const auto sent = ::send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  return sent < 0 ? 0 : static_cast<std::size_t>(sent);
}

ssize_t RawClient::receive() {
  pollfd state{.fd = socket_.get(), .events = POLLIN, .revents = 0};
  core::require(::poll(&state, 1, static_cast<int>(patience.count()) * 1'000) > 0,
                "the daemon says nothing");
  std::string chunk(64 * 1024, '\0');
  const auto length = ::recv(socket_.get(), chunk.data(), chunk.size(), 0);
  if (length > 0) buffered_.append(chunk, 0, static_cast<std::size_t>(length));
  return length;
}

std::optional<std::string> RawClient::line() {
  for (std::size_t searched = 0;;) {
    const std::size_t lineFeed = buffered_.find('\n', searched);
    if (lineFeed != std::string::npos) {
      std::string line = buffered_.substr(0, lineFeed);
      buffered_.erase(0, lineFeed + 1);
      return line;
    }
    searched = buffered_.size();
    if (receive() <= 0) return std::nullopt;
  }
}

void RawClient::expectEnd() {
  while (receive() > 0) buffered_.clear();
}

bool RawClient::hasNews() const {
  pollfd state{.fd = socket_.get(), .events = POLLIN, .revents = 0};
  return !buffered_.empty() || ::poll(&state, 1, 0) == 1;
}

void RawClient::finishSending() const { (void)::shutdown(socket_.get(), SHUT_WR); }

void RawClient::close() { socket_ = core::FileDescriptor(); }

std::optional<std::string> RawClient::status(int id) {
  const std::string call =
      R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"method":"status"})";
  if (!sendLine(call)) return std::nullopt;
  return line();
}

// ---- SocketTest

SocketTest::SocketTest() : path(directory.path("run/s.sock")) {
  // Other users' clients have to get there.
  core::require(::chmod(directory.path().c_str(), 0755) == 0, "no permissions to be set");
  daemon->statusBytes = std::make_shared<const std::string>("{}");
  peers->identity = [](ipc::PeerProcess) { return application(); };
}

SocketTest::~SocketTest() {
  listener.reset();
  threads->stop();
  blocking->stop();
  // A socket may not outlive the context that it belongs to.
  daemon->forget();
  threads.reset();
}

std::unique_ptr<UnixSocketDaemonListener> SocketTest::newListener() {
  return std::make_unique<UnixSocketDaemonListener>(UnixSocketDaemonListener::Dependencies{
      .executor = threads->executor(),
      .blocking = blocking,
      .sleeper = sleeper,
      .peers = realPeers ? realPeers : peers,
      .socketPath = path,
      .log =
          [log = log](std::string line) {
            log->change([&](auto& lines) { lines.push_back(std::move(line)); });
          },
      .limits = limits});
}

void SocketTest::listen() {
  listener = newListener();
  const auto started = listener->start(daemon);
  core::require(started.has_value(), started ? "" : started.error());
}

void SocketTest::stopListening() {
  listener.reset();
  // The executor closes the socket.
  const auto end = std::chrono::steady_clock::now() + patience;
  while (RawClient(path).tryConnect()) {
    core::require(std::chrono::steady_clock::now() < end, "somebody goes on listening");
    std::this_thread::yield();
  }
}

void SocketTest::waitForLog(const std::string& text) {
  log->waitUntil(
      [&](const auto& lines) {
        for (const auto& line : lines) {
          if (line.find(text) != std::string::npos) return true;
        }
        return false;
      },
      "a line of the log did not come: " + text);
}

std::size_t SocketTest::logLines(const std::string& text) const {
  return log->read([&](const auto& lines) {
    std::size_t count = 0;
    for (const auto& line : lines) count += line.find(text) == std::string::npos ? 0 : 1;
    return count;
  });
}

void SocketTest::waitForLoad(const std::function<bool(UnixSocketDaemonListener::Load)>& holds) {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (!holds(listener->load())) {
    core::require(std::chrono::steady_clock::now() < end, "the load stays as it is");
    std::this_thread::yield();
  }
}

}  // namespace stillow::platform::test
