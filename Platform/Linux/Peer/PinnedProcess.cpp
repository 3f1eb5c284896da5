#include "PlatformLinuxPeer/PinnedProcess.hpp"

#include <array>
#include <cerrno>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include "PlatformLinuxPeer/LogText.hpp"

namespace stillow::platform {
namespace {

/// Newer than the C library's headers.
constexpr int socketOptionPeerPidfd = 77;

std::string processText(pid_t pid) { return "Process " + std::to_string(pid); }

std::unexpected<std::string> processEnded(pid_t pid) {
  return std::unexpected(processText(pid) + " has ended.");
}

/// Why a link of /proc/PID could not be followed.
std::unexpected<std::string> noExecutable(const PinnedProcess& process, int errorNumber) {
  const bool isGone = errorNumber == ENOENT || errorNumber == ESRCH;
  if (isGone && !process.isRunning()) return processEnded(process.pid());
  return std::unexpected("The executable of process " + std::to_string(process.pid()) +
                         " cannot be opened: " + systemErrorText(errorNumber) + ".");
}

}  // namespace

std::expected<ipc::PeerProcess, std::string> peerCredentials(int connectedSocket) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (::getsockopt(connectedSocket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
    return std::unexpected("The kernel does not name the peer: " + systemErrorText(errno) + ".");
  }
  // The kernel answers for a socket that has no peer, too.
  if (length != sizeof credentials || credentials.uid == static_cast<uid_t>(-1)) {
    return std::unexpected("The socket has no peer.");
  }
  return ipc::PeerProcess{credentials.pid, credentials.uid};
}

std::expected<PinnedProcess, std::string> PinnedProcess::connectedPeer(int connectedSocket,
                                                                       PeerNaming naming) {
  const auto credentials = peerCredentials(connectedSocket);
  if (!credentials) return std::unexpected(credentials.error());
  const auto pid = static_cast<pid_t>(credentials->pid);
  if (pid <= 0) return std::unexpected("The peer lives in another process namespace.");
  if (naming == PeerNaming::byDescriptor) {
    int pidfd = -1;
    socklen_t length = sizeof pidfd;
    if (::getsockopt(connectedSocket, SOL_SOCKET, socketOptionPeerPidfd, &pidfd, &length) == 0) {
      return pin(pid, core::FileDescriptor(pidfd));
    }
    if (errno == EINVAL || errno == ESRCH) return processEnded(pid);
    if (errno != ENOPROTOOPT) {
      return std::unexpected("The kernel gives no descriptor for " + processText(pid) + ": " +
                             systemErrorText(errno) + ".");
    }
  }
  return withID(pid);
}

std::expected<PinnedProcess, std::string> PinnedProcess::withID(pid_t pid) {
  const auto pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0U));
  if (pidfd >= 0) return pin(pid, core::FileDescriptor(pidfd));
  if (errno == ESRCH) return processEnded(pid);
  return std::unexpected(processText(pid) + " cannot be held: " + systemErrorText(errno) + ".");
}

std::expected<PinnedProcess, std::string> PinnedProcess::pin(pid_t pid,
                                                             core::FileDescriptor pidfd) {
  const auto path = "/proc/" + std::to_string(pid);
  core::FileDescriptor directory(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!directory && errno == ENOENT) return processEnded(pid);
  if (!directory) {
    return std::unexpected(processText(pid) + " cannot be looked at: " + systemErrorText(errno) +
                           ".");
  }
  PinnedProcess process(pid, std::move(pidfd), std::move(directory));
  // An id is not given out again while its process runs. So if the process runs now, it ran when
  // the directory of its id was opened, and that directory is its own.
  if (!process.isRunning()) return processEnded(pid);
  return process;
}

bool PinnedProcess::isRunning() const {
  pollfd poll{pidfd_.get(), POLLIN, 0};
  // With no time-out and one valid descriptor it can only fail for want of kernel memory; then
  // nothing is known of the process, which is no reason to trust it.
  return ::poll(&poll, 1, 0) == 0;
}

std::expected<core::FileDescriptor, std::string> PinnedProcess::openExecutable() const {
  // The link leads to the file, not to a name: no other file can be put in its way. Without
  // O_NONBLOCK the file's owner could hold us up with a lease on it.
  constexpr int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  core::FileDescriptor executable(::openat(procDirectory_.get(), "exe", flags));
  if (!executable) return noExecutable(*this, errno);
  return executable;
}

std::expected<std::string, std::string> PinnedProcess::executableName() const {
  std::array<char, 4096> name{};
  const auto length = ::readlinkat(procDirectory_.get(), "exe", name.data(), name.size());
  if (length < 0) return noExecutable(*this, errno);
  if (static_cast<std::size_t>(length) == name.size()) return noExecutable(*this, ENAMETOOLONG);
  return std::string(name.data(), static_cast<std::size_t>(length));
}

}  // namespace stillow::platform
