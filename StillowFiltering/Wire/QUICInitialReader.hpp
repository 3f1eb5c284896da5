#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "StillowFiltering/Wire/NameReading.hpp"
#include "StillowFiltering/Wire/PrefixAssembly.hpp"
#include "StillowFiltering/Wire/QUICInitialCrypto.hpp"

namespace stillow::filtering {

struct QUICLongPacket;

/// Reads the name of one UDP flow from the ClientHello in its QUIC Initial packets (versions 1 and
/// 2). Datagrams may come in any order and more than once, the CRYPTO frames in them too; packets
/// may share a datagram. Anything that is not QUIC is `none` at its first datagram; a client that
/// begins in an unknown version is waited for, since the server makes it take another.
///
/// About 5 KiB, trivially copyable, cheap to construct: try a flow's first datagram with a reader
/// on the stack and put a copy of it into a bounded flow table only if that needs more. Not safe
/// for use from two threads at once.
class QUICInitialReader {
 public:
  /// Bytes offered for a flow, repeats included, after which it is given up, so that packets
  /// without any new piece of the hello cannot keep a flow under inspection for ever.
  static constexpr std::size_t offeredBytesMax = 65'536;
  /// Initial packets read in one datagram. A client has one, or two when it also retransmits.
  static constexpr std::size_t packetsPerDatagramMax = 8;
  /// Payload of an Initial packet; more is no client's. Initials are sent before the path's size is
  /// known, so they stay far below this.
  static constexpr std::size_t packetPayloadBytesMax = 4096;

  QUICInitialReader() noexcept {
  }  // NOLINT: `= default` would clear the buffer on value-initialisation.

  /// What is known once this datagram (the whole UDP payload) is there too. After `found` or `none`
  /// the flow is decided and the reader has nothing more to say.
  ///
  /// Keys follow the destination connection id of the client's first Initial. An Initial that opens
  /// only with its own id starts anew: that is what follows a Retry, a version negotiation, or a
  /// new attempt from the same port. What does not authenticate is `none`, unless the flow has
  /// already shown a good Initial: then it is passed over, as the server does.
  [[nodiscard]] NameReading take(WireBytes datagram, QUICInitialCrypto& crypto) noexcept;

  /// Bytes of the hello that were looked at: those up to the first gap; once `take` has answered
  /// `none` the whole bound, because no name can follow. Never more than `inspectedBytesMax`.
  [[nodiscard]] std::size_t inspectedByteCount() const noexcept {
    return isGivenUp_ ? inspectedBytesMax : assembly_.prefix().size();
  }

 private:
  /// One attempt to connect: what derives and uses one set of keys.
  struct Attempt {
    QUICVersion version{};
    std::array<std::uint8_t, quicConnectionIDBytesMax> destinationStorage{};
    std::size_t destinationBytes = 0;
    QUICInitialKeys keys;
    std::uint64_t nextPacketNumber = 0;

    [[nodiscard]] WireBytes destination() const noexcept {
      return WireBytes{destinationStorage}.first(destinationBytes);
    }
  };
  enum class FramesEnd : std::uint8_t { reached, connectionClosed, malformed };

  [[nodiscard]] NameReading giveUp() noexcept;
  /// The frames of `packet`, decrypted into `plaintext`; none if it opens with no key.
  [[nodiscard]] std::optional<WireBytes> open(const QUICLongPacket& packet,
                                              QUICInitialCrypto& crypto,
                                              std::span<std::uint8_t> plaintext) noexcept;
  [[nodiscard]] static std::optional<WireBytes> openWith(
      Attempt& attempt, const QUICLongPacket& packet, QUICInitialCrypto& crypto,
      std::span<std::uint8_t> plaintext) noexcept;
  [[nodiscard]] FramesEnd takeFrames(WireBytes frames) noexcept;

  std::optional<Attempt> attempt_;
  std::size_t offeredBytes_ = 0;
  bool isGivenUp_ = false;
  PrefixAssembly assembly_;
};

}  // namespace stillow::filtering
