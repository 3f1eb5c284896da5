#include "PlatformLinuxInstallation/SystemdContentFilter.hpp"

#include <string_view>
#include <system_error>

#include "StillowIPC/StillowDaemonService.hpp"

namespace stillow::platform {

std::expected<void, std::string> SystemdContentFilter::remove() {
  std::string problems;
  const auto note = [&problems](std::string_view problem) {
    while (problem.ends_with('.')) problem.remove_suffix(1);
    if (!problems.empty()) problems += "; ";
    problems += problem;
  };
  if (const auto removed = parts_.removeRules(); !removed) note(removed.error());
  const auto stopped = parts_.jobs->unload(ipc::StillowDaemonService::filterBundleIdentifier);
  if (!stopped) note(stopped.error());
  std::error_code error;
  // Nothing there is the usual case and no error.
  (void)std::filesystem::remove(parts_.developmentUnitPath, error);
  if (error) note(parts_.developmentUnitPath.string() + ": " + error.message());
  if (!problems.empty()) return std::unexpected(std::move(problems));
  return {};
}

}  // namespace stillow::platform
