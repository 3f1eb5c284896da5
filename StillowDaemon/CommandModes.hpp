#pragma once

#include <memory>
#include <optional>
#include <ostream>
#include <span>
#include <string_view>

#include "StillowConcurrency/Task.hpp"
#include "StillowIPC/CommitmentAuthorityClient.hpp"
#include "StillowIPC/DaemonCallDeadlines.hpp"

/// The one-shot modes of the daemon's executable; uninstalling has a header of its own. Each asks
/// the running daemon as an ordinary client, prints, and answers with the status to exit with.
namespace stillow::daemon {

enum class CommandMode : unsigned char { reportStatus, uninstall, validate };

/// The mode that the command line asks for; none: the process becomes the daemon. An argument
/// counts only as a whole and wherever it stands; of several the first in the order above decides.
[[nodiscard]] std::optional<CommandMode> commandMode(std::span<const std::string_view> arguments);

/// How long a mode waits for the daemon. Uninstalling has the checkpoints to turn to.
[[nodiscard]] ipc::DaemonCallDeadlines deadlines(CommandMode mode) noexcept;

/// Prints the status as compact JSON. 0; 1 if the daemon could not be reached.
[[nodiscard]] concurrency::Task<int> reportStatus(
    std::shared_ptr<ipc::CommitmentAuthorityClient> client, std::ostream& out, std::ostream& err);

/// Runs a validation and prints the readiness report as pretty JSON with sorted keys. 0 if it
/// passed, 2 if it failed or there is none, 1 if the daemon could not be reached.
[[nodiscard]] concurrency::Task<int> validate(
    std::shared_ptr<ipc::CommitmentAuthorityClient> client, std::ostream& out, std::ostream& err);

}  // namespace stillow::daemon
