#pragma once

#include <expected>
#include <filesystem>
#include <string>

namespace stillow::platform {

/// What a client requires of the daemon. A user's program may not read the executable of a process
/// of root's, so it cannot ask for the daemon's signature; it asks instead for what only root can
/// have arranged: that who listens at `connectedSocket` is root, and that nobody but root can put
/// another socket at `socketPath`.
///
/// Every directory of the path, which has to be absolute and without links, belongs to root and can
/// be written by nobody else; those above the last may be writable for everybody if they are
/// sticky, as /tmp is. The error is one sentence, for the detail of `daemonUnavailable`.
[[nodiscard]] std::expected<void, std::string> requireRootDaemon(
    int connectedSocket, const std::filesystem::path& socketPath);

/// The part about the directories alone.
[[nodiscard]] std::expected<void, std::string> requireRootOnlyDirectory(
    const std::filesystem::path& socketPath);

}  // namespace stillow::platform
