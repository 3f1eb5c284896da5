#include <system_error>

#include "StillowCore/ResourceBundle.hpp"

namespace stillow::core::platform {

std::filesystem::path executableDirectory() {
  std::error_code error;
  const auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) return {};
  return executable.parent_path();
}

}  // namespace stillow::core::platform
