#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <spawn.h>

#include "PeerTestProcess.hpp"
#include "SocketTesting.hpp"
#include "StillowIPC/DaemonError.hpp"

namespace stillow::platform::test {
namespace {

using ipc::DaemonError;
using ipc::DaemonOperation;
using ipc::DaemonReply;
using UnixSocketLines = SocketTest;

const std::string statusCall = R"({"jsonrpc":"2.0","id":1,"method":"status"})";
const std::string statusAnswer = R"({"jsonrpc":"2.0","id":1,"result":{}})";

std::string errorLine(std::string_view id, std::string_view codeAndMessage) {
  return R"({"jsonrpc":"2.0","id":)" + std::string(id) + R"(,"error":{)" +
         std::string(codeAndMessage) + "}}";
}
constexpr std::string_view parseError = R"("code":-32700,"message":"Parse error")";
constexpr std::string_view invalidRequest = R"("code":-32600,"message":"Invalid Request")";
constexpr std::string_view methodNotFound = R"("code":-32601,"message":"Method not found")";

std::string call(std::string_view id, std::string_view method) {
  return R"({"jsonrpc":"2.0","id":)" + std::string(id) + R"(,"method":")" + std::string(method) +
         "\"}";
}

TEST_F(UnixSocketLines, areReadHoweverTheyArrive) {
  listen();
  auto peer = client();
  for (const char byte : statusCall + "\n") ASSERT_TRUE(peer.send({&byte, 1}));
  EXPECT_EQ(peer.line(), statusAnswer);
  ASSERT_TRUE(peer.send(statusCall + "\n" + statusCall + "\n" + statusCall.substr(0, 9)));
  EXPECT_EQ(peer.line(), statusAnswer);
  EXPECT_EQ(peer.line(), statusAnswer);
  ASSERT_TRUE(peer.send(statusCall.substr(9) + "\r\n"));
  EXPECT_EQ(peer.line(), statusAnswer);
}

TEST_F(UnixSocketLines, thatAreNoCallsGetTheStandardsAnswers) {
  struct Row {
    std::string_view what;
    std::string line;
    std::string answer;
  };
  const Row rows[]{
      {"nothing", "", errorLine("null", parseError)},
      {"no JSON", "status", errorLine("null", parseError)},
      {"JSON cut off", statusCall.substr(0, 20), errorLine("null", parseError)},
      {"two texts", statusCall + statusCall, errorLine("null", parseError)},
      {"invalid UTF-8", "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"status\",\"x\":\"\xff\"}",
       errorLine("null", parseError)},
      {"a surrogate in UTF-8",
       "{\"jsonrpc\":\"2.0\",\"id\":\"\xed\xa0\x80\",\"method\":\"status\"}",
       errorLine("null", parseError)},
      {"nesting without an end", std::string(100'000, '['), errorLine("null", parseError)},
      {"deep nesting", std::string(10'000, '[') + std::string(10'000, ']'),
       errorLine("null", parseError)},
      {"a null byte", std::string("{\"jsonrpc\":\"2.0\",\"id\":1}\0", 26),
       errorLine("null", parseError)},
      {"no object", "1", errorLine("null", invalidRequest)},
      {"no version", R"({"id":7,"method":"status"})", errorLine("7", invalidRequest)},
      {"no method", R"({"jsonrpc":"2.0","id":"a"})", errorLine("\"a\"", invalidRequest)},
      {"an id that is none", R"({"jsonrpc":"2.0","id":{},"method":"status"})",
       errorLine("null", invalidRequest)},
      {"an empty batch", "[]", errorLine("null", invalidRequest)},
      {"a method that there is not", call("3", "stop"), errorLine("3", methodNotFound)},
      {"the push", call("4", "daemonStatusChanged"), errorLine("4", methodNotFound)}};
  listen();
  auto peer = client();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    ASSERT_TRUE(peer.sendLine(row.line));
    EXPECT_EQ(peer.line(), row.answer);
    EXPECT_EQ(peer.status(), statusAnswer);
  }
  EXPECT_EQ(daemon->callsReceived(), std::size(rows));
  EXPECT_EQ(log->read([](const auto& lines) { return lines.size(); }), 0U);
}

TEST_F(UnixSocketLines, handTheRecordToTheDaemonAsItWasWritten) {
  listen();
  auto peer = client();
  // A record that makes no sense is the daemon's matter, which has its own error for it.
  for (const std::string record : {R"({ "a" : [1 , 2.50e1], "a":"\u0041" })", "7", "null", "[]"}) {
    ASSERT_TRUE(peer.sendLine(R"({"params":)" + record +
                              R"(,"method":"strengthen","id":1,"jsonrpc":"2.0"})"));
    const auto received = daemon->next();
    EXPECT_EQ(received.operation, DaemonOperation::strengthen);
    EXPECT_EQ(received.request, record);
    received.answer.settle(DaemonReply::of(
        DaemonError(DaemonError::malformedRequest{"ScopeAddition"}).platformError()));
    EXPECT_EQ(peer.line(),
              errorLine("1", R"("code":1,"message":"The daemon could not decode the request: )"
                             R"(ScopeAddition","data":{"malformedRequest":{"detail":)"
                             R"("ScopeAddition"}})"));
  }
  ASSERT_TRUE(peer.sendLine(call("2", "strengthen")));
  EXPECT_EQ(daemon->next().request, std::nullopt);
}

TEST_F(UnixSocketLines, areAnsweredInTheOrderInWhichTheDaemonIsDone) {
  listen();
  auto peer = client();
  const std::vector<std::string> methods{"activate", "validateEnforcement", "acknowledgeExpiry"};
  for (const auto& method : methods) ASSERT_TRUE(peer.sendLine(call('"' + method + '"', method)));
  std::vector<TestDaemon::Received> calls;
  for (const auto& method : methods) {
    calls.push_back(daemon->next());
    EXPECT_EQ(core::rawValue(calls.back().operation), method);
  }
  for (const std::size_t index : {2U, 0U, 1U}) {
    calls[index].answer.settle(DaemonReply::of(std::to_string(index)));
    EXPECT_EQ(peer.line(), R"({"jsonrpc":"2.0","id":")" + methods[index] + R"(","result":)" +
                               std::to_string(index) + "}");
  }
}

TEST_F(UnixSocketLines, withTheSameIdAreAnsweredEach) {
  listen();
  auto peer = client();
  ASSERT_TRUE(peer.sendLine(call("1", "extend")) && peer.sendLine(call("1", "strengthen")));
  daemon->next().answer.settle(DaemonReply::of(std::string("\"first\"")));
  daemon->next().answer.settle(DaemonReply::of(std::string("\"second\"")));
  EXPECT_EQ(peer.line(), R"({"jsonrpc":"2.0","id":1,"result":"first"})");
  EXPECT_EQ(peer.line(), R"({"jsonrpc":"2.0","id":1,"result":"second"})");
}

TEST_F(UnixSocketLines, ofABatchAreAnsweredTogether) {
  listen();
  auto peer = client();
  ASSERT_TRUE(peer.sendLine("[" + call("1", "extend") + ",2," + call("3", "stop") + "," +
                            R"({"jsonrpc":"2.0","method":"strengthen"},)" + statusCall + "]"));
  daemon->next().answer.settle(DaemonReply::of(std::string("\"late\"")));
  daemon->next().answer.settle(DaemonReply::of(std::string("\"to nobody\"")));
  const std::string answer = peer.line().value_or("");
  EXPECT_EQ(answer.front(), '[');
  EXPECT_EQ(answer.back(), ']');
  for (const std::string& part :
       {std::string(R"({"jsonrpc":"2.0","id":1,"result":"late"})"),
        errorLine("null", invalidRequest), errorLine("3", methodNotFound), statusAnswer}) {
    EXPECT_NE(answer.find(part), std::string::npos) << part;
  }
  EXPECT_EQ(answer.find("nobody"), std::string::npos);
}

TEST_F(UnixSocketLines, thatAskForNoAnswerGetNone) {
  listen();
  auto peer = client();
  const std::string notification = R"({"jsonrpc":"2.0","method":"status"})";
  ASSERT_TRUE(peer.sendLine(notification) && peer.sendLine("[" + notification + "]") &&
              peer.sendLine(R"({"jsonrpc":"2.0","method":"unheardOf"})"));
  EXPECT_EQ(peer.status(), statusAnswer);
  EXPECT_EQ(daemon->callsReceived(), 3U);
}

TEST_F(UnixSocketLines, thatTheDaemonForgetsAreAnsweredWithAnError) {
  listen();
  auto peer = client();
  ASSERT_TRUE(peer.sendLine(call("1", "extend")));
  {
    const auto forgotten = daemon->next();
  }
  const auto answer = peer.line();
  ASSERT_TRUE(answer.has_value());
  EXPECT_NE(answer->find(R"("error":)"), std::string::npos) << *answer;
}

// ---- the end of a connection

TEST_F(UnixSocketLines, areStillAnsweredWhenTheClientSendsNoMore) {
  listen();
  auto peer = client();
  ASSERT_TRUE(peer.sendLine(call("1", "extend")) && peer.sendLine(call("2", "strengthen")));
  peer.finishSending();
  const auto first = daemon->next();
  const auto second = daemon->next();
  second.answer.settle(DaemonReply::of(std::string("2")));
  EXPECT_EQ(peer.line(), R"({"jsonrpc":"2.0","id":2,"result":2})");
  EXPECT_EQ(daemon->endings(), 0U);
  first.answer.settle(DaemonReply::of(std::string("1")));
  EXPECT_EQ(peer.line(), R"({"jsonrpc":"2.0","id":1,"result":1})");
  EXPECT_EQ(peer.line(), std::nullopt);
  daemon->waitForEndings(1);
}

TEST_F(UnixSocketLines, endTheConnectionOfAClientThatSendsNoMoreAndAskedNothing) {
  listen();
  auto peer = client();
  peer.finishSending();
  EXPECT_EQ(peer.line(), std::nullopt);
  daemon->waitForEndings(1);
}

// What is left of a line may be a call by chance; nobody sent it.
TEST_F(UnixSocketLines, thatAreCutOffSayNothing) {
  listen();
  auto peer = client();
  ASSERT_TRUE(peer.send(statusCall));
  peer.finishSending();
  EXPECT_EQ(peer.line(), errorLine("null", parseError));
  EXPECT_EQ(peer.line(), std::nullopt);
  EXPECT_EQ(daemon->callsReceived(), 0U);
}

TEST_F(UnixSocketLines, endWithTheClientThatWaitedForTheirAnswers) {
  listen();
  auto peer = client();
  ASSERT_TRUE(peer.sendLine(call("1", "validateEnforcement")));
  const auto pending = daemon->next();
  peer.finishSending();
  EXPECT_EQ(daemon->endings(), 0U);
  peer.close();
  daemon->waitForEndings(1);
  EXPECT_EQ(listener->load().connections, 0U);
  EXPECT_EQ(listener->load().calls, 1U);
  pending.answer.settle(DaemonReply::of(std::string("{}")));
  waitForLoad([](const auto& load) { return load.calls == 0 && load.bufferedBytes == 0; });
}

TEST_F(UnixSocketLines, thatRegisterSomethingAreForgottenWithTheirConnection) {
  listen();
  for (const std::string method : {"subscribeToStatusChanges", "announceUserInterface"}) {
    SCOPED_TRACE(method);
    const std::size_t endings = daemon->endings();
    auto peer = client();
    ASSERT_TRUE(peer.sendLine(call("1", method)));
    const auto underWay = daemon->next();
    peer.close();
    daemon->waitForEndings(endings + 1);
    // Both come too late, in the order in which the daemon would do them.
    underWay.answer.settle(DaemonReply::of(std::string("{}")));
    underWay.connection->push(std::make_shared<const std::string>("{}"));
    waitForLoad([](const auto& load) { return load.calls == 0 && load.bufferedBytes == 0; });
    EXPECT_TRUE(client().status());
  }
}

TEST_F(UnixSocketLines, ofAPeerThatIsKilledInMidMessageGoWithIt) {
  listen();
  auto other = client();
  ASSERT_TRUE(other.status());
  const std::string texts[]{
      "{", statusCall, statusCall + "\n" + call("2", "extend") + "\n{\"jsonrpc\"",
      // Long enough to have a place among the long lines, which has to be free again.
      "{\"jsonrpc\":\"2.0\",\"x\":\"" + std::string(limits.smallLineBytesMax + 10'000, 'x')};
  for (const std::string& text : texts) {
    SCOPED_TRACE(text.substr(0, 20));
    const std::size_t connections = daemon->connections().size();
    const std::size_t endings = daemon->endings();
    const std::string program = STILLOW_BIN "/SocketProbe";
    std::vector<std::string> words{program, path, text, "stay"};
    std::vector<char*> arguments;
    for (auto& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    pid_t pid = 0;
    ASSERT_EQ(::posix_spawn(&pid, program.c_str(), nullptr, nullptr, arguments.data(), environ), 0);
    ChildProcess probe(pid);
    daemon->waitForConnections(connections + 1);
    if (text.find("extend") != std::string::npos) (void)daemon->next();
    if (text.size() > limits.smallLineBytesMax) {
      waitForLoad([&](const auto& load) { return load.bufferedBytes >= limits.lineBytesMax; });
    }
    probe.kill();
    daemon->waitForEndings(endings + 1);
    waitForLoad([](const auto& load) {
      return load.connections == 1 && load.calls == 0 && load.bufferedBytes == 0;
    });
    EXPECT_EQ(other.status(), statusAnswer);
  }
  // The third of them had finished two lines.
  EXPECT_EQ(daemon->callsReceived(), std::size(texts) + 3);
}

}  // namespace
}  // namespace stillow::platform::test
