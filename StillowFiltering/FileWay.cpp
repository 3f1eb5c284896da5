#include "StillowFiltering/FileWay.hpp"

#include <algorithm>
#include <system_error>

#include <sys/stat.h>

#include "StillowCore/Invariant.hpp"

namespace stillow::filtering {

FileWay::FileWay(const std::string& directory, const std::string& fileName) {
  core::require(directory.starts_with('/'), "the way to a file needs an absolute path");
  directories_.emplace_back("/");
  for (std::size_t begin = 1; begin < directory.size();) {
    const std::size_t end = std::min(directory.find('/', begin), directory.size());
    if (end > begin) directories_.push_back(directory.substr(0, end));
    begin = end + 1;
  }
  path_ = directory + (directory.ends_with('/') ? "" : "/") + fileName;
}

FileWay::Look FileWay::look() const {
  Look seen;
  for (const std::string& directory : directories_) {
    struct ::stat status{};
    if (::stat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return seen;
    seen.directories.push_back({.device = static_cast<std::uint64_t>(status.st_dev),
                                .file = static_cast<std::uint64_t>(status.st_ino)});
  }
  seen.file = lookAtFile();
  return seen;
}

std::optional<FileWay::File> FileWay::lookAtFile() const {
  struct ::stat status{};
  if (::lstat(path_.c_str(), &status) != 0) return std::nullopt;
  // The structure's own name for its fine times differs between systems.
  std::error_code error;
  const auto changedAt = std::filesystem::last_write_time(path_, error);
  if (error) return std::nullopt;
  return File{.device = static_cast<std::uint64_t>(status.st_dev),
              .file = static_cast<std::uint64_t>(status.st_ino),
              .bytes = static_cast<std::uint64_t>(status.st_size),
              .mode = status.st_mode,
              .changedAt = changedAt};
}

}  // namespace stillow::filtering
