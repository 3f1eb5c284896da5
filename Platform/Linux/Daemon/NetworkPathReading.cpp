#include "PlatformLinuxDaemon/NetworkPathReading.hpp"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/socket.h>

#include "StillowCore/FileDescriptor.hpp"

namespace stillow::platform {

namespace {

/// A dump that was overtaken by changes is repeated so often before it is taken as it is; the
/// changes are notified, too, so another look follows anyway.
constexpr int dumpAttemptsMax = 3;

std::string_view textOf(std::string_view value) { return value.substr(0, value.find('\0')); }

int indexOf(std::string_view value) { return netlinkHeader<int>(value).value_or(0); }

/// What carries packets inside other packets to somebody who is trusted more than the network.
bool isTunnelKind(std::string_view kind) {
  return kind == "tun" || kind == "wireguard" || kind == "ppp";
}

std::error_code lastError() { return {errno, std::generic_category()}; }

struct DumpRequest {
  nlmsghdr header;
  rtgenmsg body;
};

std::error_code request(int socket, std::uint16_t type, std::uint32_t sequence) {
  DumpRequest message{};
  message.header.nlmsg_len = sizeof message;
  message.header.nlmsg_type = type;
  message.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  message.header.nlmsg_seq = sequence;
  message.body.rtgen_family = AF_UNSPEC;
  if (::send(socket, &message, sizeof message, 0) < 0) return lastError();
  return {};
}

/// What one dump came to.
struct DumpEnd {
  bool isInterrupted = false;  // by a change; what was read may not fit together
  std::error_code error = {};
};

template <class Read>
DumpEnd dump(int socket, std::uint16_t type, std::uint32_t sequence, Read read) {
  if (const auto error = request(socket, type, sequence)) return {.error = error};
  alignas(nlmsghdr) std::array<char, 65'536> buffer;
  DumpEnd end;
  for (bool isDone = false; !isDone;) {
    const ssize_t length = ::recv(socket, buffer.data(), buffer.size(), 0);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) return {.error = lastError()};
    const std::string_view bytes(buffer.data(), static_cast<std::size_t>(length));
    forEachNetlinkMessage(bytes, [&](const NetlinkMessage& message) {
      if (message.sequence != sequence) return;
      if ((message.flags & NLM_F_DUMP_INTR) != 0) end.isInterrupted = true;
      if (message.type == NLMSG_DONE) {
        isDone = true;
      } else if (message.type == NLMSG_ERROR) {
        isDone = true;
        const auto reason = netlinkHeader<nlmsgerr>(message.payload);
        end.error = {reason ? -reason->error : EIO, std::generic_category()};
      } else {
        read(message);
      }
    });
  }
  return end;
}

}  // namespace

void NetworkPathReading::add(const NetlinkMessage& message) {
  if (message.type == RTM_NEWLINK) addLink(message.payload);
  if (message.type == RTM_NEWROUTE) addRoute(message.payload);
}

void NetworkPathReading::addLink(std::string_view payload) {
  const auto info = netlinkHeader<ifinfomsg>(payload);
  if (!info || (info->ifi_flags & IFF_LOOPBACK) != 0) return;
  Link link{.isUp = (info->ifi_flags & IFF_UP) != 0 && (info->ifi_flags & IFF_RUNNING) != 0,
            .isVPN = info->ifi_type == ARPHRD_PPP};
  forEachNetlinkAttribute(payload, sizeof(ifinfomsg), [&link](const NetlinkAttribute& attribute) {
    if (attribute.type == IFLA_IFNAME) link.name = textOf(attribute.value);
    if (attribute.type != IFLA_LINKINFO) return;
    forEachNetlinkAttribute(attribute.value, 0, [&link](const NetlinkAttribute& nested) {
      if (nested.type == IFLA_INFO_KIND && isTunnelKind(textOf(nested.value))) link.isVPN = true;
    });
  });
  links_.insert_or_assign(info->ifi_index, std::move(link));
}

void NetworkPathReading::addRoute(std::string_view payload) {
  const auto route = netlinkHeader<rtmsg>(payload);
  if (!route || route->rtm_dst_len > 1 || route->rtm_type != RTN_UNICAST) return;
  if (route->rtm_table == RT_TABLE_LOCAL || (route->rtm_flags & RTM_F_CLONED) != 0) return;
  forEachNetlinkAttribute(payload, sizeof(rtmsg), [this](const NetlinkAttribute& attribute) {
    if (attribute.type == RTA_OIF) defaultRouteIndexes_.insert(indexOf(attribute.value));
    if (attribute.type != RTA_MULTIPATH) return;
    // Next hops one after the other, each with its own length.
    std::string_view hops = attribute.value;
    while (const auto hop = netlinkHeader<rtnexthop>(hops)) {
      if (hop->rtnh_len < sizeof(rtnexthop)) return;
      defaultRouteIndexes_.insert(hop->rtnh_ifindex);
      hops = netlink::after(hops, hop->rtnh_len);
    }
  });
}

authority::NetworkPathSnapshot NetworkPathReading::snapshot() const {
  authority::NetworkPathSnapshot made;
  for (const int index : defaultRouteIndexes_) {
    const auto found = links_.find(index);
    if (found == links_.end() || !found->second.isUp) continue;
    made.isSatisfied = true;
    made.usesVPN = made.usesVPN || found->second.isVPN;
    made.interfaces.insert(found->second.name);
  }
  return made;
}

bool NetworkPathReading::isRelevant(const NetlinkMessage& message) {
  switch (message.type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
    // The kernel drops the routes of an address that goes without a word about them.
    case RTM_NEWADDR:
    case RTM_DELADDR:
      return true;
    case RTM_NEWROUTE:
    case RTM_DELROUTE: {
      const auto route = netlinkHeader<rtmsg>(message.payload);
      return route && route->rtm_dst_len <= 1;
    }
    default:
      return false;
  }
}

std::expected<authority::NetworkPathSnapshot, std::error_code> NetworkPathReading::read() {
  const core::FileDescriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (!socket) return std::unexpected(lastError());
  std::uint32_t sequence = 0;
  for (int attempt = 1;; ++attempt) {
    NetworkPathReading reading;
    bool isInterrupted = false;
    for (const std::uint16_t type : {RTM_GETLINK, RTM_GETROUTE}) {
      const DumpEnd end = dump(socket.get(), type, ++sequence,
                               [&reading](const NetlinkMessage& message) { reading.add(message); });
      if (end.error) return std::unexpected(end.error);
      isInterrupted = isInterrupted || end.isInterrupted;
    }
    if (!isInterrupted || attempt == dumpAttemptsMax) return reading.snapshot();
  }
}

}  // namespace stillow::platform
