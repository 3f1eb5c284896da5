#include <algorithm>
#include <deque>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "PlatformLinuxIPC/JSONRPC.hpp"
#include "SocketTesting.hpp"

namespace stillow::platform::test {
namespace {

using ipc::DaemonReply;
using UnixSocketLimits = SocketTest;

constexpr uid_t otherUser = 65'534;
constexpr uid_t thirdUser = 65'533;

const std::string statusCall = R"({"jsonrpc":"2.0","id":1,"method":"status"})";
const std::string statusAnswer = R"({"jsonrpc":"2.0","id":1,"result":{}})";

std::string call(int id, std::string_view method) {
  return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"method":")" + std::string(method) +
         "\"}";
}
std::string strengthen(int id, std::size_t requestBytes) {
  return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"method":"strengthen","params":")" +
         std::string(requestBytes - 2, 'x') + "\"}";
}
/// `line` with blanks up to `bytes`.
std::string padded(std::string line, std::size_t bytes) {
  line.resize(bytes, ' ');
  return line;
}
ipc::SharedBytes text(std::string characters) {
  return std::make_shared<const std::string>(std::move(characters));
}

RawClient clientOf(uid_t user, const std::string& path) {
  RawClient client(path);
  client.connectAs(user);
  return client;
}

std::string refusal(std::string_view reason) {
  return "closed the connection of process " + std::to_string(::getpid()) +
         " of user 0: " + std::string(reason);
}

// ---- lines

TEST_F(UnixSocketLimits, ofALineAreExact) {
  limits.lineBytesMax = 1'000;
  listen();
  auto other = client();
  auto peer = client();
  ASSERT_TRUE(peer.sendLine(padded(statusCall, 1'000)));
  EXPECT_EQ(peer.line(), statusAnswer);
  ASSERT_TRUE(peer.send(padded(statusCall, 1'001)));
  peer.expectEnd();
  waitForLog(refusal("a line of it is longer than 1000 bytes"));
  EXPECT_EQ(other.status(), statusAnswer);
  EXPECT_EQ(daemon->callsReceived(), 2U);
}

// With the product's own limit: a stream without a line feed.
TEST_F(UnixSocketLimits, endALineThatNeverEnds) {
  listen();
  auto other = clientOf(otherUser, path);
  auto peer = client();
  const std::string piece(1 << 20, ' ');
  std::size_t sent = 0;
  while (peer.send(piece)) {
    sent += piece.size();
    ASSERT_LE(sent, limits.lineBytesMax + piece.size());
    ASSERT_EQ(other.status(), statusAnswer);
  }
  waitForLog("longer than 67108864 bytes");
  EXPECT_EQ(other.status(), statusAnswer);
  waitForLoad([](const auto& load) { return load.bufferedBytes == 0; });
}

TEST_F(UnixSocketLimits, ofTheValuesOfALineEndTheConnection) {
  limits.lineValuesMax = 100;
  listen();
  auto peer = client();
  std::string values = "[0";
  for (int index = 0; index < 100; ++index) values += ",0";
  ASSERT_TRUE(
      peer.sendLine(R"({"jsonrpc":"2.0","id":1,"method":"status","params":)" + values + "]}"));
  peer.expectEnd();
  waitForLog(refusal("a line of it has too many values"));
  EXPECT_EQ(daemon->callsReceived(), 0U);
}

TEST_F(UnixSocketLimits, ofTheCallsOfABatchEndTheConnection) {
  limits.callsInFlightPerConnectionMax = 2;
  listen();
  auto peer = client();
  ASSERT_TRUE(peer.sendLine("[" + statusCall + "," + statusCall + "]"));
  EXPECT_EQ(peer.line(), "[" + statusAnswer + "," + statusAnswer + "]");
  ASSERT_TRUE(peer.sendLine("[" + statusCall + "," + statusCall + "," + statusCall + "]"));
  peer.expectEnd();
  waitForLog(refusal("a batch of it has too many calls"));
  EXPECT_EQ(daemon->callsReceived(), 2U);
}

// ---- calls

TEST_F(UnixSocketLimits, ofTheCallsInFlightEndTheConnection) {
  limits.callsInFlightPerConnectionMax = 3;
  listen();
  auto other = client();
  auto peer = client();
  // Whoever has read its answers may make as many calls again, however soon.
  for (int round = 0; round < 300; ++round) {
    std::vector<TestDaemon::Received> calls;
    for (int id = 0; id < 3; ++id) ASSERT_TRUE(peer.sendLine(call(id, "extend")));
    for (int id = 0; id < 3; ++id) calls.push_back(daemon->next());
    for (const auto& received : calls) received.answer.settle(DaemonReply::of(text("{}")));
    for (int id = 0; id < 3; ++id) ASSERT_TRUE(peer.line());
  }
  for (int id = 0; id < 4; ++id) ASSERT_TRUE(peer.sendLine(call(id, "extend")));
  peer.expectEnd();
  waitForLog(refusal("it has more than 3 calls in flight"));
  EXPECT_EQ(other.status(), statusAnswer);
}

// What gets the standard's answers takes memory too until it is read.
TEST_F(UnixSocketLimits, holdForWhatIsNoCall) {
  listen();
  auto other = client();
  auto peer = client();
  std::string lines;
  for (int index = 0; index < 1'000; ++index) lines += "x\n";
  std::size_t sent = 0;
  while (peer.send(lines)) ASSERT_LT(++sent, 1'000U);
  waitForLog(refusal("it has more than 1024 calls in flight"));
  EXPECT_EQ(other.status(), statusAnswer);
}

// With the product's own limits.
TEST_F(UnixSocketLimits, standThousandsOfCallsInFlight) {
  listen();
  auto other = clientOf(otherUser, path);
  std::vector<RawClient> clients;
  constexpr int callsOfEach = 1'024;
  for (std::size_t index = 1; index <= 4; ++index) {
    clients.push_back(client());
    for (int id = 0; id < callsOfEach; ++id) {
      ASSERT_TRUE(clients.back().sendLine(call(id, "validateEnforcement")));
    }
    waitForLoad([&](const auto& load) { return load.calls == index * callsOfEach; });
    EXPECT_EQ(other.status(), statusAnswer);
  }

  // One more of that user costs the connection that made it, and no other.
  auto late = client();
  ASSERT_TRUE(late.sendLine(call(0, "extend")));
  late.expectEnd();
  waitForLog(refusal("its user has more than 4096 calls in flight"));
  EXPECT_EQ(other.status(), statusAnswer);

  for (std::size_t answered = 0; answered < limits.callsInFlightPerUserMax; ++answered) {
    daemon->next().answer.settle(DaemonReply::of(text("{}")));
  }
  for (auto& peer : clients) {
    for (int id = 0; id < callsOfEach; ++id) {
      ASSERT_EQ(peer.line(), R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"result":{}})");
    }
  }
  EXPECT_EQ(client().status(), statusAnswer);
}

// Whoever has thousands of calls waits for its own, not everybody for all of them.
TEST_F(UnixSocketLimits, letTheDaemonWorkOnAFewCallsOfAUserAtATime) {
  limits.callsAtWorkPerUserMax = 2;
  listen();
  auto greedy = client();
  for (int id = 0; id < 5; ++id) ASSERT_TRUE(greedy.sendLine(call(id, "extend")));
  std::deque<TestDaemon::Received> calls;
  for (int id = 0; id < 2; ++id) calls.push_back(daemon->next());
  // Another connection of that user takes no place of its own; another user does.
  auto another = client();
  ASSERT_TRUE(another.sendLine(call(9, "acknowledgeExpiry")));
  waitForLoad([](const auto& load) { return load.calls == 6; });
  auto other = clientOf(otherUser, path);
  EXPECT_EQ(other.status(), statusAnswer);

  constexpr std::size_t callsOfOthers = 1;
  for (std::size_t answered = 0; answered < 6; ++answered) {
    EXPECT_EQ(daemon->callsReceived(), callsOfOthers + std::min<std::size_t>(answered + 2, 6));
    calls.front().answer.settle(DaemonReply::of(text("{}")));
    calls.pop_front();
    if (answered < 4) calls.push_back(daemon->next());
  }
  // Each connection's in the order in which they came.
  for (int id = 0; id < 5; ++id) {
    EXPECT_EQ(greedy.line(), R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"result":{}})");
  }
  EXPECT_EQ(another.line(), R"({"jsonrpc":"2.0","id":9,"result":{}})");
}

TEST_F(UnixSocketLimits, forgetCallsThatWaitWithTheirConnection) {
  limits.callsAtWorkPerUserMax = 1;
  listen();
  auto gone = client();
  ASSERT_TRUE(gone.sendLine(call(1, "extend")) && gone.sendLine(call(2, "strengthen")));
  const auto atWork = daemon->next();
  waitForLoad([](const auto& load) { return load.calls == 2; });
  gone.close();
  daemon->waitForEndings(1);
  waitForLoad([](const auto& load) { return load.calls == 1; });
  atWork.answer.settle(DaemonReply::of(text("{}")));
  EXPECT_EQ(client().status(), statusAnswer);
  EXPECT_EQ(daemon->callsReceived(), 2U);
}

TEST_F(UnixSocketLimits, countTheCallsOfConnectionsThatAreGone) {
  limits.callsInFlightPerUserMax = 2;
  listen();
  auto gone = client();
  ASSERT_TRUE(gone.sendLine(call(1, "extend")) && gone.sendLine(call(2, "extend")));
  const auto first = daemon->next();
  const auto second = daemon->next();
  gone.close();
  daemon->waitForEndings(1);
  auto next = client();
  (void)next.sendLine(statusCall);
  next.expectEnd();
  EXPECT_EQ(clientOf(otherUser, path).status(), statusAnswer);
  first.answer.settle(DaemonReply::of(text("{}")));
  waitForLoad([](const auto& load) { return load.calls == 1; });
  EXPECT_EQ(client().status(), statusAnswer);
}

TEST_F(UnixSocketLimits, ofTheCallsOfAllUsersHold) {
  limits.callsInFlightMax = 2;
  listen();
  auto one = clientOf(otherUser, path);
  auto two = clientOf(thirdUser, path);
  ASSERT_TRUE(one.sendLine(call(1, "extend")));
  const auto first = daemon->next();
  ASSERT_TRUE(two.sendLine(call(1, "extend")));
  const auto second = daemon->next();
  auto peer = client();
  (void)peer.sendLine(statusCall);
  peer.expectEnd();
  waitForLog(refusal("all users together have more than 2 calls in flight"));
  first.answer.settle(DaemonReply::of(text("{}")));
  EXPECT_TRUE(one.line());
  EXPECT_EQ(client().status(), statusAnswer);
}

// A request is kept, decoded perhaps, until its turn comes.
TEST_F(UnixSocketLimits, ofTheRequestsOfAUserHoldUntilTheyAreAnswered) {
  limits.requestBytesPerUserMax = 10'000;
  listen();
  auto peer = client();
  ASSERT_TRUE(peer.sendLine(strengthen(1, 6'000)));
  auto first = daemon->next();
  EXPECT_EQ(std::exchange(first.request, std::nullopt)->size(), 6'000U);
  ASSERT_TRUE(peer.sendLine(strengthen(2, 4'000)));
  const auto second = daemon->next();
  EXPECT_EQ(peer.status(), statusAnswer);

  auto another = client();
  ASSERT_TRUE(another.sendLine(strengthen(1, 100)));
  another.expectEnd();
  waitForLog(refusal("requests of its user keep more than 10000 bytes waiting"));
  auto other = clientOf(otherUser, path);
  ASSERT_TRUE(other.sendLine(strengthen(1, 6'000)));
  const auto third = daemon->next();

  first.answer.settle(DaemonReply::of(text("{}")));
  EXPECT_TRUE(peer.line());
  ASSERT_TRUE(peer.sendLine(strengthen(3, 6'000)));
  EXPECT_EQ(daemon->next().request->size(), 6'000U);
}

TEST_F(UnixSocketLimits, ofTheRequestsOfAllUsersHold) {
  limits.requestBytesMax = 10'000;
  listen();
  auto one = clientOf(otherUser, path);
  ASSERT_TRUE(one.sendLine(strengthen(1, 9'000)));
  const auto first = daemon->next();
  auto peer = client();
  ASSERT_TRUE(peer.sendLine(strengthen(1, 2'000)));
  peer.expectEnd();
  waitForLog(refusal("requests of all users together keep more than 10000 bytes waiting"));
  EXPECT_EQ(client().status(), statusAnswer);
}

// ---- long lines

TEST_F(UnixSocketLimits, letOneLongLineOfAUserInAtATime) {
  limits.smallLineBytesMax = 100;
  limits.lineBytesMax = 10'000;
  listen();
  auto first = client();
  ASSERT_TRUE(first.send(padded(statusCall, 200)));
  waitForLoad([&](const auto& load) { return load.bufferedBytes == limits.lineBytesMax; });
  auto second = client();
  ASSERT_TRUE(second.sendLine(padded(statusCall, 200)));
  // Another user's has a place, and short lines need none.
  auto other = clientOf(otherUser, path);
  ASSERT_TRUE(other.sendLine(padded(statusCall, 200)));
  EXPECT_EQ(other.line(), statusAnswer);
  EXPECT_EQ(client().status(), statusAnswer);
  EXPECT_FALSE(second.hasNews());

  ASSERT_TRUE(first.send("\n"));
  EXPECT_EQ(first.line(), statusAnswer);
  EXPECT_EQ(second.line(), statusAnswer);
  waitForLoad([](const auto& load) { return load.bufferedBytes == 0; });
}

// What becomes of a long request takes more memory than the line did, until it is answered.
TEST_F(UnixSocketLimits, keepTheNextLongLineOutUntilTheOneBeforeIsAnswered) {
  limits.smallLineBytesMax = 100;
  limits.lineBytesMax = 10'000;
  listen();
  auto first = client();
  ASSERT_TRUE(first.sendLine(strengthen(1, 5'000)));
  auto underWay = daemon->next();
  underWay.request.reset();
  auto second = client();
  ASSERT_TRUE(second.sendLine(strengthen(2, 5'000)));
  auto other = clientOf(otherUser, path);
  ASSERT_TRUE(other.sendLine(padded(statusCall, 200)));
  EXPECT_EQ(other.line(), statusAnswer);
  EXPECT_EQ(client().status(), statusAnswer);
  EXPECT_EQ(daemon->callsReceived(), 3U);

  underWay.answer.settle(DaemonReply::of(text("{}")));
  EXPECT_TRUE(first.line());
  daemon->next().answer.settle(DaemonReply::of(text("{}")));
  EXPECT_TRUE(second.line());
}

TEST_F(UnixSocketLimits, giveALongLineSoMuchTime) {
  limits.smallLineBytesMax = 100;
  listen();
  auto slow = client();
  ASSERT_TRUE(slow.send(padded(statusCall, 200)));
  sleeper->waitForSleep(limits.bigLineTimeMax);
  auto next = client();
  ASSERT_TRUE(next.sendLine(padded(statusCall, 200)));
  sleeper->elapse(limits.bigLineTimeMax);
  slow.expectEnd();
  waitForLog(refusal("a long line of it took too long to arrive"));
  EXPECT_EQ(next.line(), statusAnswer);
  EXPECT_EQ(next.status(), statusAnswer);
}

TEST_F(UnixSocketLimits, leaveNoTimeRunningForALongLineThatArrived) {
  limits.smallLineBytesMax = 100;
  listen();
  auto peer = client();
  ASSERT_TRUE(peer.sendLine(padded(statusCall, 200)));
  EXPECT_EQ(peer.line(), statusAnswer);
  ASSERT_EQ(sleeper->begun(limits.bigLineTimeMax), 1);
  sleeper->elapse(limits.bigLineTimeMax);
  EXPECT_EQ(peer.status(), statusAnswer);
  EXPECT_EQ(peer.status(), statusAnswer);
}

TEST_F(UnixSocketLimits, forgetALongLineThatWaitsWithItsConnection) {
  limits.smallLineBytesMax = 100;
  listen();
  auto first = client();
  ASSERT_TRUE(first.send(padded(statusCall, 200)));
  sleeper->waitForSleep(limits.bigLineTimeMax);
  auto waiting = client();
  ASSERT_TRUE(waiting.sendLine(call(1, "extend")));
  const auto received = daemon->next();
  ASSERT_TRUE(waiting.send(padded(statusCall, 200)));
  const std::weak_ptr<ipc::ServedConnection> connection = received.connection;
  waiting.close();
  // The daemon finds out as it writes.
  received.answer.settle(DaemonReply::of(text("{}")));
  daemon->waitForEndings(1);
  EXPECT_EQ(listener->load().connections, 1U);
}

// ---- text that waits

TEST_F(UnixSocketLimits, keepOnlyTheNewestStatusForASubscriberThatNeverReads) {
  constexpr std::size_t statusBytes = 64 * 1'024;
  listen();
  auto other = client();
  ASSERT_TRUE(other.status());
  auto subscriber = client();
  ASSERT_TRUE(subscriber.sendLine(call(1, "subscribeToStatusChanges")));
  const auto subscription = daemon->next();
  subscription.answer.settle(DaemonReply::of(text("0")));
  constexpr std::size_t pushes = 2'000;
  for (std::size_t number = 1; number <= pushes; ++number) {
    subscription.connection->push(text(padded(std::to_string(number), statusBytes)));
    if (number % 100 == 0) {
      ASSERT_EQ(other.status(), statusAnswer);
      // One that is being written, one that waits; each with what belongs around it.
      ASSERT_LE(listener->load().bufferedBytes, 3 * (statusBytes + 1'024));
    }
  }
  EXPECT_EQ(subscriber.line(), R"({"jsonrpc":"2.0","id":1,"result":0})");
  std::size_t last = 0;
  std::size_t lines = 0;
  const std::string_view head = R"({"jsonrpc":"2.0","method":"daemonStatusChanged","params":)";
  while (last < pushes) {
    const auto line = subscriber.line();
    ASSERT_TRUE(line.has_value());
    ASSERT_EQ(line->substr(0, head.size()), head);
    const std::size_t number = std::stoul(line->substr(head.size()));
    ASSERT_GT(number, last);
    last = number;
    ++lines;
  }
  // What the kernel's buffer held, and the newest.
  EXPECT_LT(lines, 100U);
}

TEST_F(UnixSocketLimits, ofTextThatWaitsCostTheOneWhoKeepsTheMost) {
  limits.bufferedBytesMax = std::size_t{4} << 20U;
  constexpr std::size_t answerBytes = std::size_t{1} << 20U;
  listen();
  auto greedy = client();
  auto modest = client();
  ASSERT_TRUE(modest.sendLine(call(1, "extend")));
  daemon->next().answer.settle(DaemonReply::of(text(std::string(answerBytes, '1'))));
  for (int id = 0; id < 10; ++id) ASSERT_TRUE(greedy.sendLine(call(id, "extend")));
  // All of them first: whoever is evicted is not read any more.
  std::vector<TestDaemon::Received> calls;
  for (int id = 0; id < 10; ++id) calls.push_back(daemon->next());
  for (const auto& received : calls) {
    received.answer.settle(DaemonReply::of(text(std::string(answerBytes, '2'))));
  }
  waitForLog(refusal("it keeps more answers waiting than the daemon can hold"));
  greedy.expectEnd();
  const auto line = modest.line();
  ASSERT_TRUE(line.has_value());
  EXPECT_GT(line->size(), answerBytes);
  EXPECT_EQ(modest.status(), statusAnswer);
  waitForLoad([](const auto& load) { return load.bufferedBytes == 0; });
  EXPECT_EQ(logLines("closed the connection"), 1U);
}

// ---- order

TEST_F(UnixSocketLimits, ofPushesNeverPutAnOlderStatusBehindANewerAnswer) {
  listen();
  auto peer = client();
  ASSERT_TRUE(peer.sendLine(call(1, "subscribeToStatusChanges")));
  const auto subscription = daemon->next();
  // Fills the kernel's buffer, so that everything else waits.
  subscription.answer.settle(DaemonReply::of(text(std::string(std::size_t{4} << 20U, '1'))));
  subscription.connection->push(text("2"));
  ASSERT_TRUE(peer.sendLine(call(2, "extend")));
  daemon->next().answer.settle(DaemonReply::of(text("3")));
  EXPECT_EQ(client().status(), statusAnswer);
  subscription.connection->push(text("4"));
  ASSERT_TRUE(peer.sendLine(call(3, "extend")));
  daemon->next().answer.settle(DaemonReply::of(text("5")));

  EXPECT_EQ(peer.line()->substr(0, 33), R"({"jsonrpc":"2.0","id":1,"result":)");
  EXPECT_EQ(peer.line(), R"({"jsonrpc":"2.0","id":2,"result":3})");
  EXPECT_EQ(peer.line(), R"({"jsonrpc":"2.0","method":"daemonStatusChanged","params":4})");
  EXPECT_EQ(peer.line(), R"({"jsonrpc":"2.0","id":3,"result":5})");
}

TEST_F(UnixSocketLimits, ofABatchHoldPushesBackUntilItsSubscriptionIsAnswered) {
  listen();
  auto peer = client();
  ASSERT_TRUE(
      peer.sendLine("[" + call(1, "subscribeToStatusChanges") + "," + call(2, "extend") + "]"));
  const auto subscription = daemon->next();
  const auto other = daemon->next();
  subscription.answer.settle(DaemonReply::of(text("1")));
  subscription.connection->push(text("2"));
  subscription.connection->push(text("3"));
  EXPECT_EQ(client().status(), statusAnswer);
  EXPECT_FALSE(peer.hasNews());
  other.answer.settle(DaemonReply::of(text("0")));
  EXPECT_EQ(peer.line(),
            R"([{"jsonrpc":"2.0","id":1,"result":1},{"jsonrpc":"2.0","id":2,"result":0}])");
  EXPECT_EQ(peer.line(), R"({"jsonrpc":"2.0","method":"daemonStatusChanged","params":3})");
}

TEST_F(UnixSocketLimits, shareNothingBetweenConnectionsButTheirSum) {
  listen();
  std::vector<RawClient> subscribers;
  std::vector<std::shared_ptr<ipc::ServedConnection>> connections;
  for (int index = 0; index < 50; ++index) {
    subscribers.push_back(client());
    ASSERT_TRUE(subscribers.back().sendLine(call(1, "subscribeToStatusChanges")));
    const auto subscription = daemon->next();
    subscription.answer.settle(DaemonReply::of(text("0")));
    ASSERT_TRUE(subscribers.back().line());
    connections.push_back(subscription.connection);
  }
  // One status for all of them takes its size once.
  constexpr std::size_t statusBytes = std::size_t{8} << 20U;
  const auto status = text(std::string(statusBytes, '7'));
  for (const auto& connection : connections) connection->push(status);
  EXPECT_EQ(client().status(), statusAnswer);
  EXPECT_LT(listener->load().bufferedBytes, statusBytes + 50 * 1'024);
  const std::size_t around = rpc::pushText(nullptr).string().size();
  for (auto& subscriber : subscribers) {
    EXPECT_EQ(subscriber.line()->size(), statusBytes + around);
  }
}

}  // namespace
}  // namespace stillow::platform::test
