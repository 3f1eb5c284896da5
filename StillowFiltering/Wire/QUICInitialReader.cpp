#include "StillowFiltering/Wire/QUICInitialReader.hpp"

#include <algorithm>
#include <array>
#include <type_traits>

#include "StillowFiltering/Wire/ClientHelloReader.hpp"
#include "StillowFiltering/Wire/QUICPacket.hpp"

namespace stillow::filtering {

static_assert(std::is_trivially_copyable_v<QUICInitialReader>);

NameReading QUICInitialReader::take(WireBytes datagram, QUICInitialCrypto& crypto) noexcept {
  using Kind = QUICLongPacket::Kind;
  if (isGivenUp_) return NameReading::none{};
  offeredBytes_ += datagram.size();

  std::array<std::uint8_t, packetPayloadBytesMax> plaintext;
  // Initials, early data and a call for another version say that the hello may still be on its way.
  // Any other datagram comes after the server has answered all of it, or is not QUIC.
  bool hasInitial = false;
  bool hasEarlyData = false;
  bool hasLaterPacket = false;
  WireBytes rest = datagram;
  std::optional<WireBytes> destination;
  for (std::size_t count = 0; count < packetsPerDatagramMax; ++count) {
    const auto packet = QUICLongPacket::read(rest);
    if (!packet) break;
    // Packets that share a datagram are for one connection; servers ignore the others.
    if (!destination) destination = packet->destinationConnectionID;
    if (!std::ranges::equal(*destination, packet->destinationConnectionID)) break;
    rest = packet->rest;

    if (packet->kind == Kind::zeroRTT) hasEarlyData = true;
    if (packet->kind == Kind::handshake) hasLaterPacket = true;
    if (packet->kind != Kind::initial) continue;
    hasInitial = true;
    const auto frames = open(*packet, crypto, plaintext);
    if (!frames) continue;
    const FramesEnd end = takeFrames(*frames);
    // Such a packet ends the connection, whatever its readable frames said.
    if (end == FramesEnd::malformed) return giveUp();
    if (end == FramesEnd::connectionClosed) hasLaterPacket = true;
  }

  const NameReading reading = readClientHelloMessage(assembly_.prefix());
  if (reading.isNone()) return giveUp();
  if (!reading.needsMore()) return reading;

  const bool isUnreadable = hasInitial && !attempt_;
  const bool isOnItsWay = hasInitial || hasEarlyData || mayLeadToAnotherQUICVersion(datagram);
  const bool mayContinue = isOnItsWay && !hasLaterPacket && !isUnreadable;
  if (!mayContinue || offeredBytes_ >= offeredBytesMax) return giveUp();
  return reading;
}

std::optional<WireBytes> QUICInitialReader::open(const QUICLongPacket& packet,
                                                 QUICInitialCrypto& crypto,
                                                 std::span<std::uint8_t> plaintext) noexcept {
  if (attempt_ && attempt_->version == packet.version) {
    // Also with another id than the first: once the server has answered, the client uses its id.
    if (const auto frames = openWith(*attempt_, packet, crypto, plaintext)) return frames;
    if (std::ranges::equal(attempt_->destination(), packet.destinationConnectionID)) {
      return std::nullopt;
    }
  }
  const auto keys = crypto.deriveClientKeys(packet.version, packet.destinationConnectionID);
  if (!keys) return std::nullopt;
  Attempt next;
  next.version = packet.version;
  next.keys = *keys;
  next.destinationBytes = packet.destinationConnectionID.size();
  std::ranges::copy(packet.destinationConnectionID, next.destinationStorage.begin());
  const auto frames = openWith(next, packet, crypto, plaintext);
  if (!frames) return std::nullopt;
  // A new attempt sends its hello from the beginning.
  if (attempt_) assembly_ = PrefixAssembly{};
  attempt_ = next;
  return frames;
}

std::optional<WireBytes> QUICInitialReader::openWith(Attempt& attempt, const QUICLongPacket& packet,
                                                     QUICInitialCrypto& crypto,
                                                     std::span<std::uint8_t> plaintext) noexcept {
  // The sample lies where the payload begins after a packet number of the greatest length.
  constexpr std::size_t packetNumberBytesMax = 4;
  constexpr std::size_t sampleBytes = QUICInitialCrypto::Sample::extent;
  const WireBytes sealed = packet.protectedPart;
  if (sealed.size() < packetNumberBytesMax + sampleBytes) return std::nullopt;
  const auto sample = sealed.subspan<packetNumberBytesMax, sampleBytes>();
  const auto mask = crypto.headerMask(attempt.keys, sample);
  if (!mask) return std::nullopt;

  const auto firstByte = static_cast<std::uint8_t>(packet.header.front() ^ ((*mask)[0] & 0x0f));
  const std::size_t numberBytes = (firstByte & 0x03) + std::size_t{1};
  std::array<std::uint8_t, packetNumberBytesMax> number{};
  std::uint64_t truncated = 0;
  for (std::size_t i = 0; i < numberBytes; ++i) {
    number[i] = static_cast<std::uint8_t>(sealed[i] ^ (*mask)[i + 1]);
    truncated = truncated << 8 | number[i];
  }

  const QUICInitialCrypto::SealedPacket contents{
      .packetNumber = fullQUICPacketNumber(attempt.nextPacketNumber, truncated, numberBytes),
      .header = {WireBytes{&firstByte, 1}, packet.header.subspan(1),
                 WireBytes{number}.first(numberBytes)},
      .payload = sealed.subspan(numberBytes)};
  if (!crypto.open(attempt.keys, contents, plaintext)) return std::nullopt;
  attempt.nextPacketNumber = std::max(attempt.nextPacketNumber, contents.packetNumber + 1);
  return plaintext.first(contents.payload.size() - QUICInitialCrypto::tagBytes);
}

QUICInitialReader::FramesEnd QUICInitialReader::takeFrames(WireBytes frames) noexcept {
  // The frames that an Initial may carry (RFC 9000, 12.4).
  constexpr std::uint64_t padding = 0x00;
  constexpr std::uint64_t ping = 0x01;
  constexpr std::uint64_t ack = 0x02;
  constexpr std::uint64_t ackWithECN = 0x03;
  constexpr std::uint64_t crypto = 0x06;
  constexpr std::uint64_t connectionClose = 0x1c;

  QUICFieldCursor cursor{frames};
  while (!cursor.rest().empty()) {
    const auto type = cursor.varint();
    if (!type) return FramesEnd::malformed;
    switch (*type) {
      case padding:
        cursor.skipZeros();
        break;
      case ping:
        break;
      case ack:
      case ackWithECN: {
        if (!cursor.skipVarints(2)) return FramesEnd::malformed;  // largest, delay
        const auto rangeCount = cursor.varint();
        if (!rangeCount || !cursor.skipVarints(1)) return FramesEnd::malformed;
        const std::uint64_t counts = *type == ackWithECN ? 3 : 0;
        if (!cursor.skipVarints(2 * *rangeCount) || !cursor.skipVarints(counts)) {
          return FramesEnd::malformed;
        }
        break;
      }
      case crypto: {
        const auto offset = cursor.varint();
        const auto size = cursor.varint();
        if (!offset || !size) return FramesEnd::malformed;
        const auto data = cursor.bytes(*size);
        if (!data) return FramesEnd::malformed;
        assembly_.insert(*offset, *data);
        break;
      }
      case connectionClose:
        return FramesEnd::connectionClosed;
      default:
        return FramesEnd::malformed;
    }
  }
  return FramesEnd::reached;
}

NameReading QUICInitialReader::giveUp() noexcept {
  isGivenUp_ = true;
  return NameReading::none{};
}

}  // namespace stillow::filtering
