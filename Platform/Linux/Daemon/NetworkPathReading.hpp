#pragma once

#include <expected>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <system_error>

#include "PlatformLinuxDaemon/NetlinkReading.hpp"
#include "StillowAuthority/NetworkPathObserving.hpp"

namespace stillow::platform {

/// Makes a snapshot of the network out of what rtnetlink says of links and routes.
///
/// A link carries traffic out if it is up (administratively, and with a carrier), not a loopback,
/// and a default route leads over it. The two halves of all addresses count as a default route too:
/// tunnels take precedence over the real one that way. Any routing table counts but the kernel's
/// own table of local addresses, because tunnels also use tables of their own.
class NetworkPathReading {
 public:
  /// Takes one message of a dump; others are passed over.
  void add(const NetlinkMessage& message);
  [[nodiscard]] authority::NetworkPathSnapshot snapshot() const;

  /// Whether a notification can have changed the path. The routes of single networks, of which
  /// routers have very many, cannot.
  [[nodiscard]] static bool isRelevant(const NetlinkMessage& message);

  /// Asks the kernel, which answers at once.
  [[nodiscard]] static std::expected<authority::NetworkPathSnapshot, std::error_code> read();

 private:
  struct Link {
    std::string name;
    bool isUp = false;
    bool isVPN = false;
  };

  void addLink(std::string_view payload);
  void addRoute(std::string_view payload);

  std::map<int, Link> links_;          // by index; loopbacks are left out
  std::set<int> defaultRouteIndexes_;  // of the links that default routes lead over
};

}  // namespace stillow::platform
