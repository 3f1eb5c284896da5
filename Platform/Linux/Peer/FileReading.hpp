#pragma once

#include <cstddef>
#include <expected>
#include <string>

#include <sys/stat.h>

#include "StillowCore/FileDescriptor.hpp"

namespace stillow::platform {

/// A whole small file, with what the system says of it.
struct SmallFile {
  std::string content;
  struct stat status{};
};

/// Reads the regular file `path`; the errors are errno values. Never waits for anybody, whatever
/// was put there: no link is followed at the end of the path (ELOOP), and a file that is not
/// regular or has more than `bytesMax` bytes is EFBIG or EINVAL.
[[nodiscard]] std::expected<SmallFile, int> readSmallFile(const std::string& path,
                                                          std::size_t bytesMax);

}  // namespace stillow::platform
