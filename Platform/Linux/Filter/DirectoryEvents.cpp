#include "PlatformLinuxFilter/DirectoryEvents.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

#include <sys/inotify.h>
#include <unistd.h>

#include "StillowCore/Invariant.hpp"

namespace stillow::platform {

namespace {

/// A name that comes or goes. A change of mode counts as well: it can make a file readable, or not.
constexpr std::uint32_t wayMask = IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ATTRIB |
                                  IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
/// The file may also be written in place. Opening and reading do not count, or our own reads would
/// wake us.
constexpr std::uint32_t fileMask = wayMask | IN_CLOSE_WRITE;
/// What tells that a watch no longer stands for the directory at its path.
constexpr std::uint32_t lossEvents = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;

/// Room for several hundred events, and aligned as the kernel's records want it.
constexpr std::size_t bufferBytes = 32'768;
/// More than the kernel's queue holds by default (16384 events of 16 bytes and more): everything
/// that was pending at the call is taken, and a directory that never rests cannot hold us.
constexpr int readsMax = 64;

std::error_code lastError() { return {errno, std::generic_category()}; }

bool isMissing(const std::error_code& error) {
  return error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory;
}

}  // namespace

DirectoryEvents::DirectoryEvents(std::string directory, std::string fileName) {
  core::require(directory.starts_with('/'), "directory events need an absolute path");
  std::string path = "/";
  std::size_t begin = 1;
  while (begin < directory.size()) {
    const std::size_t end = std::min(directory.find('/', begin), directory.size());
    if (end > begin) {
      std::string name = directory.substr(begin, end - begin);
      std::string next = (path == "/" ? "" : path) + "/" + name;
      levels_.push_back({.path = std::exchange(path, std::move(next)), .name = std::move(name)});
    }
    begin = end + 1;
  }
  levels_.push_back({.path = std::move(path), .name = std::move(fileName)});
}

std::expected<void, std::error_code> DirectoryEvents::start(std::function<void()> changed) {
  stop();
  core::FileDescriptor inotify(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!inotify) return std::unexpected(lastError());
  inotify_ = std::move(inotify);
  auto watched = watchLevels();
  if (!watched) {
    stop();
    return watched;
  }
  changed_ = std::move(changed);
  return {};
}

void DirectoryEvents::stop() {
  inotify_ = core::FileDescriptor();
  changed_ = nullptr;
  for (Level& level : levels_) level.watch = -1;
}

std::expected<void, std::error_code> DirectoryEvents::drain() {
  if (!inotify_) return {};
  bool hasChanged = false;
  bool wayHasChanged = false;
  alignas(::inotify_event) std::array<char, bufferBytes> buffer;
  for (int i = 0; i < readsMax; ++i) {
    const ::ssize_t count = ::read(inotify_.get(), buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno != EAGAIN) return std::unexpected(lastError());
    if (count <= 0) break;
    const auto size = static_cast<std::size_t>(count);
    for (std::size_t offset = 0; offset + sizeof(::inotify_event) <= size;) {
      ::inotify_event event;
      std::memcpy(&event, buffer.data() + offset, sizeof(event));
      const char* const name = buffer.data() + offset + sizeof(event);
      offset += sizeof(event) + event.len;
      // Events that did not fit into the queue may have been ours.
      const bool isOverflow = (event.mask & IN_Q_OVERFLOW) != 0;
      const std::string_view bareName(name, ::strnlen(name, event.len));
      if (!isOverflow && !matters(event.wd, event.mask, bareName)) continue;
      hasChanged = true;
      const bool concernsFile = event.wd == levels_.back().watch && (event.mask & lossEvents) == 0;
      if (isOverflow || !concernsFile) wayHasChanged = true;
    }
  }

  std::expected<void, std::error_code> watched;
  // Watched first, looked at then: what happens in between is an event.
  if (wayHasChanged) watched = watchLevels();
  if (hasChanged) {
    // Kept here as well, for the case that it stops us.
    const auto changed = changed_;
    changed();
  }
  return watched;
}

std::expected<void, std::error_code> DirectoryEvents::watchLevels() {
  std::vector<int> before;
  before.reserve(levels_.size());
  for (Level& level : levels_) before.push_back(std::exchange(level.watch, -1));

  // From the root down: a directory that is made meanwhile is either seen here or is an event.
  std::error_code error;
  for (Level& level : levels_) {
    const std::uint32_t mask = &level == &levels_.back() ? fileMask : wayMask;
    level.watch = ::inotify_add_watch(inotify_.get(), level.path.c_str(), mask);
    if (level.watch >= 0) {
      error.clear();
      continue;
    }
    const std::error_code cause = lastError();
    if (isMissing(cause)) break;
    // A directory that may be passed through but not read: those below it can still be watched.
    error = cause;
  }

  for (const int watch : before) {
    const bool isInUse =
        std::ranges::any_of(levels_, [watch](const Level& level) { return level.watch == watch; });
    // The kernel has dropped the watch itself where the directory is gone.
    if (watch >= 0 && !isInUse) (void)::inotify_rm_watch(inotify_.get(), watch);
  }
  if (error) return std::unexpected(error);
  return {};
}

bool DirectoryEvents::matters(int watch, std::uint32_t mask, std::string_view name) const {
  return std::ranges::any_of(levels_, [&](const Level& level) {
    if (level.watch != watch) return false;
    return (mask & lossEvents) != 0 || level.name == name;
  });
}

}  // namespace stillow::platform
