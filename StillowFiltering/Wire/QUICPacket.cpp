#include "StillowFiltering/Wire/QUICPacket.hpp"

#include <array>

namespace stillow::filtering {
namespace {

constexpr std::uint8_t longHeaderBit = 0x80;
constexpr std::uint8_t fixedBit = 0x40;

/// None for Retry, which only servers send.
std::optional<QUICLongPacket::Kind> packetKind(QUICVersion version,
                                               std::uint8_t firstByte) noexcept {
  using Kind = std::optional<QUICLongPacket::Kind>;
  using enum QUICLongPacket::Kind;
  static constexpr std::array<Kind, 4> v1Kinds{initial, zeroRTT, handshake, std::nullopt};
  static constexpr std::array<Kind, 4> v2Kinds{std::nullopt, initial, zeroRTT, handshake};
  return (version == QUICVersion::v2 ? v2Kinds : v1Kinds)[firstByte >> 4 & 3];
}

constexpr bool isLongHeader(std::uint8_t firstByte) noexcept {
  return (firstByte & longHeaderBit) != 0 && (firstByte & fixedBit) != 0;
}

/// Of any number, known or not.
std::optional<QUICVersion> readVersion(QUICFieldCursor& cursor) noexcept {
  const auto bytes = cursor.bytes(4);
  if (!bytes) return std::nullopt;
  std::uint32_t number = 0;
  for (const std::uint8_t byte : *bytes) number = number << 8 | byte;
  return static_cast<QUICVersion>(number);
}

constexpr bool isKnown(QUICVersion version) noexcept {
  return version == QUICVersion::v1 || version == QUICVersion::v2;
}

std::optional<WireBytes> readConnectionID(QUICFieldCursor& cursor) noexcept {
  const auto size = cursor.byte();
  if (!size || *size > quicConnectionIDBytesMax) return std::nullopt;
  return cursor.bytes(*size);
}

}  // namespace

std::optional<WireBytes> QUICFieldCursor::bytes(std::uint64_t count) noexcept {
  if (count > rest_.size()) return std::nullopt;
  const WireBytes taken = rest_.first(static_cast<std::size_t>(count));
  rest_ = rest_.subspan(taken.size());
  return taken;
}

std::optional<std::uint8_t> QUICFieldCursor::byte() noexcept {
  const auto taken = bytes(1);
  if (!taken) return std::nullopt;
  return taken->front();
}

std::optional<std::uint64_t> QUICFieldCursor::varint() noexcept {
  if (rest_.empty()) return std::nullopt;
  const auto field = bytes(std::uint64_t{1} << (rest_.front() >> 6));
  if (!field) return std::nullopt;
  std::uint64_t value = field->front() & 0x3f;
  for (const std::uint8_t byte : field->subspan(1)) value = value << 8 | byte;
  return value;
}

bool QUICFieldCursor::skipVarints(std::uint64_t count) noexcept {
  for (; count > 0; --count) {
    if (!varint()) return false;
  }
  return true;
}

void QUICFieldCursor::skipZeros() noexcept {
  std::size_t count = 0;
  while (count < rest_.size() && rest_[count] == 0) ++count;
  rest_ = rest_.subspan(count);
}

std::optional<QUICLongPacket> QUICLongPacket::read(WireBytes bytes) noexcept {
  QUICFieldCursor cursor{bytes};
  const auto firstByte = cursor.byte();
  if (!firstByte || !isLongHeader(*firstByte)) return std::nullopt;
  const auto version = readVersion(cursor);
  if (!version || !isKnown(*version)) return std::nullopt;
  const auto kind = packetKind(*version, *firstByte);
  if (!kind) return std::nullopt;
  const auto destination = readConnectionID(cursor);
  if (!destination || !readConnectionID(cursor)) return std::nullopt;
  if (*kind == Kind::initial) {
    const auto tokenBytes = cursor.varint();
    if (!tokenBytes || !cursor.bytes(*tokenBytes)) return std::nullopt;
  }
  const auto length = cursor.varint();
  if (!length) return std::nullopt;
  const WireBytes header = bytes.first(bytes.size() - cursor.rest().size());
  const auto protectedPart = cursor.bytes(*length);
  if (!protectedPart) return std::nullopt;
  return QUICLongPacket{.kind = *kind,
                        .version = *version,
                        .destinationConnectionID = *destination,
                        .header = header,
                        .protectedPart = *protectedPart,
                        .rest = cursor.rest()};
}

bool mayLeadToAnotherQUICVersion(WireBytes datagram) noexcept {
  constexpr std::size_t firstDatagramBytesMin = 1'200;
  constexpr QUICVersion negotiation{0};  // only servers send it
  QUICFieldCursor cursor{datagram};
  const auto firstByte = cursor.byte();
  if (!firstByte || !isLongHeader(*firstByte)) return false;
  const auto version = readVersion(cursor);
  return version && *version != negotiation && !isKnown(*version) &&
         datagram.size() >= firstDatagramBytesMin;
}

std::uint64_t fullQUICPacketNumber(std::uint64_t expected, std::uint64_t truncated,
                                   std::size_t byteCount) noexcept {
  const std::uint64_t window = std::uint64_t{1} << (8 * byteCount);
  const std::uint64_t half = window / 2;
  constexpr std::uint64_t numbersMax = std::uint64_t{1} << 62;
  const std::uint64_t candidate = (expected & ~(window - 1)) | truncated;
  if (candidate + half <= expected && candidate < numbersMax - window) return candidate + window;
  if (candidate > expected + half && candidate >= window) return candidate - window;
  return candidate;
}

}  // namespace stillow::filtering
