#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>

#include "StillowFiltering/FlowAddress.hpp"

namespace stillow::platform {

/// What tells one flow from another: protocol, addresses and ports as the client's packets have
/// them.
struct FlowKey {
  enum class Protocol : std::uint8_t { tcp = 6, udp = 17 };

  /// An IPv4 address lies in the first four bytes, the others are 0.
  using AddressBytes = std::array<std::uint8_t, 16>;

  AddressBytes source{};
  AddressBytes destination{};
  std::uint16_t sourcePort = 0;
  std::uint16_t destinationPort = 0;
  Protocol protocol = Protocol::tcp;
  bool isIPv6 = false;

  [[nodiscard]] filtering::FlowAddress remoteAddress() const noexcept;

  friend bool operator==(const FlowKey&, const FlowKey&) = default;
};

/// Hashes flow keys with numbers drawn at start, because whoever sends packets chooses the keys and
/// could otherwise make them all share a bucket.
class FlowKeyHash {
 public:
  /// Keyed at random.
  FlowKeyHash();
  explicit FlowKeyHash(std::uint64_t seed) noexcept;

  [[nodiscard]] std::size_t operator()(const FlowKey& key) const noexcept;

 private:
  std::array<std::uint64_t, 6> factors_{};
};

}  // namespace stillow::platform
