#include "PlatformLinuxFilter/FlowCutter.hpp"

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

// Before <linux/netfilter.h>, which otherwise declares the same names.
#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/inet_diag.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "PlatformLinuxFilter/FlowMark.hpp"
#include "PlatformLinuxFilter/NetlinkSocket.hpp"

namespace stillow::platform {

namespace {

using MessageMemory = std::array<std::uint8_t, 512>;

std::expected<NetlinkSocket, std::error_code> openSocket(int protocol) {
  NetlinkSocket socket(mnl_socket_open2(protocol, SOCK_CLOEXEC));
  if (!socket || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) != 0) {
    return std::unexpected(systemError(errno));
  }
  // The kernel answers before the request returns; the limit is for an answer that got lost.
  const timeval limit{.tv_sec = 1, .tv_usec = 0};
  if (::setsockopt(mnl_socket_get_fd(socket.get()), SOL_SOCKET, SO_RCVTIMEO, &limit,
                   sizeof(limit)) != 0) {
    return std::unexpected(systemError(errno));
  }
  return socket;
}

/// Sends one request and gives what the kernel acknowledges it with: 0 or an error's number.
int request(mnl_socket& socket, nlmsghdr& message, std::uint32_t sequence) {
  message.nlmsg_flags |= NLM_F_REQUEST | NLM_F_ACK;
  message.nlmsg_seq = sequence;
  if (mnl_socket_sendto(&socket, &message, message.nlmsg_len) < 0) return errno;
  for (;;) {
    alignas(NLMSG_ALIGNTO) MessageMemory memory;
    const ssize_t size = mnl_socket_recvfrom(&socket, memory.data(), memory.size());
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) return errno;
    int remaining = static_cast<int>(size);
    const auto* answer = reinterpret_cast<const nlmsghdr*>(memory.data());
    for (; mnl_nlmsg_ok(answer, remaining); answer = mnl_nlmsg_next(answer, &remaining)) {
      if (answer->nlmsg_type != NLMSG_ERROR || answer->nlmsg_seq != sequence) continue;
      return -static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(answer))->error;
    }
  }
}

std::uint8_t familyOf(const FlowKey& flow) noexcept { return flow.isIPv6 ? AF_INET6 : AF_INET; }

int destroySocket(mnl_socket& socket, const FlowKey& flow, std::uint32_t sequence) {
  alignas(NLMSG_ALIGNTO) MessageMemory memory{};
  nlmsghdr* const message = mnl_nlmsg_put_header(memory.data());
  message->nlmsg_type = SOCK_DESTROY;
  auto* const wanted =
      static_cast<inet_diag_req_v2*>(mnl_nlmsg_put_extra_header(message, sizeof(inet_diag_req_v2)));
  wanted->sdiag_family = familyOf(flow);
  wanted->sdiag_protocol = IPPROTO_TCP;
  wanted->id.idiag_sport = htons(flow.sourcePort);
  wanted->id.idiag_dport = htons(flow.destinationPort);
  std::memcpy(wanted->id.idiag_src, flow.source.data(), flow.source.size());
  std::memcpy(wanted->id.idiag_dst, flow.destination.data(), flow.destination.size());
  wanted->id.idiag_cookie[0] = wanted->id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  return request(socket, *message, sequence);
}

int markConnection(mnl_socket& socket, const FlowKey& flow, std::uint32_t sequence) {
  alignas(NLMSG_ALIGNTO) MessageMemory memory{};
  nlmsghdr* const message = mnl_nlmsg_put_header(memory.data());
  // "New" without the flag that creates: changes the connection that is there.
  message->nlmsg_type = (NFNL_SUBSYS_CTNETLINK << 8) | IPCTNL_MSG_CT_NEW;
  auto* const header =
      static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
  header->nfgen_family = familyOf(flow);
  header->version = NFNETLINK_V0;

  nlattr* const tuple = mnl_attr_nest_start(message, CTA_TUPLE_ORIG);
  nlattr* const addresses = mnl_attr_nest_start(message, CTA_TUPLE_IP);
  const std::size_t addressBytes = flow.isIPv6 ? 16 : 4;
  mnl_attr_put(message, flow.isIPv6 ? CTA_IP_V6_SRC : CTA_IP_V4_SRC, addressBytes,
               flow.source.data());
  mnl_attr_put(message, flow.isIPv6 ? CTA_IP_V6_DST : CTA_IP_V4_DST, addressBytes,
               flow.destination.data());
  mnl_attr_nest_end(message, addresses);
  nlattr* const protocol = mnl_attr_nest_start(message, CTA_TUPLE_PROTO);
  mnl_attr_put_u8(message, CTA_PROTO_NUM, static_cast<std::uint8_t>(flow.protocol));
  mnl_attr_put_u16(message, CTA_PROTO_SRC_PORT, htons(flow.sourcePort));
  mnl_attr_put_u16(message, CTA_PROTO_DST_PORT, htons(flow.destinationPort));
  mnl_attr_nest_end(message, protocol);
  mnl_attr_nest_end(message, tuple);
  mnl_attr_put_u32(message, CTA_MARK, htonl(FlowMark::dropped));
  mnl_attr_put_u32(message, CTA_MARK_MASK, htonl(FlowMark::mask));
  return request(socket, *message, sequence);
}

}  // namespace

struct FlowCutter::Impl {
  NetlinkSocket diagnostics;
  NetlinkSocket connections;
  std::uint32_t sequence = 0;
};

FlowCutter::FlowCutter(std::unique_ptr<Impl> impl) noexcept : impl_(std::move(impl)) {}
FlowCutter::FlowCutter(FlowCutter&&) noexcept = default;
FlowCutter& FlowCutter::operator=(FlowCutter&&) noexcept = default;
FlowCutter::~FlowCutter() = default;

std::expected<FlowCutter, std::error_code> FlowCutter::open() {
  auto diagnostics = openSocket(NETLINK_SOCK_DIAG);
  if (!diagnostics) return std::unexpected(diagnostics.error());
  auto connections = openSocket(NETLINK_NETFILTER);
  if (!connections) return std::unexpected(connections.error());
  return FlowCutter(std::make_unique<Impl>(std::move(*diagnostics), std::move(*connections)));
}

std::expected<FlowCutter::Outcome, std::error_code> FlowCutter::cut(const FlowKey& flow) {
  // The mark first: whatever the socket still sends, its reset excepted, is refused already.
  const int markError = markConnection(*impl_->connections, flow, ++impl_->sequence);
  int destroyError = ENOENT;
  if (flow.protocol == FlowKey::Protocol::tcp) {
    destroyError = destroySocket(*impl_->diagnostics, flow, ++impl_->sequence);
  }
  for (const int error : {markError, destroyError}) {
    if (error != 0 && error != ENOENT) return std::unexpected(systemError(error));
  }
  return Outcome{.hasDestroyedSocket = destroyError == 0, .hasMarkedConnection = markError == 0};
}

}  // namespace stillow::platform
