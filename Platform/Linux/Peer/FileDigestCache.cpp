#include "PlatformLinuxPeer/FileDigestCache.hpp"

#include <algorithm>

namespace stillow::platform {

FileVersion FileVersion::of(const struct stat& status) noexcept {
  return {status.st_dev, status.st_ino, static_cast<std::uint64_t>(status.st_size),
          status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}

bool FileVersion::isSettled(core::Date now) const noexcept {
  // Steps are at most 10 ms on the file systems that executables lie on; 2 s on the coarsest, FAT.
  constexpr double settledAfterSeconds = 3;
  return now.unixSeconds() - static_cast<double>(changedSeconds) > settledAfterSeconds;
}

std::optional<core::SHA256Digest> FileDigestCache::find(const FileVersion& version) {
  const std::lock_guard guard(lock_);
  const auto found = std::ranges::find(entries_, version, &Entry::version);
  if (found == entries_.end()) return {};
  entries_.splice(entries_.begin(), entries_, found);
  return found->digest;
}

void FileDigestCache::store(const FileVersion& version, const core::SHA256Digest& digest) {
  const std::lock_guard guard(lock_);
  const auto found = std::ranges::find(entries_, version, &Entry::version);
  if (found != entries_.end()) {
    entries_.splice(entries_.begin(), entries_, found);
    found->digest = digest;
    return;
  }
  entries_.push_front({version, digest});
  if (entries_.size() > entriesMax) entries_.pop_back();
}

}  // namespace stillow::platform
