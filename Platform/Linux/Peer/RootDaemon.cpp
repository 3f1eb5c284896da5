#include "PlatformLinuxPeer/RootDaemon.hpp"

#include <cerrno>

#include <sys/stat.h>

#include "PlatformLinuxPeer/LogText.hpp"
#include "PlatformLinuxPeer/PinnedProcess.hpp"

namespace stillow::platform {
namespace {

std::expected<void, std::string> requireRootDirectory(const std::filesystem::path& directory,
                                                      bool isLast) {
  const auto refusal = [&](const std::string& clause) {
    return std::unexpected("The directory " + quotedForLog(directory.native()) + " " + clause +
                           ".");
  };
  struct stat status{};
  if (::lstat(directory.c_str(), &status) != 0) {
    return refusal("cannot be looked at: " + systemErrorText(errno));
  }
  if (!S_ISDIR(status.st_mode)) return refusal("is a link or a file");
  if (status.st_uid != 0) return refusal("does not belong to root");
  const bool isWritable = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
  // In a sticky directory others may add names, but not take root's away.
  const bool isTolerable = !isLast && (status.st_mode & S_ISVTX) != 0;
  if (isWritable && !isTolerable) return refusal("can be written by others than root");
  return {};
}

}  // namespace

std::expected<void, std::string> requireRootDaemon(int connectedSocket,
                                                   const std::filesystem::path& socketPath) {
  const auto peer = peerCredentials(connectedSocket);
  if (!peer) return std::unexpected(peer.error());
  if (peer->uid != 0) {
    return std::unexpected("Whoever listens at " + quotedForLog(socketPath.native()) +
                           " is not root but user " + std::to_string(peer->uid) + ".");
  }
  return requireRootOnlyDirectory(socketPath);
}

std::expected<void, std::string> requireRootOnlyDirectory(const std::filesystem::path& socketPath) {
  if (!socketPath.is_absolute() || socketPath != socketPath.lexically_normal()) {
    return std::unexpected("The socket's path " + quotedForLog(socketPath.native()) +
                           " is not absolute and plain.");
  }
  const auto last = socketPath.parent_path();
  std::filesystem::path directory;
  for (const auto& component : last) {
    directory /= component;
    if (auto met = requireRootDirectory(directory, directory == last); !met) return met;
  }
  return {};
}

}  // namespace stillow::platform
