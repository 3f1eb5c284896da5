#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace stillow::filtering {

/// The way to a file as it is in the file system at one moment, for a system whose directory events
/// do not say what they are about: whoever gets one looks again and compares.
class FileWay {
 public:
  /// A directory that is on the way now.
  struct Directory {
    std::uint64_t device = 0;
    std::uint64_t file = 0;
    friend bool operator==(const Directory&, const Directory&) = default;
  };
  /// The file itself. A replacement has another number or, should that one be used again, another
  /// time.
  struct File {
    std::uint64_t device = 0;
    std::uint64_t file = 0;
    std::uint64_t bytes = 0;
    std::uint64_t mode = 0;
    std::filesystem::file_time_type changedAt;
    friend bool operator==(const File&, const File&) = default;
  };

  struct Look {
    /// In the order of `directories()`, up to the first that is missing.
    std::vector<Directory> directories;
    std::optional<File> file;
    friend bool operator==(const Look&, const Look&) = default;
  };

  /// `directory` is absolute; `fileName` is the bare name.
  FileWay(const std::string& directory, const std::string& fileName);

  /// Every directory on the way, from the root to the one that holds the file.
  [[nodiscard]] const std::vector<std::string>& directories() const noexcept {
    return directories_;
  }

  /// Takes a few microseconds. Links on the way are followed; what cannot be looked at is not
  /// there.
  [[nodiscard]] Look look() const;
  [[nodiscard]] std::optional<File> lookAtFile() const;

 private:
  std::vector<std::string> directories_;
  std::string path_;
};

}  // namespace stillow::filtering
