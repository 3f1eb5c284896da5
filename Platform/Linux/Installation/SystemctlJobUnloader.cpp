#include "PlatformLinuxInstallation/SystemctlJobUnloader.hpp"

#include "PlatformLinuxInstallation/SystemdUnit.hpp"

namespace stillow::platform {

std::expected<void, std::string> SystemctlJobUnloader::unload(std::string_view label) {
  const SystemdUnit unit(commands_, label);
  auto stopped = unit.stop();
  auto disabled = unit.disable();
  return stopped ? std::move(disabled) : std::move(stopped);
}

}  // namespace stillow::platform
