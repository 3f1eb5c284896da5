#pragma once

#include <array>
#include <string_view>

namespace stillow::ipc {

/// The names that daemon, clients and filter agree on.
struct StillowDaemonService {
  /// The daemon's service, and the identifier that its executable is signed under.
  static constexpr std::string_view machServiceName = "com.larchmoor.Stillow.daemon";
  /// The application and the command-line client.
  static constexpr std::string_view appBundleIdentifier = "com.larchmoor.Stillow";
  static constexpr std::string_view filterBundleIdentifier = "com.larchmoor.Stillow.filter";

  /// Everything that may speak to the daemon. The daemon is among it for its one-shot modes.
  static constexpr std::array<std::string_view, 3> signedClientIdentifiers{
      appBundleIdentifier, machServiceName, filterBundleIdentifier};

  static constexpr std::string_view daemonProtocolName = "StillowDaemonXPCProtocol";
  static constexpr std::string_view clientProtocolName = "StillowDaemonClientXPCProtocol";
};

}  // namespace stillow::ipc
