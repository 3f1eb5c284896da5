#include "StillowFiltering/Storage/StateDirectoryLock.hpp"

#include <cerrno>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "StillowFiltering/Storage/DurableFile.hpp"

namespace stillow::filtering {

namespace {

using Error = StateDirectoryLock::Error;

/// A directory that is removed again and again is not worth fighting for.
constexpr int attemptsMax = 100;

std::unexpected<Error> failure(const char* step, const std::string& path) {
  return std::unexpected(Error{std::string("Could not ") + step + " " + path + ": " +
                               std::system_category().message(errno)});
}

/// Whether `path` still names the file behind `descriptor`.
bool isStillNamed(int descriptor, const std::string& path) {
  struct stat held{};
  struct stat named{};
  return ::fstat(descriptor, &held) == 0 && ::lstat(path.c_str(), &named) == 0 &&
         held.st_dev == named.st_dev && held.st_ino == named.st_ino;
}

}  // namespace

std::expected<StateDirectoryLock, Error> StateDirectoryLock::acquire(
    filtering::FileSystem& fileSystem, const std::string& stateDirectory,
    const std::function<void()>& onWaiting) {
  const std::string path = stateDirectory + "/" + lockFileName;
  bool hasToldOfWaiting = false;
  for (int attempt = 0; attempt < attemptsMax; ++attempt) {
    const auto made = filtering::createDirectoryDurably(fileSystem, stateDirectory,
                                                        filtering::DurableFile::directoryMode);
    if (!made) return std::unexpected(Error{filtering::describe(made.error())});

    core::FileDescriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW,
                                     filtering::DurableFile::fileMode));
    if (!file && errno == ENOENT) continue;  // the directory went again
    if (!file) return failure("open", path);

    if (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
      if (errno != EWOULDBLOCK) return failure("lock", path);
      if (!std::exchange(hasToldOfWaiting, true) && onWaiting) onWaiting();
      while (::flock(file.get(), LOCK_EX) != 0) {
        if (errno != EINTR) return failure("lock", path);
      }
    }
    // Whoever held it may have removed the directory, as uninstalling does: then this lock is one
    // on a file that nobody else will ever find.
    if (isStillNamed(file.get(), path)) return StateDirectoryLock(std::move(file));
  }
  return std::unexpected(Error{"Could not lock " + path + ": it is removed again and again"});
}

}  // namespace stillow::filtering
