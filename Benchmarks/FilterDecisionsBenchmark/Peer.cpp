// Both ends of a packet queue under load.
//
//   FilterDecisionsPeer feed FILE   sends first packets of new connections
//   FilterDecisionsPeer accept N    holds the filter's queue and accepts everything, N at a time
//
// FILE holds hellos, each behind its length in two bytes. Each line on the feeder's standard input
// is a number of packets; it sends as many, each a TCP segment of a connection that was not there
// before, and answers with that number. To the kernel they are connections that it sees from the
// middle on.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

// Before <linux/netfilter.h>, which otherwise declares the same names.
#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "PlatformLinuxFilter/FlowMark.hpp"
#include "PlatformLinuxFilter/PacketQueue.hpp"

namespace {

using stillow::platform::filterQueueNumber;
using stillow::platform::PacketQueue;

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

// ---- feed

constexpr std::uint32_t firstAddress = 0x0A630001;  // 10.99.0.1, one address for each hello
constexpr std::uint16_t firstPort = 1024;

using Packet = std::vector<char>;

Packet packetWith(std::string_view hello, std::uint32_t address) {
  iphdr network{};
  network.version = 4;
  network.ihl = sizeof(network) / 4;
  network.ttl = 64;
  network.protocol = IPPROTO_TCP;
  network.daddr = htonl(address);  // the kernel fills in where it comes from, and the checksum
  tcphdr transport{};
  transport.dest = htons(443);
  transport.seq = htonl(1);
  transport.doff = sizeof(transport) / 4;
  transport.ack = 1;
  transport.psh = 1;
  transport.window = htons(512);
  Packet packet(sizeof(network) + sizeof(transport) + hello.size());
  std::memcpy(packet.data(), &network, sizeof(network));
  std::memcpy(packet.data() + sizeof(network), &transport, sizeof(transport));
  std::memcpy(packet.data() + sizeof(network) + sizeof(transport), hello.data(), hello.size());
  return packet;
}

std::vector<Packet> packetsOf(const char* path) {
  std::ifstream file(path, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), {}};
  std::vector<Packet> packets;
  for (std::string_view rest = bytes; rest.size() > 2;) {
    const auto size = static_cast<std::size_t>(static_cast<unsigned char>(rest[0])) * 256 +
                      static_cast<unsigned char>(rest[1]);
    packets.push_back(packetWith(rest.substr(2, size),
                                 firstAddress + static_cast<std::uint32_t>(packets.size())));
    rest.remove_prefix(std::min(rest.size(), 2 + size));
  }
  return packets;
}

int feed(const char* path) {
  auto packets = packetsOf(path);
  const int descriptor = ::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW);
  if (descriptor < 0 || packets.empty()) fail("feed");
  // All packets of a batch are on their way, to the filter, at once.
  const int bufferBytes = 64 << 20;
  if (::setsockopt(descriptor, SOL_SOCKET, SO_SNDBUFFORCE, &bufferBytes, sizeof(bufferBytes)) !=
      0) {
    fail("SO_SNDBUFFORCE");
  }
  sockaddr_in to{};
  to.sin_family = AF_INET;
  std::size_t next = 0;
  std::uint16_t port = firstPort;
  for (std::uint64_t count = 0; std::cin >> count;) {
    for (std::uint64_t index = 0; index < count; ++index) {
      Packet& packet = packets[next];
      const std::uint16_t source = htons(port);
      std::memcpy(packet.data() + sizeof(iphdr) + offsetof(tcphdr, source), &source,
                  sizeof(source));
      std::memcpy(&to.sin_addr, packet.data() + offsetof(iphdr, daddr), sizeof(to.sin_addr));
      if (::sendto(descriptor, packet.data(), packet.size(), 0,
                   reinterpret_cast<const sockaddr*>(&to), sizeof(to)) < 0) {
        fail("sendto");
      }
      if (++next == packets.size()) {
        next = 0;
        port = port == 65'535 ? firstPort : static_cast<std::uint16_t>(port + 1);
      }
    }
    std::cout << count << std::endl;
  }
  return 0;
}

// ---- accept

constexpr std::size_t messageBytes = PacketQueue::copyBytes + 1024;
constexpr std::size_t batchMax = PacketQueue::batchMax;

nlmsghdr* begin(void* memory, std::uint16_t type) {
  nlmsghdr* const message = mnl_nlmsg_put_header(memory);
  message->nlmsg_type = static_cast<std::uint16_t>((NFNL_SUBSYS_QUEUE << 8) | type);
  message->nlmsg_flags = NLM_F_REQUEST;
  auto* const header =
      static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
  header->version = NFNETLINK_V0;
  header->res_id = htons(filterQueueNumber);
  return message;
}

/// With the filter's own settings.
void bindQueue(mnl_socket* socket) {
  alignas(NLMSG_ALIGNTO) std::array<char, 256> memory{};
  nlmsghdr* const message = begin(memory.data(), NFQNL_MSG_CONFIG);
  nfqnl_msg_config_cmd command{};
  command.command = NFQNL_CFG_CMD_BIND;
  mnl_attr_put(message, NFQA_CFG_CMD, sizeof(command), &command);
  nfqnl_msg_config_params parameters{};
  parameters.copy_range = htonl(static_cast<std::uint32_t>(PacketQueue::copyBytes));
  parameters.copy_mode = NFQNL_COPY_PACKET;
  mnl_attr_put(message, NFQA_CFG_PARAMS, sizeof(parameters), &parameters);
  mnl_attr_put_u32(message, NFQA_CFG_QUEUE_MAXLEN, htonl(PacketQueue::lengthMax));
  mnl_attr_put_u32(message, NFQA_CFG_FLAGS, htonl(NFQA_CFG_F_FAIL_OPEN));
  mnl_attr_put_u32(message, NFQA_CFG_MASK, htonl(NFQA_CFG_F_FAIL_OPEN));
  if (mnl_socket_sendto(socket, message, message->nlmsg_len) < 0) fail("bind");
  const int bytes = PacketQueue::receiveBufferBytes;
  if (::setsockopt(mnl_socket_get_fd(socket), SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof(bytes)) !=
      0) {
    fail("SO_RCVBUFFORCE");
  }
}

int takePacketID(const nlattr* attribute, void* id) {
  if (mnl_attr_get_type(attribute) != NFQA_PACKET_HDR) return MNL_CB_OK;
  std::memcpy(id, mnl_attr_get_payload(attribute), sizeof(std::uint32_t));  // its first field
  return MNL_CB_STOP;
}

/// Appends the verdict on the packet in `received`; gives its end.
char* accept(const char* received, char* verdicts) {
  std::uint32_t id = 0;
  (void)mnl_attr_parse(reinterpret_cast<const nlmsghdr*>(received), sizeof(nfgenmsg), takePacketID,
                       &id);
  nlmsghdr* const answer = begin(verdicts, NFQNL_MSG_VERDICT);
  const nfqnl_msg_verdict_hdr verdict{htonl(NF_ACCEPT), id};
  mnl_attr_put(answer, NFQA_VERDICT_HDR, sizeof(verdict), &verdict);
  return verdicts + answer->nlmsg_len;
}

[[noreturn]] void acceptEverything(std::size_t batch) {
  mnl_socket* const socket = mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC);
  if (socket == nullptr || mnl_socket_bind(socket, 0, MNL_SOCKET_AUTOPID) != 0) fail("netlink");
  bindQueue(socket);
  std::cout << "accepting" << std::endl;
  const int descriptor = mnl_socket_get_fd(socket);
  std::vector<char> received(batch * messageBytes);
  std::vector<char> verdicts(batch * 64);
  std::vector<iovec> places(batch);
  std::vector<mmsghdr> messages(batch);
  for (std::size_t slot = 0; slot < batch; ++slot) {
    places[slot] = {received.data() + slot * messageBytes, messageBytes};
    messages[slot].msg_hdr.msg_iov = &places[slot];
    messages[slot].msg_hdr.msg_iovlen = 1;
  }
  for (;;) {
    const int count = ::recvmmsg(descriptor, messages.data(), static_cast<unsigned int>(batch),
                                 MSG_WAITFORONE, nullptr);
    if (count < 0 && (errno == ENOBUFS || errno == EINTR)) continue;
    if (count < 0) fail("recvmmsg");
    char* end = verdicts.data();
    for (std::size_t slot = 0; slot < static_cast<std::size_t>(count); ++slot) {
      end = accept(received.data() + slot * messageBytes, end);
    }
    if (mnl_socket_sendto(socket, verdicts.data(),
                          static_cast<std::size_t>(end - verdicts.data())) < 0) {
      fail("verdict");
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view mode = argc == 3 ? argv[1] : "";
  if (mode == "feed") return feed(argv[2]);
  if (mode == "accept") acceptEverything(std::clamp<std::size_t>(std::stoul(argv[2]), 1, batchMax));
  return 64;
}
