#include "PlatformLinuxIPC/JSONRPC.hpp"

#include <array>
#include <utility>

#include "PlatformLinuxIPC/JSONScanner.hpp"
#include "StillowCore/Coding.hpp"
#include "StillowCore/JSONText.hpp"

namespace stillow::platform::rpc {

namespace {

using Kind = JSONScanner::Kind;
using Value = JSONScanner::Value;

constexpr std::string_view nullID = "null";

/// The characters of a JSON string that was scanned.
std::string characters(const Value& string) {
  auto decoded = core::decode<std::string>(string.text);
  return decoded ? std::move(*decoded) : std::string();
}

/// The members that matter of an object; of duplicates the first, as everywhere.
template <std::size_t count>
struct Members {
  std::array<std::string_view, count> names;
  std::array<std::optional<Value>, count> values{};

  bool read(JSONScanner& scanner) {
    if (!scanner.enter('{')) return false;
    while (scanner.next('}')) {
      const auto key = scanner.key();
      const auto value = key ? scanner.value() : std::nullopt;
      if (!value) return false;
      take(*key, *value);
    }
    return !scanner.failure();
  }

  [[nodiscard]] const std::optional<Value>& operator[](std::string_view name) const {
    std::size_t index = 0;
    while (names[index] != name) ++index;
    return values[index];
  }

 private:
  void take(const Value& key, const Value& value) {
    // Hardly any key is escaped or longer than the ones we know.
    constexpr std::size_t longestEscapedName = 6 * 32;
    std::string unescaped;
    std::string_view name = key.text.substr(1, key.text.size() - 2);
    if (name.size() > longestEscapedName) return;
    if (name.find('\\') != std::string_view::npos) name = unescaped = characters(key);
    for (std::size_t index = 0; index < count; ++index) {
      if (names[index] == name && !values[index]) values[index] = value;
    }
  }
};

bool isString(const std::optional<Value>& value, std::string_view expected) {
  return value && value->kind == Kind::string && value->text.size() < 6 * (expected.size() + 2) &&
         characters(*value) == expected;
}

std::optional<ipc::DaemonOperation> operationNamed(std::string_view name) {
  for (const auto& entry : core::Coding<ipc::DaemonOperation>::names) {
    if (entry.name == name) return entry.value;
  }
  return std::nullopt;
}

bool takesRequest(ipc::DaemonOperation operation) noexcept {
  return operation == ipc::DaemonOperation::activate ||
         operation == ipc::DaemonOperation::strengthen || operation == ipc::DaemonOperation::extend;
}

/// None where the scanner failed; that decides over the whole line.
std::optional<Request> readRequest(JSONScanner& scanner) {
  if (scanner.peek() != Kind::object) {
    if (!scanner.value()) return std::nullopt;
    return Fault{std::string(nullID), StandardError::invalidRequest};
  }
  Members<4> members{{"jsonrpc", "id", "method", "params"}};
  if (!members.read(scanner)) return std::nullopt;

  const auto& id = members["id"];
  const bool isNotification = !id;
  const bool idIsUsable =
      id && id->text.size() <= idBytesMax &&
      (id->kind == Kind::string || id->kind == Kind::number || id->kind == Kind::null);
  const std::string echoed(idIsUsable ? id->text : nullID);
  const auto& method = members["method"];
  if (!isString(members["jsonrpc"], "2.0") || !method || method->kind != Kind::string ||
      !(isNotification || idIsUsable)) {
    return Fault{echoed, StandardError::invalidRequest};
  }
  const auto operation =
      method->text.size() <= idBytesMax ? operationNamed(characters(*method)) : std::nullopt;
  if (!operation) {
    if (isNotification) return Ignored{};
    return Fault{echoed, StandardError::methodNotFound};
  }
  Call call{.id = isNotification ? std::string() : echoed, .operation = *operation, .params = {}};
  // Whatever stands there is the record's own matter: one that does not decode is answered in the
  // daemon's words, and only where the daemon would have looked at it.
  if (const auto& params = members["params"]; params && takesRequest(*operation)) {
    call.params = params->text;
  }
  return call;
}

RequestLine faultLine(StandardError error) { return {false, {Fault{std::string(nullID), error}}}; }

std::optional<ipc::PlatformError> readError(const Value& value, std::size_t valuesMax) {
  JSONScanner scanner(value.text, valuesMax);
  Members<3> members{{"code", "message", "data"}};
  if (value.kind != Kind::object || !members.read(scanner)) return std::nullopt;
  const auto& code = members["code"];
  const auto& words = members["message"];
  if (!code || code->kind != Kind::number || !words || words->kind != Kind::string) {
    return std::nullopt;
  }
  const auto number = core::decode<std::int64_t>(code->text);
  if (!number) return std::nullopt;
  ipc::PlatformError error{.domain = std::string(ipc::PlatformError::rpcDomain),
                           .code = *number,
                           .description = characters(*words),
                           .payload = std::nullopt};
  // The code stands for the domain, which does not travel.
  if (*number == ipc::PlatformError::daemonErrorCode) {
    error.domain = ipc::PlatformError::daemonErrorDomain;
    if (const auto& data = members["data"]) error.payload = std::string(data->text);
  }
  return error;
}

}  // namespace

std::string_view message(StandardError error) noexcept {
  switch (error) {
    case StandardError::parseError:
      return "Parse error";
    case StandardError::invalidRequest:
      return "Invalid Request";
    case StandardError::methodNotFound:
      return "Method not found";
  }
  return "Internal error";
}

std::expected<RequestLine, LineLimit> readRequests(std::string_view line, LineLimits limits) {
  JSONScanner scanner(line, limits.valuesMax);
  const auto failed = [&]() -> std::expected<RequestLine, LineLimit> {
    if (scanner.failure() == JSONScanner::Failure::tooManyValues) {
      return std::unexpected(LineLimit::values);
    }
    return faultLine(StandardError::parseError);
  };

  RequestLine result;
  result.isBatch = scanner.peek() == Kind::array;
  if (result.isBatch) {
    if (!scanner.enter('[')) return failed();
    while (scanner.next(']')) {
      auto request = readRequest(scanner);
      if (!request) return failed();
      if (result.requests.size() == limits.requestsMax) return std::unexpected(LineLimit::requests);
      result.requests.push_back(std::move(*request));
    }
  } else if (auto request = readRequest(scanner)) {
    result.requests.push_back(std::move(*request));
  }
  // Only now is it known to be JSON; until then no part of it may be acted on.
  if (!scanner.atEnd()) return failed();
  if (result.requests.empty()) return faultLine(StandardError::invalidRequest);
  return result;
}

std::optional<Message> readMessage(std::string_view line, std::size_t valuesMax) {
  JSONScanner scanner(line, valuesMax);
  Members<6> members{{"jsonrpc", "id", "result", "error", "method", "params"}};
  if (scanner.peek() != Kind::object || !members.read(scanner) || !scanner.atEnd()) {
    return std::nullopt;
  }
  if (!isString(members["jsonrpc"], "2.0")) return std::nullopt;
  if (const auto& method = members["method"]) {
    const auto& params = members["params"];
    if (!isString(method, pushMethod) || !params) return Unknown{};
    return Push{params->text};
  }
  const auto& id = members["id"];
  if (!id) return std::nullopt;
  std::optional<ipc::PlatformError> error;
  if (const auto& value = members["error"]) {
    error = readError(*value, valuesMax);
    if (!error) return std::nullopt;
    if (id->kind == Kind::null) return RefusedLine{std::move(*error)};
  }
  const auto number = id->kind == Kind::number ? core::decode<std::int64_t>(id->text)
                                               : std::unexpected(core::coding::corrupted({}));
  if (!number || *number < 0) return Unknown{};
  Response response{
      .id = static_cast<std::uint64_t>(*number), .result = {}, .error = std::move(error)};
  if (const auto& result = members["result"]) response.result = result->text;
  return response;
}

// ---- writing

std::string Text::string() const {
  std::string all = head;
  if (body) all += *body;
  return all += tail;
}

Text resultText(std::string_view id, ipc::SharedBytes result) {
  Text text{.head = R"({"jsonrpc":"2.0","id":)", .body = std::move(result), .tail = "}"};
  text.head.append(id).append(R"(,"result":)");
  return text;
}

namespace {

Text errorText(std::string_view id, std::int64_t code, std::string_view words,
               const std::optional<std::string>& data) {
  Text text{.head = R"({"jsonrpc":"2.0","id":)", .body = nullptr, .tail = "}}"};
  text.head.append(id).append(R"(,"error":{"code":)");
  core::json::appendInteger(text.head, code);
  text.head += R"(,"message":)";
  core::json::appendString(text.head, words);
  if (data) text.head.append(R"(,"data":)").append(*data);
  return text;
}

}  // namespace

Text errorText(std::string_view id, const ipc::PlatformError& error) {
  return errorText(id, error.code, error.description, error.payload);
}

Text errorText(std::string_view id, StandardError error) {
  return errorText(id, static_cast<std::int64_t>(error), message(error), std::nullopt);
}

Text replyText(std::string_view id, ipc::DaemonReply reply) {
  if (reply.error) return errorText(id, *reply.error);
  if (reply.bytes) return resultText(id, std::move(reply.bytes));
  return errorText(id, 0, "The call was answered with nothing.", std::nullopt);
}

Text pushText(ipc::SharedBytes status) {
  return {.head = R"({"jsonrpc":"2.0","method":"daemonStatusChanged","params":)",
          .body = std::move(status),
          .tail = "}"};
}

Text callText(std::uint64_t id, ipc::DaemonOperation operation, ipc::SharedBytes request) {
  Text text{.head = R"({"jsonrpc":"2.0","id":)", .body = std::move(request), .tail = "}"};
  text.head.append(std::to_string(id)).append(R"(,"method":)");
  core::json::appendString(text.head, core::rawValue(operation));
  if (text.body) text.head += R"(,"params":)";
  return text;
}

}  // namespace stillow::platform::rpc
