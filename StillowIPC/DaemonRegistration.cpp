#include "StillowIPC/DaemonRegistration.hpp"

#include <system_error>

namespace stillow::ipc {

namespace fs = std::filesystem;

DaemonRegistration::State DaemonRegistration::stateOf(std::int64_t serviceStatus) noexcept {
  switch (serviceStatus) {
    case 0:
      return State::notRegistered;
    case 1:
      return State::enabled;
    case 2:
      return State::awaitingApproval;
    default:
      return State::notFound;
  }
}

DaemonRegistration::State DaemonRegistration::state(DaemonServiceManaging& services) {
  return services.daemonService()->state();
}

DaemonRegistration::Result DaemonRegistration::registerDaemon(DaemonServiceManaging& services) {
  return services.daemonService()->registerService();
}

DaemonRegistration::Result DaemonRegistration::reregisterDaemon(DaemonServiceManaging& services) {
  (void)services.daemonService()->unregisterService();  // that there was none is no obstacle
  // A service object goes on showing what it found when it was made.
  return services.daemonService()->registerService();
}

std::optional<fs::path> DaemonRegistration::daemonProgram(
    const fs::path& bundle, const PropertyListText& propertyListText) {
  const auto relative =
      propertyListText(bundle / "Contents/Library/LaunchDaemons" / plistName, "BundleProgram");
  if (!relative || relative->empty()) return std::nullopt;
  // Appended, never in the place of the bundle's own path, even if it begins with a slash.
  return bundle / fs::path(*relative).relative_path();
}

bool DaemonRegistration::isDaemonProgramUsable(const fs::path& bundle,
                                               const PropertyListText& propertyListText) {
  const auto program = daemonProgram(bundle, propertyListText);
  if (!program) return false;
  std::error_code error;
  const auto found = fs::status(*program, error);
  if (error || !fs::exists(found) || fs::is_directory(found)) return false;
  constexpr auto anyExecute =
      fs::perms::owner_exec | fs::perms::group_exec | fs::perms::others_exec;
  return (found.permissions() & anyExecute) != fs::perms::none;
}

}  // namespace stillow::ipc
