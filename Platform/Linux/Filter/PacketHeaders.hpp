#pragma once

#include <cstdint>
#include <optional>

#include "PlatformLinuxFilter/FlowKey.hpp"
#include "StillowFiltering/Wire/HostName.hpp"

namespace stillow::platform {

/// One IP packet, as the kernel hands it over: from its IP header on, perhaps cut short.
struct PacketHeaders {
  /// Extension headers that are looked through in IPv6; a packet with more is no flow's.
  static constexpr int extensionHeadersMax = 8;

  FlowKey flow;
  std::uint32_t sequence = 0;    ///< TCP only
  bool isSYN = false;            ///< TCP only: opens a connection, perhaps with payload (Fast Open)
  filtering::WireBytes payload;  ///< a view into the packet, without what lies past the IP length

  /// None for what is not TCP or UDP over IPv4 or IPv6, for fragments but the first, and for bytes
  /// that end before the headers do or whose lengths contradict each other. Reads no byte outside
  /// `packet` and allocates nothing.
  [[nodiscard]] static std::optional<PacketHeaders> read(filtering::WireBytes packet) noexcept;
};

}  // namespace stillow::platform
