#include <algorithm>
#include <array>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "PlatformLinuxIPC/JSONRPC.hpp"
#include "PlatformLinuxIPC/UnixSocketConnection.hpp"
#include "SocketTesting.hpp"
#include "StillowConcurrency/Strand.hpp"

namespace stillow::platform::test {
namespace {

using core::FileDescriptor;
using ipc::DaemonReply;

/// One connection over a pair of sockets. Everything of the daemon's side runs when the test says
/// so, on its own thread, so what the client has room for at each write is known.
class UnixSocketWriting : public testing::Test {
 protected:
  UnixSocketWriting() {
    // Nothing waits for a place.
    limits.callsAtWorkMax = limits.callsAtWorkPerUserMax = limits.callsInFlightPerConnectionMax;
  }
  ~UnixSocketWriting() override {
    calls.clear();
    daemon->forget();
  }

  /// The system makes of less than its least the least: some 4 KiB.
  void open(int sendBufferBytes) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    client = FileDescriptor(ends[1]);
    ASSERT_EQ(::setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &sendBufferBytes, sizeof(int)), 0);
    ASSERT_EQ(::fcntl(ends[1], F_SETFL, O_NONBLOCK), 0);
    connection = std::make_shared<UnixSocketConnection>(
        server,
        UnixSocketConnection::Socket(concurrency::makeStrand(context.get_executor()),
                                     boost::asio::local::stream_protocol(), ends[0]),
        ipc::PeerProcess{.pid = 7, .uid = user}, server->ledger->addConnection(user));
    daemonsEnd = ends[0];
  }
  void serve(int sendBufferBytes) {
    open(sendBufferBytes);
    connection->begin(std::nullopt, nullptr);
    run();
  }
  /// Until nothing is left to do but to wait for the client.
  void run() { (void)context.poll(); }

  void send(const std::string& text) const {
    ASSERT_EQ(::send(client.get(), text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
  }
  void sendLine(const std::string& text) const { send(text + "\n"); }
  /// Sends a call that the test answers, which is behind all others in `calls`.
  void beginCall(int id) {
    sendLine(call(id));
    run();
    calls.push_back(daemon->next());
  }
  void answer(std::size_t index, ipc::SharedBytes bytes) {
    calls.at(index).answer.settle(DaemonReply::of(std::move(bytes)));
  }
  /// What there is to read, at most so much; empty if there is nothing, or at the end.
  [[nodiscard]] std::string read(std::size_t bytesMax) const {
    std::string text(bytesMax, '\0');
    const ssize_t count = ::recv(client.get(), text.data(), text.size(), 0);
    text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    return text;
  }
  [[nodiscard]] std::string readAll() {
    std::string all;
    for (std::string part = read(1'000); !part.empty(); part = read(1'000)) {
      all += part;
      run();
    }
    return all;
  }
  [[nodiscard]] bool isAtItsEnd() const {
    char character = 0;
    return ::recv(client.get(), &character, 1, MSG_PEEK) == 0;
  }

  static std::string call(int id) {
    return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"method":"extend"})";
  }
  static ipc::SharedBytes bytes(std::size_t count, char character) {
    return std::make_shared<const std::string>(std::string(count, character));
  }
  static std::string answerText(int id, const ipc::SharedBytes& bytes) {
    return rpc::resultText(std::to_string(id), bytes).string();
  }
  static std::string pushLine(const ipc::SharedBytes& bytes) {
    return rpc::pushText(bytes).string() + "\n";
  }

  static constexpr uid_t user = 4'711;
  static constexpr int leastSendBuffer = 1;
  static constexpr int plainSendBuffer = 200'000;

  boost::asio::io_context context{1};
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work{
      context.get_executor()};
  SocketLimits limits;
  std::shared_ptr<TestDaemon> daemon = std::make_shared<TestDaemon>();
  std::shared_ptr<ManualSleeper> sleeper = std::make_shared<ManualSleeper>();
  std::vector<std::string> log;
  std::shared_ptr<SocketServer> server = std::make_shared<SocketServer>(SocketServer{
      .limits = limits,
      .executor = context.get_executor(),
      .blocking = nullptr,
      .sleeper = sleeper,
      .delegate = daemon,
      .budget = ByteBudget::make(limits.bufferedBytesMax),
      .ledger = std::make_shared<ConnectionLedger>(
          ConnectionLedger::Limits{.connectionsMax = 1,
                                   .connectionsPerUserMax = 1,
                                   .callsPerUserMax = limits.callsInFlightPerUserMax,
                                   .callsMax = limits.callsInFlightMax,
                                   .requestBytesPerUserMax = limits.requestBytesPerUserMax,
                                   .requestBytesMax = limits.requestBytesMax}),
      .log = std::make_shared<RefusalLog>(
          context.get_executor(), sleeper,
          [this](std::string line) { log.push_back(std::move(line)); }, limits.logLinesMax,
          limits.logWindow),
      .bigLines = FairGate(limits.bigLinesMax, limits.bigLinesPerUserMax),
      .peerChecks = FairGate(limits.peerChecksMax, limits.peerChecksPerUserMax),
      .callsAtWork =
          FairGate(limits.callsInFlightPerConnectionMax, limits.callsInFlightPerConnectionMax)});
  std::shared_ptr<UnixSocketConnection> connection;
  FileDescriptor client;
  int daemonsEnd = -1;
  std::vector<TestDaemon::Received> calls;
};

TEST_F(UnixSocketWriting, leavesNothingWaitingWhileTheClientHasRoom) {
  serve(plainSendBuffer);
  const auto status = bytes(50'000, '1');
  connection->push(status);
  ASSERT_EQ(context.poll_one(), 1U);
  EXPECT_EQ(server->budget->bytesUsed(), 0U);
  EXPECT_EQ(readAll(), pushLine(status));
}

TEST_F(UnixSocketWriting, writesTheRestBehindThePartThatFitted) {
  serve(leastSendBuffer);
  const auto status = bytes(300'000, '1');
  connection->push(status);
  run();
  const std::string part = read(1'000'000);
  EXPECT_FALSE(part.empty());
  EXPECT_LT(part.size(), status->size());
  EXPECT_GT(server->budget->bytesUsed(), status->size());
  run();
  EXPECT_EQ(part + readAll(), pushLine(status));
  EXPECT_EQ(server->budget->bytesUsed(), 0U);
}

TEST_F(UnixSocketWriting, waitsAtOnceForAClientThatHasNoRoomAtAll) {
  serve(leastSendBuffer);
  std::string before;
  const std::string piece(100, ' ');
  while (::send(daemonsEnd, piece.data(), piece.size(), MSG_DONTWAIT) > 0) before += piece;
  beginCall(1);
  answer(0, bytes(10, '2'));
  run();
  connection->push(bytes(10, '3'));
  connection->push(bytes(10, '4'));
  run();
  EXPECT_GT(server->budget->bytesUsed(), 0U);
  EXPECT_EQ(readAll(), before + answerText(1, bytes(10, '2')) + "\n" + pushLine(bytes(10, '4')));
  EXPECT_EQ(server->budget->bytesUsed(), 0U);
}

// Whatever fits, and however much the client takes at a time: it reads what a program would have
// written that puts one answer behind the other.
TEST_F(UnixSocketWriting, givesTheBytesOfOneAnswerBehindTheOtherWhateverFits) {
  for (unsigned seed = 1; seed <= 30; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto upTo = [&](std::size_t most) { return random() % (most + 1); };
    serve(seed % 3 == 0 ? plainSendBuffer : leastSendBuffer);
    std::string expected;
    std::string received;
    struct Open {
      bool isBatch;
      std::vector<int> ids;
      std::vector<TestDaemon::Received> calls;
    };
    std::vector<Open> open;
    int lastID = 0;
    for (int step = 0; step < 300; ++step) {
      switch (upTo(5)) {
        case 0: {  // a call, or a batch
          Open begun{.isBatch = upTo(2) == 0, .ids = {}, .calls = {}};
          std::string line;
          for (std::size_t left = begun.isBatch ? 1 + upTo(40) : 1; left > 0; --left) {
            begun.ids.push_back(++lastID);
            line += (line.empty() ? "" : ",") + call(lastID);
          }
          sendLine(begun.isBatch ? "[" + line + "]" : line);
          run();
          for (std::size_t i = 0; i < begun.ids.size(); ++i) begun.calls.push_back(daemon->next());
          open.push_back(std::move(begun));
          break;
        }
        case 1:  // a line that is answered as it is read
          sendLine("?");
          run();
          expected += rpc::errorText("null", rpc::StandardError::parseError).string() + "\n";
          break;
        case 2:
        case 3: {  // an answer
          if (open.empty()) break;
          const auto chosen = open.begin() + static_cast<std::ptrdiff_t>(upTo(open.size() - 1));
          std::string line;
          for (std::size_t i = 0; i < chosen->calls.size(); ++i) {
            const std::size_t most = upTo(20) == 0 ? 500'000 : chosen->isBatch ? 300 : 9'000;
            const auto body = bytes(upTo(most), static_cast<char>('a' + upTo(25)));
            chosen->calls[i].answer.settle(DaemonReply::of(body));
            line += (i == 0 ? "" : ",") + answerText(chosen->ids[i], body);
          }
          expected += (chosen->isBatch ? "[" + line + "]" : line) + "\n";
          open.erase(chosen);
          if (upTo(1) == 0) run();
          break;
        }
        default:  // the client reads
          run();
          received += read(1 + upTo(upTo(3) == 0 ? 200'000 : 3'000));
      }
    }
    run();
    received += readAll();
    ASSERT_EQ(received.size(), expected.size());
    ASSERT_TRUE(received == expected);
    EXPECT_EQ(server->budget->bytesUsed(), 0U);
    open.clear();
    connection->stop();
    run();
    connection = nullptr;
    EXPECT_EQ(daemon->endings(), seed);
  }
}

TEST_F(UnixSocketWriting, endsBehindTheLastPartOnceTheClientHasFinished) {
  serve(leastSendBuffer);
  beginCall(1);
  ASSERT_EQ(::shutdown(client.get(), SHUT_WR), 0);
  run();
  EXPECT_FALSE(isAtItsEnd());
  const auto body = bytes(100'000, '1');
  answer(0, body);
  run();
  EXPECT_EQ(daemon->endings(), 0U);
  EXPECT_EQ(readAll(), answerText(1, body) + "\n");
  EXPECT_TRUE(isAtItsEnd());
  EXPECT_EQ(daemon->endings(), 1U);
}

TEST_F(UnixSocketWriting, endsAtOnceBehindAnAnswerThatFitsOnceTheClientHasFinished) {
  serve(plainSendBuffer);
  beginCall(1);
  ASSERT_EQ(::shutdown(client.get(), SHUT_WR), 0);
  run();
  answer(0, bytes(10, '1'));
  run();
  EXPECT_EQ(daemon->endings(), 1U);
  EXPECT_EQ(readAll(), answerText(1, bytes(10, '1')) + "\n");
  EXPECT_TRUE(isAtItsEnd());
}

TEST_F(UnixSocketWriting, keepsNothingWhenTheClientLeavesInTheMiddleOfAText) {
  serve(leastSendBuffer);
  beginCall(1);
  answer(0, bytes(300'000, '1'));
  connection->push(bytes(300'000, '2'));
  run();
  EXPECT_FALSE(read(100).empty());
  run();
  EXPECT_GT(server->budget->bytesUsed(), 500'000U);
  client = FileDescriptor();
  run();
  EXPECT_EQ(daemon->endings(), 1U);
  EXPECT_EQ(server->budget->bytesUsed(), 0U);
  calls.clear();
  const std::weak_ptr<UnixSocketConnection> gone = std::exchange(connection, nullptr);
  EXPECT_TRUE(gone.expired());
}

TEST_F(UnixSocketWriting, keepsNothingWhenTheConnectionIsStoppedInTheMiddleOfAText) {
  serve(leastSendBuffer);
  connection->push(bytes(300'000, '1'));
  run();
  connection->stop();
  connection->push(bytes(300'000, '2'));
  run();
  EXPECT_EQ(daemon->endings(), 1U);
  EXPECT_EQ(server->budget->bytesUsed(), 0U);
  const std::weak_ptr<UnixSocketConnection> gone = std::exchange(connection, nullptr);
  EXPECT_TRUE(gone.expired());
}

// The first answer finds that nobody is there any more: what else was in the same read is dropped.
TEST_F(UnixSocketWriting, mayEndTheConnectionWithinTheReadingOfItsLines) {
  serve(plainSendBuffer);
  send("?\n" + call(1) + "\n");
  client = FileDescriptor();
  run();
  EXPECT_EQ(daemon->endings(), 1U);
  EXPECT_EQ(daemon->callsReceived(), 0U);
  EXPECT_EQ(server->budget->bytesUsed(), 0U);
}

TEST_F(UnixSocketWriting, mayEndTheConnectionWithinTheReadingOfABatch) {
  serve(plainSendBuffer);
  send("[?]\n[1,2]\n[" + call(1) + "]\n");
  client = FileDescriptor();
  run();
  EXPECT_EQ(daemon->endings(), 1U);
  EXPECT_EQ(daemon->callsReceived(), 0U);
}

TEST_F(UnixSocketWriting, mayEndTheConnectionWithALineThatWasCutOff) {
  serve(plainSendBuffer);
  send("?");
  client = FileDescriptor();
  run();
  EXPECT_EQ(daemon->endings(), 1U);
}

TEST_F(UnixSocketWriting, dropsThePushBehindAnAnswerThatEndsTheConnection) {
  serve(plainSendBuffer);
  sendLine(R"([{"jsonrpc":"2.0","id":1,"method":"subscribeToStatusChanges"}])");
  run();
  calls.push_back(daemon->next());
  connection->push(bytes(10, '1'));
  run();
  client = FileDescriptor();
  // Both in one step, so that the push finds the end that the answer has come to.
  answer(0, bytes(10, '0'));
  connection->push(bytes(10, '2'));
  run();
  EXPECT_EQ(daemon->endings(), 1U);
  EXPECT_EQ(server->budget->bytesUsed(), 0U);
}

TEST_F(UnixSocketWriting, losesAConnectionWhoseSocketCannotBeMadeNonBlocking) {
  open(plainSendBuffer);
  // A descriptor that only names a file takes no such order.
  const FileDescriptor name(::open("/", O_PATH | O_CLOEXEC));
  ASSERT_EQ(::dup3(name.get(), daemonsEnd, O_CLOEXEC), daemonsEnd);
  connection->begin(std::nullopt, nullptr);
  connection->push(bytes(10, '1'));
  run();
  EXPECT_EQ(daemon->endings(), 1U);
  EXPECT_EQ(log, (std::vector<std::string>{
                     "closed the connection of process 7 of user 4711: its socket cannot be made "
                     "non-blocking: Bad file descriptor"}));
  EXPECT_EQ(server->budget->bytesUsed(), 0U);
}

}  // namespace
}  // namespace stillow::platform::test
