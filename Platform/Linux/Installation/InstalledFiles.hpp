#pragma once

#include <filesystem>
#include <string>
#include <utility>

#include "StillowAuthority/PrivilegedUninstall.hpp"

/// Where a development install lies. None of it is a path that a package may own.
namespace stillow::platform {

/// What uninstalling removes on Linux. `stateDirectory` is an absolute path.
[[nodiscard]] inline authority::PrivilegedUninstall::Locations uninstallLocations(
    std::string stateDirectory) {
  return {
      .stateDirectory = std::move(stateDirectory),
      .developmentLaunchDaemonPlist = "/etc/systemd/system/com.larchmoor.Stillow.daemon.service",
      .developmentHelperBundle = "/usr/local/lib/stillow",
      .legacyDevelopmentHelperBinary = "/usr/local/sbin/StillowDaemon"};
}

/// The filter's unit of a development install.
inline constexpr const char* developmentFilterUnitPath =
    "/etc/systemd/system/com.larchmoor.Stillow.filter.service";

}  // namespace stillow::platform
