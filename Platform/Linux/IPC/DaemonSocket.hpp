#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "StillowIPC/DaemonError.hpp"
#include "StillowIPC/PlatformError.hpp"

namespace stillow::platform {

/// Where the daemon that is known by `serviceName` listens: "NAME.sock" in the runtime directory,
/// which is fixed when the product is built.
[[nodiscard]] std::filesystem::path daemonSocketPath(std::string_view serviceName);

/// Why a client has no connection. Each has a next step of its own for the person who reads it.
enum class DaemonConnectionFailure : std::uint8_t {
  socketMissing,      ///< there is no socket: the daemon was never started here
  connectionRefused,  ///< there is one, but nobody listens: the daemon is not running
  notPermitted,       ///< the system does not let this user connect
  timedOut,           ///< the daemon accepts nobody at the moment
  notTrusted,         ///< who listens there is not the daemon
  closedUnanswered,   ///< the daemon ended the connection: perhaps it refused this program
  answerUnreadable,   ///< what came was no JSON-RPC
  other,
};

/// The error of a connection to `socketPath`. `reason` completes it for the cases that need more
/// words.
[[nodiscard]] ipc::PlatformError connectionError(DaemonConnectionFailure failure,
                                                 const std::filesystem::path& socketPath,
                                                 std::string_view reason = {});

/// Which failure a client's `daemonUnavailable` tells of; none for any other error.
[[nodiscard]] std::optional<DaemonConnectionFailure> connectionFailure(
    const ipc::DaemonError& error);

}  // namespace stillow::platform
