#include <libproc.h>
#include <unistd.h>

#include <array>
#include <string>

#include "StillowCore/ResourceBundle.hpp"

namespace stillow::core::platform {

std::filesystem::path executableDirectory() {
  // From the kernel, which knows the file itself: what the loader was told may be a link.
  std::array<char, PROC_PIDPATHINFO_MAXSIZE> path{};
  const int length = ::proc_pidpath(::getpid(), path.data(), static_cast<uint32_t>(path.size()));
  if (length <= 0) return {};
  return std::filesystem::path(std::string(path.data(), static_cast<std::size_t>(length)))
      .parent_path();
}

}  // namespace stillow::core::platform
