#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "PlatformLinuxIPC/DaemonSocket.hpp"
#include "StillowIPC/DaemonError.hpp"
#include "StillowReach/OwnSignature.hpp"

/// Why the daemon could not be reached, and what to do about it.
namespace stillow::client {

enum class ReachCause : std::uint8_t {
  socketMissing,      ///< the daemon was not started since the system was
  connectionRefused,  ///< the daemon ran, and ended
  notPermitted,       ///< the system does not let this user connect
  ownSignature,       ///< the daemon closed the connection, because it does not know this program
  closedUnanswered,   ///< the daemon closed the connection for a reason of its own
  timedOut,           ///< the daemon did not accept, or did not answer, in time
  notTrusted,         ///< who listens there is not the daemon
  answerUnreadable,   ///< who listens there does not speak the daemon's protocol
  other,
};

struct ReachFinding {
  ReachCause cause;
  std::string sentence;  ///< what is wrong
  std::string nextStep;  ///< what to do, one or two sentences

  friend bool operator==(const ReachFinding&, const ReachFinding&) = default;
};

/// A call that failed.
struct ReachTarget {
  ipc::DaemonError error;
  std::filesystem::path socketPath;
};

/// Everything that the answer depends on.
struct ReachObservation {
  /// Of the connection; none: it was accepted and no answer came in time.
  std::optional<platform::DaemonConnectionFailure> failure;
  std::string detail = {};         ///< the connection's own words
  double waitedSeconds = 0;        ///< for an answer that did not come; 0: unknown
  OwnSignature signature = {};     ///< looked at only if the connection was closed
  bool hasServiceManager = false;  ///< systemd runs this system
  std::filesystem::path socketPath = {};
};

/// Finds out what `target` does not say itself; none if the daemon was reached, whatever it
/// answered. Blocks for about ten seconds at the most.
[[nodiscard]] std::optional<ReachObservation> observeReach(const ReachTarget& target);

[[nodiscard]] ReachFinding judgeReach(const ReachObservation& observation);

/// Both together: none if the daemon was reached. Connects nowhere, so nothing that has changed
/// since the call can make the answer wrong. Blocks like `observeReach`.
[[nodiscard]] std::optional<ReachFinding> diagnoseReach(const ReachTarget& target);

/// For a user whose program the daemon does not know.
inline constexpr std::string_view useMatchingProgramStep =
    "Run the stillow that was installed together with the daemon. If this is it, install Stillow "
    "again.";
/// The command with which a user starts the daemon, or reads its log.
[[nodiscard]] std::string startDaemonStep(bool hasServiceManager);
[[nodiscard]] std::string readDaemonLogStep(bool hasServiceManager);
/// Whether systemd runs this system.
[[nodiscard]] bool hasServiceManager();

}  // namespace stillow::client
