#pragma once

#include <string_view>

namespace stillow::platform {

/// A packet test in the kernel's own filter language, for the rule match `-m bpf`.
///
/// The bytes are what `tcpdump -y RAW -ddd EXPRESSION` prints, its lines joined by commas; a test
/// compiles the expressions again and compares.
struct PayloadMatch {
  std::string_view expression;
  std::string_view bytecode;
};

/// TCP segments with at least one byte of payload. Handshakes and bare acknowledgements never visit
/// user space, so a new HTTPS connection costs one trip; a SYN that carries data (Fast Open) does.
/// Segments that wait for segmentation offload and are longer than the length field can say count
/// as full: the subtraction wraps.
inline constexpr PayloadMatch tcpPayloadIPv4{
    "ip[2:2] - ((ip[0]&0xf)<<2) - ((tcp[12]&0xf0)>>2) > 0",
    "22,48 0 0 0,84 0 0 240,21 0 18 64,40 0 0 2,2 0 0 1,48 0 0 0,84 0 0 15,100 0 0 2,7 0 0 5,"
    "96 0 0 1,28 0 0 0,2 0 0 5,177 0 0 0,80 0 0 12,84 0 0 240,116 0 0 2,7 0 0 9,96 0 0 5,28 0 0 0,"
    "37 0 1 0,6 0 0 262144,6 0 0 0"};

/// Likewise for IPv6. Where extension headers stand before the TCP header its place is not known
/// here, so such packets are matched whole, with payload or without.
inline constexpr PayloadMatch tcpPayloadIPv6{
    "ip6[6] != 6 or ip6[4:2] - ((ip6[52]&0xf0)>>2) > 0",
    "16,48 0 0 0,84 0 0 240,21 0 12 96,48 0 0 6,21 0 9 6,40 0 0 4,2 0 0 3,48 0 0 52,84 0 0 240,"
    "116 0 0 2,7 0 0 7,96 0 0 3,28 0 0 0,37 0 1 0,6 0 0 262144,6 0 0 0"};

/// UDP datagrams that can open a QUIC connection, to whatever port: the first byte has the bit of a
/// long header, and there are 1,200 bytes of payload or more, below which a server has to ignore an
/// Initial packet (RFC 9000, 14.1). The version is left open, and so is the "fixed" bit, which
/// clients may grease (RFC 9287).
///
/// Nothing else over UDP names a host, so nothing else is held up: DNS, WireGuard, voice and games
/// never visit user space.
inline constexpr PayloadMatch quicInitialIPv4{
    "udp[8] & 0x80 != 0 and udp[4:2] >= 1208",
    "14,48 0 0 0,84 0 0 240,21 0 10 64,48 0 0 9,21 0 8 17,40 0 0 6,69 6 0 8191,177 0 0 0,80 0 0 8,"
    "69 0 3 128,72 0 0 4,53 0 1 1208,6 0 0 262144,6 0 0 0"};

inline constexpr PayloadMatch quicInitialIPv6{
    "ip6[6] != 17 or (ip6[48] & 0x80 != 0 and ip6[44:2] >= 1208)",
    "11,48 0 0 0,84 0 0 240,21 0 7 96,48 0 0 6,21 0 4 17,48 0 0 48,69 0 3 128,40 0 0 44,"
    "53 0 1 1208,6 0 0 262144,6 0 0 0"};

}  // namespace stillow::platform
