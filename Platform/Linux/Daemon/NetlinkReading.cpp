#include "PlatformLinuxDaemon/NetlinkReading.hpp"

#include <sys/socket.h>

namespace stillow::platform {

core::FileDescriptor openNetlinkNotifications(int protocol, std::span<const int> groups) {
  core::FileDescriptor socket(
      ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, protocol));
  if (!socket) return {};
  // Without an address of its own a socket is a member of its groups and hears nothing.
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return {};
  }
  for (const int group : groups) {
    if (::setsockopt(socket.get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) !=
        0) {
      return {};
    }
  }
  return socket;
}

}  // namespace stillow::platform
