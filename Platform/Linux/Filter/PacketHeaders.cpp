#include "PlatformLinuxFilter/PacketHeaders.hpp"

#include <algorithm>
#include <cstddef>

namespace stillow::platform {

namespace {

using filtering::WireBytes;

constexpr std::size_t ipv4HeaderBytesMin = 20;
constexpr std::size_t ipv6HeaderBytes = 40;
constexpr std::size_t tcpHeaderBytesMin = 20;
constexpr std::size_t udpHeaderBytes = 8;

/// Numbers of the headers that may follow an IP header.
enum NextHeader : std::uint8_t {
  hopByHop = 0,
  tcp = 6,
  udp = 17,
  routing = 43,
  fragment = 44,
  authentication = 51,
  destinationOptions = 60,
  mobility = 135,
};

std::uint16_t number16(WireBytes bytes, std::size_t at) noexcept {
  return static_cast<std::uint16_t>((bytes[at] << 8) | bytes[at + 1]);
}

std::uint32_t number32(WireBytes bytes, std::size_t at) noexcept {
  return (std::uint32_t{number16(bytes, at)} << 16) | number16(bytes, at + 2);
}

/// A transport header with what follows it, and which one it is.
struct Transport {
  std::uint8_t protocol = 0;
  WireBytes bytes;
};

std::optional<Transport> readIPv4(WireBytes packet, FlowKey& flow) noexcept {
  if (packet.size() < ipv4HeaderBytesMin) return std::nullopt;
  const std::size_t headerBytes = std::size_t{packet[0] & 0x0fU} * 4;
  const std::size_t totalBytes = number16(packet, 2);
  if (headerBytes < ipv4HeaderBytesMin || totalBytes < headerBytes) return std::nullopt;
  const bool isLaterFragment = (number16(packet, 6) & 0x1fff) != 0;
  if (isLaterFragment) return std::nullopt;
  packet = packet.first(std::min(packet.size(), totalBytes));
  if (packet.size() < headerBytes) return std::nullopt;
  std::copy_n(packet.begin() + 12, 4, flow.source.begin());
  std::copy_n(packet.begin() + 16, 4, flow.destination.begin());
  return Transport{packet[9], packet.subspan(headerBytes)};
}

/// Follows the chain of extension headers to the transport header.
std::optional<Transport> skipExtensionHeaders(Transport next) noexcept {
  for (int count = 0; count <= PacketHeaders::extensionHeadersMax; ++count) {
    std::size_t headerBytes = 0;
    switch (next.protocol) {
      case tcp:
      case udp:
        return next;
      case hopByHop:
      case routing:
      case destinationOptions:
      case mobility:
        if (next.bytes.size() < 8) return std::nullopt;
        headerBytes = (std::size_t{next.bytes[1]} + 1) * 8;
        break;
      case authentication:
        if (next.bytes.size() < 8) return std::nullopt;
        headerBytes = (std::size_t{next.bytes[1]} + 2) * 4;
        break;
      case fragment: {
        if (next.bytes.size() < 8) return std::nullopt;
        const bool isLaterFragment = (number16(next.bytes, 2) & 0xfff8) != 0;
        if (isLaterFragment) return std::nullopt;
        headerBytes = 8;
        break;
      }
      default:
        return std::nullopt;
    }
    if (next.bytes.size() < headerBytes) return std::nullopt;
    next = {next.bytes[0], next.bytes.subspan(headerBytes)};
  }
  return std::nullopt;
}

std::optional<Transport> readIPv6(WireBytes packet, FlowKey& flow) noexcept {
  if (packet.size() < ipv6HeaderBytes) return std::nullopt;
  const std::size_t payloadBytes = number16(packet, 4);
  // 0 means that the length stands in a jumbogram's option: then the capture's end has to do.
  const bool hasLength = payloadBytes != 0;
  if (hasLength) packet = packet.first(std::min(packet.size(), ipv6HeaderBytes + payloadBytes));
  flow.isIPv6 = true;
  std::copy_n(packet.begin() + 8, 16, flow.source.begin());
  std::copy_n(packet.begin() + 24, 16, flow.destination.begin());
  return skipExtensionHeaders({packet[6], packet.subspan(ipv6HeaderBytes)});
}

bool readTCP(WireBytes bytes, PacketHeaders& headers) noexcept {
  if (bytes.size() < tcpHeaderBytesMin) return false;
  const std::size_t headerBytes = std::size_t{bytes[12]} / 16 * 4;
  if (headerBytes < tcpHeaderBytesMin || bytes.size() < headerBytes) return false;
  constexpr std::uint8_t synFlag = 0x02;
  headers.flow.protocol = FlowKey::Protocol::tcp;
  headers.sequence = number32(bytes, 4);
  headers.isSYN = (bytes[13] & synFlag) != 0;
  headers.payload = bytes.subspan(headerBytes);
  return true;
}

bool readUDP(WireBytes bytes, PacketHeaders& headers) noexcept {
  if (bytes.size() < udpHeaderBytes) return false;
  const std::size_t datagramBytes = number16(bytes, 4);
  if (datagramBytes < udpHeaderBytes) return false;
  headers.flow.protocol = FlowKey::Protocol::udp;
  headers.payload = bytes.first(std::min(bytes.size(), datagramBytes)).subspan(udpHeaderBytes);
  return true;
}

}  // namespace

std::optional<PacketHeaders> PacketHeaders::read(WireBytes packet) noexcept {
  if (packet.empty()) return std::nullopt;
  PacketHeaders headers;
  std::optional<Transport> transport;
  switch (packet[0] >> 4) {
    case 4:
      transport = readIPv4(packet, headers.flow);
      break;
    case 6:
      transport = readIPv6(packet, headers.flow);
      break;
    default:
      break;
  }
  if (!transport) return std::nullopt;
  const bool isWhole = transport->protocol == tcp   ? readTCP(transport->bytes, headers)
                       : transport->protocol == udp ? readUDP(transport->bytes, headers)
                                                    : false;
  if (!isWhole) return std::nullopt;
  headers.flow.sourcePort = number16(transport->bytes, 0);
  headers.flow.destinationPort = number16(transport->bytes, 2);
  return headers;
}

}  // namespace stillow::platform
