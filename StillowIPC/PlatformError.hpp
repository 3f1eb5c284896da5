#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace stillow::ipc {

/// An error as it travels: what the platform's own error object and the error of a JSON-RPC
/// response have in common. A `DaemonError` is inside only if `domain` and `payload` say so; see
/// `DaemonError::from`.
struct PlatformError {
  /// Of errors that carry a `DaemonError`.
  static constexpr std::string_view daemonErrorDomain = "com.larchmoor.Stillow.DaemonError";
  /// Under which such an error keeps its encoded `DaemonError` among its details.
  static constexpr std::string_view daemonErrorPayloadKey = "StillowDaemonErrorPayload";
  /// The code of every such error, whatever its case.
  static constexpr std::int64_t daemonErrorCode = 1;

  /// Of the platform's general errors, a lost connection among them.
  static constexpr std::string_view cocoaDomain = "NSCocoaErrorDomain";
  /// Of failures of the connection itself: it could not be opened, or it ended before the answer.
  static constexpr std::string_view connectionDomain = "NSXPCConnectionErrorDomain";
  /// Of a JSON-RPC error that carries no `DaemonError`.
  static constexpr std::string_view rpcDomain = "com.larchmoor.Stillow.JSONRPC";

  std::string domain;
  std::int64_t code = 0;
  std::string description;             ///< one sentence for a person
  std::optional<std::string> payload;  ///< an encoded `DaemonError`; absent if there are no bytes

  friend bool operator==(const PlatformError&, const PlatformError&) = default;
};

}  // namespace stillow::ipc
