#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "StillowFiltering/Wire/HostName.hpp"
#include "StillowFiltering/Wire/QUICInitialCrypto.hpp"

namespace stillow::filtering {

/// Reads fields of QUIC from the front of bytes. A read past the end fails and takes nothing.
class QUICFieldCursor {
 public:
  explicit QUICFieldCursor(WireBytes bytes) noexcept : rest_(bytes) {}

  [[nodiscard]] std::optional<WireBytes> bytes(std::uint64_t count) noexcept;
  [[nodiscard]] std::optional<std::uint8_t> byte() noexcept;
  /// Of variable length, up to 2^62 - 1 (RFC 9000, 16).
  [[nodiscard]] std::optional<std::uint64_t> varint() noexcept;
  /// Likewise, `count` of them, whose values do not matter. Stops at the end of the bytes, however
  /// large `count` is.
  [[nodiscard]] bool skipVarints(std::uint64_t count) noexcept;

  /// Takes the zeros that come next: PADDING frames, which fill most of a client's Initial.
  void skipZeros() noexcept;

  [[nodiscard]] WireBytes rest() const noexcept { return rest_; }

 private:
  WireBytes rest_;
};

/// A packet with a long header as it lies in a datagram, still protected. All views are into that.
struct QUICLongPacket {
  /// The kinds that a client sends. Their numbers on the wire differ between the versions.
  enum class Kind : std::uint8_t { initial, zeroRTT, handshake };

  Kind kind{};
  QUICVersion version{};
  WireBytes destinationConnectionID;
  /// From the first byte up to the packet number.
  WireBytes header;
  /// From the packet number to the packet's end.
  WireBytes protectedPart;
  /// What follows in the same datagram.
  WireBytes rest;

  /// None unless `bytes` begin with a whole packet that a client sends in a version known here.
  [[nodiscard]] static std::optional<QUICLongPacket> read(WireBytes bytes) noexcept;
};

/// True for a datagram that a server answers with the versions it knows: the client has put a
/// version into it that nobody here reads, and goes on in another one from the same port. Such a
/// datagram is as large as every first one (RFC 9000, 6.1 and 14.1), which tells it from other
/// protocols.
[[nodiscard]] bool mayLeadToAnotherQUICVersion(WireBytes datagram) noexcept;

/// The packet number closest to `expected` whose low `byteCount` bytes are `truncated` (RFC 9000,
/// A.3).
[[nodiscard]] std::uint64_t fullQUICPacketNumber(std::uint64_t expected, std::uint64_t truncated,
                                                 std::size_t byteCount) noexcept;

}  // namespace stillow::filtering
