#include "PlatformLinuxIPC/ListeningSocket.hpp"

#include <cerrno>
#include <cstring>
#include <optional>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "PlatformLinuxPeer/LogText.hpp"

namespace stillow::platform {

namespace {

constexpr mode_t directoryPermissions = 0755;
constexpr mode_t socketPermissions = 0666;

using Result = std::expected<void, std::string>;

std::unexpected<std::string> failure(std::string_view step, const std::filesystem::path& path,
                                     int errorNumber) {
  return std::unexpected(std::string(step) + " " + path.string() +
                         " failed: " + systemErrorText(errorNumber));
}

std::optional<sockaddr_un> addressOf(const std::filesystem::path& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string& text = path.native();
  if (text.size() >= sizeof address.sun_path) return std::nullopt;
  std::memcpy(address.sun_path, text.data(), text.size());
  return address;
}

core::FileDescriptor newSocket() {
  return core::FileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

/// sockaddr is the C library's own way of not having overloads.
const sockaddr* generic(const sockaddr_un& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

Result prepareDirectory(const std::filesystem::path& directory) {
  if (::mkdir(directory.c_str(), directoryPermissions) != 0 && errno != EEXIST) {
    return failure("Making", directory, errno);
  }
  // Clients require that nobody but root can put another socket there; the umask and an earlier
  // version may have left anything.
  if (::chmod(directory.c_str(), directoryPermissions) != 0) {
    return failure("Setting the permissions of", directory, errno);
  }
  return {};
}

/// Nothing, or a socket that a daemon left behind.
Result requireReplaceable(const std::filesystem::path& path, const sockaddr_un& address) {
  struct stat status{};
  if (::lstat(path.c_str(), &status) != 0) {
    if (errno == ENOENT) return {};
    return failure("Looking at", path, errno);
  }
  if (!S_ISSOCK(status.st_mode)) {
    return std::unexpected(path.string() + " is there and is no socket.");
  }
  const core::FileDescriptor probe = newSocket();
  if (!probe) return failure("Making a socket for", path, errno);
  if (::connect(probe.get(), generic(address), sizeof address) == 0 || errno == EAGAIN) {
    return std::unexpected("Somebody listens at " + path.string() + " already.");
  }
  return {};
}

}  // namespace

std::expected<core::FileDescriptor, std::string> listenAt(const std::filesystem::path& path,
                                                          int backlog) {
  if (auto ready = prepareDirectory(path.parent_path()); !ready) {
    return std::unexpected(std::move(ready.error()));
  }
  const std::filesystem::path newPath = path.native() + ".new";
  const auto address = addressOf(path);
  const auto newAddress = addressOf(newPath);
  if (!address || !newAddress) return std::unexpected(path.string() + " is too long for a socket.");
  if (auto replaceable = requireReplaceable(path, *address); !replaceable) {
    return std::unexpected(std::move(replaceable.error()));
  }
  if (::unlink(newPath.c_str()) != 0 && errno != ENOENT) return failure("Removing", newPath, errno);

  core::FileDescriptor listening = newSocket();
  if (!listening) return failure("Making a socket for", path, errno);
  if (::bind(listening.get(), generic(*newAddress), sizeof *newAddress) != 0) {
    return failure("Making the socket", newPath, errno);
  }
  if (::chmod(newPath.c_str(), socketPermissions) != 0) {
    return failure("Setting the permissions of", newPath, errno);
  }
  if (::listen(listening.get(), backlog) != 0) return failure("Listening at", newPath, errno);
  if (::rename(newPath.c_str(), path.c_str()) != 0) return failure("Renaming to", path, errno);
  return listening;
}

}  // namespace stillow::platform
