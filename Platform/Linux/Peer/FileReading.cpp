#include "PlatformLinuxPeer/FileReading.hpp"

#include <cerrno>

#include <fcntl.h>

namespace stillow::platform {

std::expected<SmallFile, int> readSmallFile(const std::string& path, std::size_t bytesMax) {
  // A name with a zero byte would be cut there.
  if (path.find('\0') != std::string::npos) return std::unexpected(EINVAL);
  constexpr int flags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
  const core::FileDescriptor file(::open(path.c_str(), flags));
  if (!file) return std::unexpected(errno);
  SmallFile result;
  if (::fstat(file.get(), &result.status) != 0) return std::unexpected(errno);
  if (!S_ISREG(result.status.st_mode)) return std::unexpected(EINVAL);
  // One byte more than allowed shows a file that is too long, even one that grows meanwhile.
  result.content.resize(bytesMax + 1);
  std::size_t length = 0;
  while (length < result.content.size()) {
    const auto count = ::read(file.get(), &result.content[length], result.content.size() - length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::unexpected(errno);
    if (count == 0) break;
    length += static_cast<std::size_t>(count);
  }
  if (length > bytesMax) return std::unexpected(EFBIG);
  result.content.resize(length);
  return result;
}

}  // namespace stillow::platform
