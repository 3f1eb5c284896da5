#pragma once

#include <expected>
#include <string>

#include <sys/types.h>

#include "StillowCore/FileDescriptor.hpp"
#include "StillowIPC/PeerIdentifying.hpp"

namespace stillow::platform {

/// Who was at the other end of `connectedSocket` (a Unix-domain stream socket) when it connected,
/// or listened; as the kernel noted it then.
[[nodiscard]] std::expected<ipc::PeerProcess, std::string> peerCredentials(int connectedSocket);

/// A process held by descriptors, which a later process with the same id never answers to.
class PinnedProcess {
 public:
  /// How the process behind a socket is found.
  enum class PeerNaming {
    /// By the descriptor that the kernel gives for the very process that connected, where it can
    /// (Linux 6.5), else like `byCredentials`.
    byDescriptor,
    /// By the process id that it had when it connected. Somebody who can make that process end and
    /// have its id given out again before this call is taken for the process that has the id now.
    byCredentials,
  };

  /// The process that connected `connectedSocket`. Quick.
  [[nodiscard]] static std::expected<PinnedProcess, std::string> connectedPeer(
      int connectedSocket, PeerNaming naming = PeerNaming::byDescriptor);

  /// The process that has `pid` now.
  [[nodiscard]] static std::expected<PinnedProcess, std::string> withID(pid_t pid);

  [[nodiscard]] pid_t pid() const noexcept { return pid_; }

  /// A pidfd, lent: it turns readable when the process ends.
  [[nodiscard]] int pidfd() const noexcept { return pidfd_.get(); }

  [[nodiscard]] bool isRunning() const;

  /// The file that the process executes now, opened for reading: that file itself, whatever has
  /// become of its name.
  [[nodiscard]] std::expected<core::FileDescriptor, std::string> openExecutable() const;

  /// The name under which the kernel knows that file. No more than a hint: it may be gone, or lead
  /// elsewhere from here.
  [[nodiscard]] std::expected<std::string, std::string> executableName() const;

 private:
  PinnedProcess(pid_t pid, core::FileDescriptor pidfd, core::FileDescriptor procDirectory) noexcept
      : pid_(pid), pidfd_(std::move(pidfd)), procDirectory_(std::move(procDirectory)) {}
  static std::expected<PinnedProcess, std::string> pin(pid_t pid, core::FileDescriptor pidfd);

  pid_t pid_;
  core::FileDescriptor pidfd_;
  /// /proc/PID. Open, it belongs to the process, not to the number.
  core::FileDescriptor procDirectory_;
};

}  // namespace stillow::platform
