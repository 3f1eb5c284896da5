#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "StillowIPC/DaemonConnection.hpp"
#include "StillowIPC/DaemonOperation.hpp"
#include "StillowIPC/PlatformError.hpp"

/// JSON-RPC 2.0, one JSON text per line. docs/protocol.md has the rules and the reasons.
namespace stillow::platform::rpc {

/// The standard's own answers to what is no call of ours.
enum class StandardError : std::int32_t {
  parseError = -32700,
  invalidRequest = -32600,
  methodNotFound = -32601,
};
[[nodiscard]] std::string_view message(StandardError error) noexcept;

/// An id is echoed with every answer, so it is bounded apart from the line. Longer ones are no ids.
inline constexpr std::size_t idBytesMax = 256;

/// Name of the push, and of the member that every message begins with.
inline constexpr std::string_view pushMethod = "daemonStatusChanged";

// ---- what the daemon reads

/// A call of one of the daemon's operations.
struct Call {
  std::string id;  ///< as it was written, to be echoed; empty: a notification, which gets no answer
  ipc::DaemonOperation operation = ipc::DaemonOperation::status;
  /// The request record as it stands in the line; none if there is none or the operation takes
  /// none.
  std::optional<std::string_view> params;
};
/// What gets one of the standard's answers.
struct Fault {
  std::string id;  ///< "null" if it could not be told
  StandardError error = StandardError::invalidRequest;
};
/// A notification that asks for nothing we know: the standard allows no answer.
struct Ignored {};
using Request = std::variant<Call, Fault, Ignored>;

struct RequestLine {
  bool isBatch = false;
  std::vector<Request> requests;  ///< exactly one unless it is a batch
};

struct LineLimits {
  std::size_t valuesMax;    ///< keys and values of a line, at any depth
  std::size_t requestsMax;  ///< of a batch
};
/// Which limit a line is over. Whoever sends such a line loses the connection.
enum class LineLimit : std::uint8_t { values, requests };

/// `line` without its line feed; what is read out of it points into it.
[[nodiscard]] std::expected<RequestLine, LineLimit> readRequests(std::string_view line,
                                                                 LineLimits limits);

// ---- what the client reads

struct Response {
  std::uint64_t id = 0;
  std::optional<std::string_view> result;  ///< as it stands in the line
  std::optional<ipc::PlatformError> error;
};
/// The daemon found no call of ours in a line.
struct RefusedLine {
  ipc::PlatformError error;
};
struct Push {
  std::string_view status;
};
/// Well-formed, but nothing that we asked for or know.
struct Unknown {};
using Message = std::variant<Response, RefusedLine, Push, Unknown>;

/// None: the line is no JSON-RPC.
[[nodiscard]] std::optional<Message> readMessage(std::string_view line, std::size_t valuesMax);

// ---- what both write

/// One message without its line feed: a head of its own, perhaps shared bytes, and a tail.
struct Text {
  std::string head;
  ipc::SharedBytes body;
  std::string tail;

  [[nodiscard]] std::string string() const;  ///< all of it, copied together
};

/// `id` as it was written.
[[nodiscard]] Text resultText(std::string_view id, ipc::SharedBytes result);
[[nodiscard]] Text errorText(std::string_view id, const ipc::PlatformError& error);
[[nodiscard]] Text errorText(std::string_view id, StandardError error);
/// What `reply` says. An empty reply is an error of ours, and said to be one.
[[nodiscard]] Text replyText(std::string_view id, ipc::DaemonReply reply);
[[nodiscard]] Text pushText(ipc::SharedBytes status);
[[nodiscard]] Text callText(std::uint64_t id, ipc::DaemonOperation operation,
                            ipc::SharedBytes request);

}  // namespace stillow::platform::rpc
