#include <chrono>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <boost/asio/post.hpp>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include "PeerTestProcess.hpp"
#include "PlatformLinuxIPC/DaemonSocket.hpp"
#include "PlatformLinuxIPC/UnixSocketDaemonConnector.hpp"
#include "PlatformLinuxPeer/RootDaemon.hpp"
#include "SocketTesting.hpp"
#include "StillowIPC/XPCCommitmentAuthorityClient.hpp"

namespace stillow::platform::test {
namespace {

using concurrency::Task;
using ipc::DaemonError;
using ipc::XPCCommitmentAuthorityClient;
using Failure = DaemonConnectionFailure;
using Result = XPCCommitmentAuthorityClient::Result;

constexpr uid_t otherUser = 65'534;

std::string statusRecord(int observedAt) {
  return R"({"observedAt":)" + std::to_string(observedAt) +
         R"(,"commitment":{"idle":{}},"enforcement":{"healthy":{}},)"
         R"("readiness":{"filterConfigurationIsEnabled":false}})";
}
std::string answer(int id, std::string_view result) {
  return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"result":)" + std::string(result) +
         "}";
}
std::string errorAnswer(std::string_view id, std::string_view error) {
  return R"({"jsonrpc":"2.0","id":)" + std::string(id) + R"(,"error":)" + std::string(error) + "}";
}
std::string push(int observedAt) {
  return R"({"jsonrpc":"2.0","method":"daemonStatusChanged","params":)" + statusRecord(observedAt) +
         "}";
}

/// The daemon's end of a connection, played by the test.
class Served {
 public:
  explicit Served(core::FileDescriptor socket) : socket_(std::move(socket)) {}

  /// The next line; none at the end.
  std::optional<std::string> line() {
    for (;;) {
      const std::size_t lineFeed = buffered_.find('\n');
      if (lineFeed != std::string::npos) {
        std::string line = buffered_.substr(0, lineFeed);
        buffered_.erase(0, lineFeed + 1);
        return line;
      }
      std::string chunk(4'096, '\0');
      const auto length = ::recv(socket_.get(), chunk.data(), chunk.size(), 0);
      if (length <= 0) return std::nullopt;
      buffered_.append(chunk, 0, static_cast<std::size_t>(length));
    }
  }
  /// As much as is taken.
  void send(std::string_view text) const {
    while (!text.empty()) {
      const auto sent = ::send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL);
      if (sent <= 0) return;
      text.remove_prefix(static_cast<std::size_t>(sent));
    }
  }
  void sendLine(std::string_view line) const { send(std::string(line) + "\n"); }
  void close() { socket_ = core::FileDescriptor(); }

 private:
  core::FileDescriptor socket_;
  std::string buffered_;
};

class UnixSocketClient : public ::testing::Test {
 protected:
  template <class T>
  class Pending {
   public:
    T wait() {
      place->waitUntil([](const auto& value) { return value.has_value(); }, "a task did not end");
      return place->change([](auto& value) { return std::move(*value); });
    }
    std::shared_ptr<Watched<std::optional<T>>> place =
        std::make_shared<Watched<std::optional<T>>>();
  };

  ~UnixSocketClient() override {
    client_ = nullptr;
    threads.stop();
  }

  template <class T>
  Pending<T> start(Task<T> task) {
    Pending<T> pending;
    concurrency::spawn(threads.executor(), keep<T>(std::move(task), pending.place));
    return pending;
  }

  [[nodiscard]] std::shared_ptr<UnixSocketDaemonConnector> connector(
      const concurrency::Executor& executor) {
    return std::make_shared<UnixSocketDaemonConnector>(UnixSocketDaemonConnector::Dependencies{
        .executor = executor,
        .sleeper = sleeper,
        .socketPath = path,
        .requireDaemon =
            [this](int socket, const std::filesystem::path& socketPath) {
              return requireDaemon(socket, socketPath);
            },
        .connectTimeMax = connectTimeMax});
  }
  [[nodiscard]] std::shared_ptr<XPCCommitmentAuthorityClient> clientOn(
      const concurrency::Executor& executor) {
    return XPCCommitmentAuthorityClient::make(
        {.executor = executor,
         .endpoint = ipc::Endpoint::machService{"test", connector(executor)},
         .requirement = ipc::CodeSigningRequirement::trustedPeers(),
         .wait = sleeper});
  }
  XPCCommitmentAuthorityClient& client() {
    if (!client_) client_ = clientOn(threads.executor());
    return *client_;
  }
  void dropClient() { client_ = nullptr; }

  /// A daemon that listens from now on.
  void listen() { listener.emplace(path); }
  Served accept() { return Served(listener->accept()); }

  void expectFailure(const Result& result, Failure failure, const std::string& detail) {
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(connectionFailure(result.error()), failure);
    EXPECT_EQ(result.error(), DaemonError(DaemonError::daemonUnavailable{detail}));
  }

  stillow::test::TemporaryDirectory directory;
  std::string path = directory.path("s.sock");
  std::chrono::nanoseconds connectTimeMax = std::chrono::seconds(5);
  UnixSocketDaemonConnector::DaemonCheck requireDaemon =
      [](int, const std::filesystem::path&) -> std::expected<void, std::string> { return {}; };
  std::shared_ptr<ManualSleeper> sleeper = std::make_shared<ManualSleeper>();
  std::optional<Listener> listener;
  Threads threads;

 private:
  template <class T>
  static Task<void> keep(Task<T> task, std::shared_ptr<Watched<std::optional<T>>> result) {
    T value = co_await std::move(task);
    result->change([&](auto& place) { place.emplace(std::move(value)); });
  }
  std::shared_ptr<XPCCommitmentAuthorityClient> client_;
};

// ---- no connection

TEST_F(UnixSocketClient, saysThatThereIsNoSocket) {
  expectFailure(start(client().status()).wait(), Failure::socketMissing,
                "There is no socket at " + path + ".");
  path = directory.path("missing/s.sock");
  dropClient();
  expectFailure(start(client().status()).wait(), Failure::socketMissing,
                "There is no socket at " + path + ".");
}

// On a thread of the pool work that is begun begins at once, so a missing socket is found before
// the call that asked for the connection is over; and whoever made that call may hold the lock that
// the handlers want.
TEST_F(UnixSocketClient, tellsOfAConnectionThatFailsAtOnceOnlyBehindTheCallThatBeganIt) {
  const std::string nowhere[]{path, directory.path("missing/s.sock"),
                              directory.path(std::string(108, 'x'))};
  for (const std::string& missing : nowhere) {
    SCOPED_TRACE(missing.substr(directory.path().size()));
    path = missing;
    boost::asio::io_context context;
    bool isInsideACall = false;
    int losses = 0;
    int lossesInsideACall = 0;
    const auto connection = connector(context.get_executor())
                                ->makeConnection({.statusChanged = [](const ipc::SharedBytes&) {},
                                                  .lost =
                                                      [&] {
                                                        ++losses;
                                                        lossesInsideACall += isInsideACall ? 1 : 0;
                                                      }});
    boost::asio::post(context, [&] {
      isInsideACall = true;
      connection->resume();
      isInsideACall = false;
    });
    context.run();
    EXPECT_EQ(losses, 1);
    EXPECT_EQ(lossesInsideACall, 0);
  }
}

TEST_F(UnixSocketClient, saysThatNobodyListens) {
  {
    const Listener gone(path);
  }
  expectFailure(start(client().status()).wait(), Failure::connectionRefused,
                "Nobody listens at " + path + ".");
}

TEST_F(UnixSocketClient, saysThatConnectingIsNotPermitted) {
  listen();
  ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
  ASSERT_EQ(::chmod(directory.path().c_str(), 0755), 0);
  // Everything on this thread, which alone is another user's meanwhile.
  boost::asio::io_context context;
  std::optional<Result> result;
  const auto own = clientOn(context.get_executor());
  const auto call = [](std::shared_ptr<XPCCommitmentAuthorityClient> asked,
                       std::optional<Result>& place) -> Task<void> {
    place.emplace(co_await asked->status());
  };
  concurrency::spawn(context.get_executor(), call(own, result));
  ASSERT_EQ(::syscall(SYS_setresuid, -1, otherUser, -1), 0);
  while (!result) context.run_one();
  ASSERT_EQ(::syscall(SYS_setresuid, -1, 0, -1), 0);
  expectFailure(*result, Failure::notPermitted, "Connecting is not permitted at " + path + ".");
}

TEST_F(UnixSocketClient, waitsForADaemonWhoseQueueIsFullAndGivesUp) {
  const auto busy = boundSocket(path);
  ASSERT_EQ(::listen(busy.get(), 0), 0);
  const auto first = connectTo(path);
  connectTimeMax = std::chrono::milliseconds(40);
  auto result = start(client().status());
  for (int pause = 0; pause < 2; ++pause) sleeper->elapse(std::chrono::milliseconds(20));
  expectFailure(result.wait(), Failure::timedOut,
                "No connection was accepted in time at " + path + ".");
}

TEST_F(UnixSocketClient, isServedOnceTheQueueHasAPlace) {
  const auto busy = boundSocket(path);
  ASSERT_EQ(::listen(busy.get(), 0), 0);
  const auto first = connectTo(path);
  auto result = start(client().status());
  sleeper->waitForSleep(std::chrono::milliseconds(20));
  const core::FileDescriptor accepted(::accept(busy.get(), nullptr, nullptr));
  sleeper->elapse(std::chrono::milliseconds(20));
  Served daemon{core::FileDescriptor(::accept(busy.get(), nullptr, nullptr))};
  EXPECT_EQ(daemon.line(), R"({"jsonrpc":"2.0","id":1,"method":"status"})");
  daemon.sendLine(answer(1, statusRecord(7)));
  EXPECT_TRUE(result.wait().has_value());
}

TEST_F(UnixSocketClient, saysThatAPathIsTooLong) {
  path = directory.path(std::string(108, 'x'));
  expectFailure(start(client().status()).wait(), Failure::other,
                "Connecting failed at " + path + ": the path is too long for a socket.");
}

TEST_F(UnixSocketClient, saysNothingToADaemonThatItDoesNotTrust) {
  requireDaemon = [](int, const std::filesystem::path&) -> std::expected<void, std::string> {
    return std::unexpected(std::string("It is somebody else."));
  };
  listen();
  auto result = start(client().extend({}));
  auto daemon = accept();
  EXPECT_EQ(daemon.line(), std::nullopt);
  expectFailure(result.wait(), Failure::notTrusted,
                "The daemon is not to be trusted at " + path + ": It is somebody else.");
}

// The product's own check.
TEST_F(UnixSocketClient, trustsNoSocketInADirectoryThatIsNotRoots) {
  requireDaemon = requireRootDaemon;
  listen();
  {
    auto result = start(client().status());
    auto daemon = accept();
    ASSERT_TRUE(daemon.line());
    daemon.sendLine(answer(1, statusRecord(7)));
    ASSERT_TRUE(result.wait().has_value());
  }
  dropClient();
  ASSERT_EQ(::chown(directory.path().c_str(), otherUser, otherUser), 0);
  auto result = start(client().status());
  auto daemon = accept();
  EXPECT_EQ(daemon.line(), std::nullopt);
  expectFailure(result.wait(), Failure::notTrusted,
                "The daemon is not to be trusted at " + path + ": The directory \"" +
                    directory.path() + "\" does not belong to root.");
}

// ---- a connection that fails

TEST_F(UnixSocketClient, saysThatTheConnectionWasClosedBeforeAnAnswer) {
  listen();
  for (const bool isRead : {false, true}) {
    for (const std::string part : {"", R"({"jsonrpc":"2.0","id":1,"res)"}) {
      auto result = start(client().status());
      auto daemon = accept();
      if (isRead) {
        ASSERT_TRUE(daemon.line());
      }
      daemon.send(part);
      daemon.close();
      expectFailure(result.wait(), Failure::closedUnanswered,
                    "The connection was closed before an answer came from " + path + ".");
    }
  }
}

TEST_F(UnixSocketClient, saysThatAnAnswerCannotBeRead) {
  listen();
  const std::string lines[]{"",
                            "HTTP/1.1 400 Bad Request",
                            "[]",
                            "{}",
                            R"({"jsonrpc":"1.0","id":1,"result":{}})",
                            R"({"jsonrpc":"2.0","result":{}})",
                            "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":\"\xff\"}",
                            R"({"jsonrpc":"2.0","id":1,"error":{"code":"x","message":""}})",
                            R"({"jsonrpc":"2.0","id":1,"error":"no"})",
                            std::string(10'000, '[')};
  for (const std::string& line : lines) {
    SCOPED_TRACE(line.substr(0, 60));
    auto result = start(client().status());
    auto daemon = accept();
    ASSERT_TRUE(daemon.line());
    daemon.sendLine(line);
    expectFailure(result.wait(), Failure::answerUnreadable,
                  "An answer that cannot be read came from " + path + ".");
    EXPECT_EQ(daemon.line(), std::nullopt);
  }
}

TEST_F(UnixSocketClient, endsALineOfADaemonThatNeverEnds) {
  listen();
  auto result = start(client().status());
  auto daemon = accept();
  ASSERT_TRUE(daemon.line());
  const std::string piece(std::size_t{1} << 20U, ' ');
  for (int index = 0; index <= 64; ++index) daemon.send(piece);
  expectFailure(result.wait(), Failure::closedUnanswered,
                "The connection was closed before an answer came from " + path + ".");
}

TEST_F(UnixSocketClient, opensAnotherConnectionAfterALoss) {
  listen();
  for (int round = 0; round < 3; ++round) {
    auto result = start(client().status());
    auto daemon = accept();
    EXPECT_EQ(daemon.line(), R"({"jsonrpc":"2.0","id":1,"method":"status"})");
    daemon.sendLine(answer(1, statusRecord(round)));
    EXPECT_EQ(result.wait()->observedAt, core::Date{static_cast<double>(round)});
    auto lost = start(client().status());
    ASSERT_TRUE(daemon.line());
    daemon.close();
    EXPECT_FALSE(lost.wait().has_value());
  }
}

TEST_F(UnixSocketClient, closesItsConnectionWhenItIsLetGo) {
  listen();
  auto result = start(client().status());
  auto daemon = accept();
  ASSERT_TRUE(daemon.line());
  daemon.sendLine(answer(1, statusRecord(1)));
  EXPECT_TRUE(result.wait().has_value());
  dropClient();
  EXPECT_EQ(daemon.line(), std::nullopt);
}

// ---- answers

TEST_F(UnixSocketClient, givesTheErrorThatTheDaemonGave) {
  struct Row {
    std::string error;
    DaemonError expected;
  };
  const Row rows[]{
      {R"({"code":1,"message":"any","data":{"noActiveCommitment":{}}})",
       DaemonError::noActiveCommitment{}},
      {R"({"code":1,"message":"any","data":{"malformedRequest":{"detail":"ExtensionRequest"}}})",
       DaemonError::malformedRequest{"ExtensionRequest"}},
      // Without data that we know, its words are what is left.
      {R"({"code":1,"message":"No Commitment is active."})",
       DaemonError::internalFailure{"No Commitment is active."}},
      {R"({"code":1,"message":"From the future.","data":{"unheardOf":{}}})",
       DaemonError::internalFailure{"From the future."}},
      {R"({"code":-32601,"message":"Method not found","data":{"noActiveCommitment":{}}})",
       DaemonError::internalFailure{"Method not found"}}};
  listen();
  std::optional<Served> daemon;
  int id = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.error);
    auto result = start(client().status());
    if (!daemon) daemon.emplace(accept());
    ASSERT_TRUE(daemon->line());
    daemon->sendLine(errorAnswer(std::to_string(++id), row.error));
    EXPECT_EQ(result.wait(), Result(std::unexpected(row.expected)));
  }
}

TEST_F(UnixSocketClient, findsAnAnswerThatSaysNothingOrNoStatus) {
  listen();
  auto empty = start(client().status());
  auto daemon = accept();
  ASSERT_TRUE(daemon.line());
  daemon.sendLine(R"({"jsonrpc":"2.0","id":1})");
  EXPECT_EQ(empty.wait(),
            Result(std::unexpected(DaemonError::internalFailure{"Empty daemon reply."})));
  auto undecodable = start(client().status());
  ASSERT_TRUE(daemon.line());
  daemon.sendLine(answer(2, R"({"observedAt":"noon"})"));
  EXPECT_EQ(
      undecodable.wait(),
      Result(std::unexpected(DaemonError::internalFailure{"Could not decode the daemon status."})));
}

TEST_F(UnixSocketClient, failsEveryCallThatWaitsWhenALineOfItWasRefused) {
  listen();
  auto first = start(client().status());
  auto daemon = accept();
  ASSERT_TRUE(daemon.line());
  auto second = start(client().acknowledgeExpiry());
  ASSERT_TRUE(daemon.line());
  daemon.sendLine(errorAnswer("null", R"({"code":-32700,"message":"Parse error"})"));
  const Result expected = std::unexpected(DaemonError::internalFailure{"Parse error"});
  EXPECT_EQ(first.wait(), expected);
  EXPECT_EQ(second.wait(), expected);
}

TEST_F(UnixSocketClient, findsItsAnswersInAnyOrderAmongWhatItDoesNotKnow) {
  listen();
  auto first = start(client().status());
  auto daemon = accept();
  EXPECT_EQ(daemon.line(), R"({"jsonrpc":"2.0","id":1,"method":"status"})");
  auto second = start(client().armFilterConfiguration());
  EXPECT_EQ(daemon.line(), R"({"jsonrpc":"2.0","id":2,"method":"armFilterConfiguration"})");
  for (const std::string& line :
       {answer(3, statusRecord(0)), answer(2, statusRecord(2)),
        std::string(R"({"jsonrpc":"2.0","id":"x","result":{}})"),
        std::string(R"({"jsonrpc":"2.0","method":"somethingElse"})"), push(5),
        answer(2, statusRecord(9)), answer(1, statusRecord(1))}) {
    daemon.sendLine(line);
  }
  EXPECT_EQ(second.wait()->observedAt, core::Date{2});
  EXPECT_EQ(first.wait()->observedAt, core::Date{1});
}

TEST_F(UnixSocketClient, handsPushesToItsStreamsUntilTheConnectionIsLost) {
  listen();
  const auto stream = client().statusChanges();
  auto daemon = accept();
  EXPECT_EQ(daemon.line(), R"({"jsonrpc":"2.0","id":1,"method":"subscribeToStatusChanges"})");
  daemon.sendLine(answer(1, statusRecord(1)));
  EXPECT_EQ(start(stream.next()).wait()->observedAt, core::Date{1});
  daemon.send(push(2) + "\n" + push(3) + "\n");
  EXPECT_EQ(start(stream.next()).wait()->observedAt, core::Date{2});
  EXPECT_EQ(start(stream.next()).wait()->observedAt, core::Date{3});
  daemon.close();
  EXPECT_EQ(start(stream.next()).wait(), std::nullopt);

  const auto again = client().statusChanges();
  auto next = accept();
  ASSERT_TRUE(next.line());
  next.sendLine(answer(1, statusRecord(4)));
  EXPECT_EQ(start(again.next()).wait()->observedAt, core::Date{4});
}

// ---- calls that are passed through

TEST_F(UnixSocketClient, passesAnythingThroughAsOneLine) {
  listen();
  const auto through = connector(threads.executor());
  auto result = start(through->passThrough("sta\"tus\n", "{ \"a\":\n[1,\n2] }"));
  auto daemon = accept();
  EXPECT_EQ(daemon.line(),
            R"({"jsonrpc":"2.0","id":1,"method":"sta\"tus\n","params":{ "a": [1, 2] }})");
  daemon.sendLine("whatever it says");
  EXPECT_EQ(result.wait(), "whatever it says");
  EXPECT_EQ(daemon.line(), std::nullopt);

  auto without = start(through->passThrough("status", std::nullopt));
  auto second = accept();
  EXPECT_EQ(second.line(), R"({"jsonrpc":"2.0","id":1,"method":"status"})");
  second.close();
  const auto failed = without.wait();
  ASSERT_FALSE(failed.has_value());
  EXPECT_EQ(failed.error(), connectionError(Failure::closedUnanswered, path));
}

TEST_F(UnixSocketClient, passesNothingThroughToADaemonThatItDoesNotTrust) {
  requireDaemon = [](int, const std::filesystem::path&) -> std::expected<void, std::string> {
    return std::unexpected(std::string("It is somebody else."));
  };
  listen();
  auto result = start(connector(threads.executor())->passThrough("status", std::nullopt));
  auto daemon = accept();
  EXPECT_EQ(daemon.line(), std::nullopt);
  EXPECT_EQ(result.wait().error(),
            connectionError(Failure::notTrusted, path, "It is somebody else."));
}

}  // namespace
}  // namespace stillow::platform::test
