#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include <gtest/gtest.h>

#include "PlatformLinuxIPC/JSONRPC.hpp"
#include "StillowIPC/DaemonError.hpp"

namespace stillow::platform::rpc {
namespace {

using ipc::DaemonOperation;

constexpr LineLimits limits{.valuesMax = 1'000, .requestsMax = 8};

/// One request of one line, in words.
std::string read(const Request& request) {
  if (const auto* const call = std::get_if<Call>(&request)) {
    std::string words = std::string(core::rawValue(call->operation)) + " as " +
                        (call->id.empty() ? "notification" : call->id);
    if (call->params) words.append(" with ").append(*call->params);
    return words;
  }
  if (const auto* const fault = std::get_if<Fault>(&request)) {
    return std::to_string(static_cast<int>(fault->error)) + " for " + fault->id;
  }
  return "nothing";
}

std::string read(std::string_view line) {
  const auto parsed = readRequests(line, limits);
  if (!parsed) {
    return parsed.error() == LineLimit::values ? "too many values" : "too many requests";
  }
  std::string words = parsed->isBatch ? "batch: " : "";
  for (const Request& request : parsed->requests) {
    if (&request != &parsed->requests.front()) words += "; ";
    words += read(request);
  }
  return words;
}

struct Row {
  std::string_view line;
  std::string_view meaning;
};

TEST(JSONRPC, readsEachOperationByItsRawName) {
  for (const auto& entry : core::Coding<DaemonOperation>::names) {
    const std::string line =
        R"({"jsonrpc":"2.0","id":1,"method":")" + std::string(entry.name) + "\"}";
    EXPECT_EQ(read(line), std::string(entry.name) + " as 1");
  }
}

TEST(JSONRPC, handsParametersOnAsTheyWereWritten) {
  const Row rows[]{
      {R"({"jsonrpc":"2.0","id":1,"method":"extend","params": {"newEndTime" : {"date":1.50}} })",
       R"(extend as 1 with {"newEndTime" : {"date":1.50}})"},
      {R"({"params":[1,2],"method":"strengthen","id":1,"jsonrpc":"2.0"})",
       "strengthen as 1 with [1,2]"},
      {R"({"jsonrpc":"2.0","id":1,"method":"activate","params":"garbage"})",
       R"(activate as 1 with "garbage")"},
      {R"({"jsonrpc":"2.0","id":1,"method":"activate","params":null})", "activate as 1 with null"},
      {R"({"jsonrpc":"2.0","id":1,"method":"activate"})", "activate as 1"},
      // No record belongs to it.
      {R"({"jsonrpc":"2.0","id":1,"method":"status","params":{"x":1}})", "status as 1"}};
  for (const Row& row : rows) EXPECT_EQ(read(row.line), row.meaning);
}

TEST(JSONRPC, echoesIdsAsTheyWereWritten) {
  for (const std::string_view id :
       {"0", "-1", "1.50", "1e3", "12345678901234567890", "\"\"", R"("a\u0062\/\"")", "null"}) {
    const std::string line =
        R"({"jsonrpc":"2.0","id":)" + std::string(id) + R"(,"method":"status"})";
    EXPECT_EQ(read(line), "status as " + std::string(id));
  }
}

TEST(JSONRPC, takesNothingElseForAnId) {
  for (const std::string& id : {std::string("true"), std::string("{}"), std::string("[1]"),
                                "\"" + std::string(idBytesMax - 1, 'x') + "\""}) {
    const std::string line = R"({"jsonrpc":"2.0","id":)" + id + R"(,"method":"status"})";
    EXPECT_EQ(read(line), "-32600 for null");
  }
  const std::string longest = "\"" + std::string(idBytesMax - 2, 'x') + "\"";
  EXPECT_EQ(read(R"({"jsonrpc":"2.0","id":)" + longest + R"(,"method":"status"})"),
            "status as " + longest);
}

TEST(JSONRPC, answersWhatIsNoJSONAsAParseError) {
  for (const std::string_view line :
       {"", " ", "hello", "{", R"({"jsonrpc":"2.0","id":1,"method":"status")",
        R"({"jsonrpc":"2.0","id":1,"method":"status"} x)",
        R"({"jsonrpc":"2.0","id":1,"method":"status"}{})",
        "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"\xff\"}", "[1,", "[{\"a\":1},{]"}) {
    EXPECT_EQ(read(line), "-32700 for null") << line;
  }
}

TEST(JSONRPC, answersWhatIsNoRequestAsInvalid) {
  const Row rows[]{{"1", "-32600 for null"},
                   {"null", "-32600 for null"},
                   {"\"status\"", "-32600 for null"},
                   {"{}", "-32600 for null"},
                   {R"({"foo":"boo"})", "-32600 for null"},
                   {R"({"jsonrpc":"2.0","method":1,"params":"bar"})", "-32600 for null"},
                   {R"({"jsonrpc":"2.0","id":7})", "-32600 for 7"},
                   {R"({"jsonrpc":"2.0","id":7,"method":null})", "-32600 for 7"},
                   {R"({"jsonrpc":"2.0","id":7,"result":{}})", "-32600 for 7"},
                   {R"({"id":7,"method":"status"})", "-32600 for 7"},
                   {R"({"jsonrpc":"1.0","id":7,"method":"status"})", "-32600 for 7"},
                   {R"({"jsonrpc":2.0,"id":7,"method":"status"})", "-32600 for 7"},
                   {R"({"jsonrpc":"2.0 ","id":"x","method":"status"})", R"(-32600 for "x")"}};
  for (const Row& row : rows) EXPECT_EQ(read(row.line), row.meaning) << row.line;
}

TEST(JSONRPC, knowsNoOtherMethod) {
  for (const std::string_view method :
       {"Status", "stat", "", "daemonStatusChanged", "rpc.discover", "status\\u0000"}) {
    const std::string line = R"({"jsonrpc":"2.0","id":7,"method":")" + std::string(method) + "\"}";
    EXPECT_EQ(read(line), "-32601 for 7") << method;
  }
  EXPECT_EQ(read(R"({"jsonrpc":"2.0","id":7,"method":")" + std::string(500, 'x') + "\"}"),
            "-32601 for 7");
}

TEST(JSONRPC, answersNoNotification) {
  EXPECT_EQ(read(R"({"jsonrpc":"2.0","method":"acknowledgeExpiry"})"),
            "acknowledgeExpiry as notification");
  EXPECT_EQ(read(R"({"jsonrpc":"2.0","method":"unknown"})"), "nothing");
  // A null id is an id.
  EXPECT_EQ(read(R"({"jsonrpc":"2.0","id":null,"method":"status"})"), "status as null");
}

TEST(JSONRPC, readsNamesWhateverTheirEscapes) {
  EXPECT_EQ(read(R"({"\u006asonrpc":"2\u002e0","i\u0064":1,"meth\u006fd":"st\u0061tus"})"),
            "status as 1");
}

TEST(JSONRPC, takesTheFirstOfDuplicateMembersAndIgnoresUnknownOnes) {
  EXPECT_EQ(read(R"({"jsonrpc":"2.0","id":1,"id":2,"method":"status","method":"extend","x":[{}]})"),
            "status as 1");
}

TEST(JSONRPC, readsABatchInOrder) {
  EXPECT_EQ(read(R"([{"jsonrpc":"2.0","id":1,"method":"status"},)"
                 R"({"jsonrpc":"2.0","method":"status"},1,)"
                 R"({"jsonrpc":"2.0","id":"x","method":"no"},)"
                 R"({"jsonrpc":"2.0","id":2,"method":"extend","params":{}}])"),
            "batch: status as 1; status as notification; -32600 for null; -32601 for \"x\"; "
            "extend as 2 with {}");
  EXPECT_EQ(read("[1,2,3]"), "batch: -32600 for null; -32600 for null; -32600 for null");
  EXPECT_EQ(read("[[1]]"), "batch: -32600 for null");
}

TEST(JSONRPC, refusesAnEmptyBatchAsOneInvalidRequest) { EXPECT_EQ(read("[]"), "-32600 for null"); }

TEST(JSONRPC, actsOnNoPartOfALineThatIsCutOff) {
  EXPECT_EQ(read(R"([{"jsonrpc":"2.0","id":1,"method":"status"},{"jsonrpc")"), "-32700 for null");
}

TEST(JSONRPC, namesTheLimitThatALineIsOver) {
  std::string many = "[1";
  for (int count = 0; count < 2'000; ++count) many += ",1";
  EXPECT_EQ(read(R"({"x":)" + many + "]}"), "too many values");
  EXPECT_EQ(read("[1,2,3,4,5,6,7,8]").starts_with("batch"), true);
  EXPECT_EQ(read("[1,2,3,4,5,6,7,8,9]"), "too many requests");
}

// ---- writing

ipc::SharedBytes bytes(std::string text) {
  return std::make_shared<const std::string>(std::move(text));
}

TEST(JSONRPC, writesItsMessages) {
  EXPECT_EQ(resultText("1", bytes("{}")).string(), R"({"jsonrpc":"2.0","id":1,"result":{}})");
  EXPECT_EQ(errorText("\"x\"", StandardError::parseError).string(),
            R"({"jsonrpc":"2.0","id":"x","error":{"code":-32700,"message":"Parse error"}})");
  EXPECT_EQ(errorText("null", StandardError::invalidRequest).string(),
            R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"Invalid Request"}})");
  EXPECT_EQ(errorText("7", StandardError::methodNotFound).string(),
            R"({"jsonrpc":"2.0","id":7,"error":{"code":-32601,"message":"Method not found"}})");
  const ipc::DaemonError error = ipc::DaemonError::malformedRequest{"ScopeAddition"};
  EXPECT_EQ(errorText("7", error.platformError()).string(),
            R"({"jsonrpc":"2.0","id":7,"error":{"code":1,)"
            R"("message":"The daemon could not decode the request: ScopeAddition",)"
            R"("data":{"malformedRequest":{"detail":"ScopeAddition"}}}})");
  EXPECT_EQ(pushText(bytes("{}")).string(),
            R"({"jsonrpc":"2.0","method":"daemonStatusChanged","params":{}})");
  EXPECT_EQ(callText(3, DaemonOperation::status, nullptr).string(),
            R"({"jsonrpc":"2.0","id":3,"method":"status"})");
  EXPECT_EQ(callText(4, DaemonOperation::extend, bytes("{\"newEndTime\":{\"date\":1}}")).string(),
            R"({"jsonrpc":"2.0","id":4,"method":"extend","params":{"newEndTime":{"date":1}}})");
}

TEST(JSONRPC, leavesOutThePayloadThatThereIsNot) {
  const ipc::PlatformError error{
      .domain = "x", .code = -5, .description = "a \"b\"/\n", .payload = std::nullopt};
  EXPECT_EQ(errorText("1", error).string(),
            R"({"jsonrpc":"2.0","id":1,"error":{"code":-5,"message":"a \"b\"\/\n"}})");
}

TEST(JSONRPC, sharesTheBytesThatItWasGiven) {
  const auto status = bytes("{}");
  EXPECT_EQ(resultText("1", status).body, status);
  EXPECT_EQ(pushText(status).body, status);
}

// ---- what the client reads

Message message(std::string_view line) {
  auto read = readMessage(line, 1'000);
  EXPECT_TRUE(read) << line;
  return read ? std::move(*read) : Message(Unknown{});
}

TEST(JSONRPC, readsItsOwnAnswers) {
  const std::string answer = resultText("12", bytes("{\"a\":1}")).string();
  const auto result = std::get<Response>(message(answer));
  EXPECT_EQ(result.id, 12U);
  EXPECT_EQ(result.result, "{\"a\":1}");
  EXPECT_EQ(result.error, std::nullopt);

  const ipc::DaemonError refusal = ipc::DaemonError::noActiveCommitment{};
  const std::string line = errorText("13", refusal.platformError()).string();
  const auto error = std::get<Response>(message(line));
  EXPECT_EQ(error.id, 13U);
  ASSERT_TRUE(error.error);
  EXPECT_EQ(*error.error, refusal.platformError());

  const std::string pushed = pushText(bytes("{\"b\":2}")).string();
  EXPECT_EQ(std::get<Push>(message(pushed)).status, "{\"b\":2}");
}

TEST(JSONRPC, readsAnErrorWithoutOurDataAsAnInternalFailureWithItsMessage) {
  for (const std::string_view error :
       {R"({"code":-32601,"message":"Words"})", R"({"code":1,"message":"Words"})",
        R"({"code":1,"message":"Words","data":{"unknown":{}}})",
        R"({"code":1,"message":"Words","data":7})",
        R"({"code":-32000,"message":"Words","data":{"noActiveCommitment":{}}})"}) {
    const std::string line = R"({"jsonrpc":"2.0","id":1,"error":)" + std::string(error) + "}";
    const auto response = std::get<Response>(message(line));
    ASSERT_TRUE(response.error);
    EXPECT_EQ(ipc::DaemonError::from(*response.error),
              ipc::DaemonError(ipc::DaemonError::internalFailure{"Words"}));
  }
}

TEST(JSONRPC, tellsARefusedLineFromAnAnswer) {
  const auto refused =
      std::get<RefusedLine>(message(errorText("null", StandardError::parseError).string()));
  EXPECT_EQ(refused.error.description, "Parse error");
}

TEST(JSONRPC, findsNothingInAnAnswerThatIsEmpty) {
  const auto response = std::get<Response>(message(R"({"jsonrpc":"2.0","id":1})"));
  EXPECT_EQ(response.result, std::nullopt);
  EXPECT_EQ(response.error, std::nullopt);
}

TEST(JSONRPC, ignoresWhatItDoesNotKnow) {
  for (const std::string_view line :
       {R"({"jsonrpc":"2.0","method":"daemonIsTired","params":{}})",
        R"({"jsonrpc":"2.0","method":"daemonStatusChanged"})",
        R"({"jsonrpc":"2.0","id":"x","result":{}})", R"({"jsonrpc":"2.0","id":-1,"result":{}})"}) {
    EXPECT_TRUE(std::holds_alternative<Unknown>(message(line))) << line;
  }
}

TEST(JSONRPC, cannotReadWhatIsNoMessage) {
  for (const std::string_view line :
       {"", "HTTP/1.1 400 Bad Request", "[]", "1", "{}", R"({"jsonrpc":"2.0"})",
        R"({"jsonrpc":"1.0","id":1,"result":{}})", R"({"id":1,"result":{}})",
        R"({"jsonrpc":"2.0","id":1,"error":"x"})", R"({"jsonrpc":"2.0","id":1,"error":{"code":1}})",
        R"({"jsonrpc":"2.0","id":1,"error":{"code":1.5,"message":"x"}})",
        R"({"jsonrpc":"2.0","id":1,"result":{}} x)"}) {
    EXPECT_FALSE(readMessage(line, 1'000)) << line;
  }
}

}  // namespace
}  // namespace stillow::platform::rpc
