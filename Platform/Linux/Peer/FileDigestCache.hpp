#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <optional>

#include <sys/stat.h>

#include "PlatformLinuxPeer/CodeStatement.hpp"
#include "StillowCore/Date.hpp"

namespace stillow::platform {

/// A file in one state of its content: whoever writes to it gives it another change time, which no
/// call can set.
struct FileVersion {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t size = 0;
  std::int64_t changedSeconds = 0;
  std::int64_t changedNanoseconds = 0;

  [[nodiscard]] static FileVersion of(const struct stat& status) noexcept;

  /// The last change is so long before `now` that any further one gets another change time. Change
  /// times advance in steps of some milliseconds: a file that is read within the step in which it
  /// was written can still be written without a trace. A time in the future is never settled.
  [[nodiscard]] bool isSettled(core::Date now) const noexcept;

  friend bool operator==(const FileVersion&, const FileVersion&) = default;
};

/// Digests of the files that were read last, by version. Any thread.
class FileDigestCache {
 public:
  /// Our programs are three; the rest is for their builds and copies.
  static constexpr std::size_t entriesMax = 64;

  [[nodiscard]] std::optional<core::SHA256Digest> find(const FileVersion& version);
  /// The least recently found or stored entry goes when there is no room.
  void store(const FileVersion& version, const core::SHA256Digest& digest);

 private:
  struct Entry {
    FileVersion version;
    core::SHA256Digest digest;
  };

  std::mutex lock_;
  /// The most recently used first. Short enough to be searched from the front.
  std::list<Entry> entries_;
};

}  // namespace stillow::platform
