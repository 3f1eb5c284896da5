#pragma once

#include <cstdint>
#include <string_view>

#include "../StillowFiltering/WireTesting.hpp"
#include "PlatformLinuxFilter/FlowKey.hpp"

/// Packets as the kernel hands them over, made by hand for the tests of what reads them.
namespace stillow::platform::testing {

using filtering::WireBytes;
using filtering::testing::append;
using filtering::testing::appendNumber;
using filtering::testing::Bytes;
using filtering::testing::bytesOf;

/// A flow from 192.0.2.1 or 2001:db8::1, with the last byte of the far address to choose.
inline FlowKey flowTo(std::uint8_t host, std::uint16_t sourcePort = 40'000,
                      FlowKey::Protocol protocol = FlowKey::Protocol::tcp, bool isIPv6 = false) {
  FlowKey key;
  key.isIPv6 = isIPv6;
  key.protocol = protocol;
  key.source = isIPv6
                   ? FlowKey::AddressBytes{0x20, 1, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}
                   : FlowKey::AddressBytes{192, 0, 2, 1};
  key.destination =
      isIPv6 ? FlowKey::AddressBytes{0x20, 1, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, host}
             : FlowKey::AddressBytes{198, 51, 100, host};
  key.sourcePort = sourcePort;
  key.destinationPort = 443;
  return key;
}

struct TCPFields {
  std::uint32_t sequence = 1'000;
  bool isSYN = false;
  std::size_t optionBytes = 0;  ///< a multiple of 4, at most 40
};

inline Bytes tcpSegment(const FlowKey& flow, WireBytes payload, TCPFields fields = {}) {
  Bytes bytes;
  appendNumber(bytes, flow.sourcePort, 2);
  appendNumber(bytes, flow.destinationPort, 2);
  appendNumber(bytes, fields.sequence, 4);
  appendNumber(bytes, 0, 4);  // acknowledgement
  bytes.push_back(static_cast<std::uint8_t>((5 + fields.optionBytes / 4) << 4));
  bytes.push_back(fields.isSYN ? 0x02 : 0x18);
  appendNumber(bytes, 0xffff, 2);
  appendNumber(bytes, 0, 4);  // checksum and urgent pointer
  bytes.insert(bytes.end(), fields.optionBytes, 1);
  append(bytes, payload);
  return bytes;
}

inline Bytes udpDatagram(const FlowKey& flow, WireBytes payload) {
  Bytes bytes;
  appendNumber(bytes, flow.sourcePort, 2);
  appendNumber(bytes, flow.destinationPort, 2);
  appendNumber(bytes, payload.size() + 8, 2);
  appendNumber(bytes, 0, 2);
  append(bytes, payload);
  return bytes;
}

inline Bytes ipv4Packet(const FlowKey& flow, WireBytes transport, std::size_t optionBytes = 0,
                        std::uint16_t fragmentField = 0) {
  Bytes bytes;
  bytes.push_back(static_cast<std::uint8_t>(0x45 + optionBytes / 4));
  bytes.push_back(0);
  appendNumber(bytes, 20 + optionBytes + transport.size(), 2);
  appendNumber(bytes, 0, 2);
  appendNumber(bytes, fragmentField, 2);
  bytes.push_back(64);
  bytes.push_back(static_cast<std::uint8_t>(flow.protocol));
  appendNumber(bytes, 0, 2);
  append(bytes, WireBytes(flow.source).first(4));
  append(bytes, WireBytes(flow.destination).first(4));
  bytes.insert(bytes.end(), optionBytes, 1);
  append(bytes, transport);
  return bytes;
}

/// `extensions` are whole extension headers; `firstHeader` is the number of the first of them.
inline Bytes ipv6Packet(const FlowKey& flow, WireBytes transport, WireBytes extensions = {},
                        std::uint8_t firstHeader = 0) {
  Bytes bytes;
  appendNumber(bytes, 0x60000000, 4);
  appendNumber(bytes, extensions.size() + transport.size(), 2);
  bytes.push_back(extensions.empty() ? static_cast<std::uint8_t>(flow.protocol) : firstHeader);
  bytes.push_back(64);
  append(bytes, flow.source);
  append(bytes, flow.destination);
  append(bytes, extensions);
  append(bytes, transport);
  return bytes;
}

inline Bytes tcpPacket(const FlowKey& flow, WireBytes payload, TCPFields fields = {}) {
  const auto segment = tcpSegment(flow, payload, fields);
  return flow.isIPv6 ? ipv6Packet(flow, segment) : ipv4Packet(flow, segment);
}

inline Bytes udpPacket(const FlowKey& flow, WireBytes payload) {
  const auto datagram = udpDatagram(flow, payload);
  return flow.isIPv6 ? ipv6Packet(flow, datagram) : ipv4Packet(flow, datagram);
}

inline Bytes requestFor(std::string_view host) {
  return bytesOf("GET / HTTP/1.1\r\nHost: " + std::string(host) + "\r\n\r\n");
}

}  // namespace stillow::platform::testing
