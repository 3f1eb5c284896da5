#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "StillowFiltering/Wire/HostName.hpp"

struct evp_cipher_ctx_st;
struct evp_mac_ctx_st;

namespace stillow::filtering {

/// The versions whose Initial packets can be read. The value is the one on the wire.
enum class QUICVersion : std::uint32_t {
  v1 = 0x00000001,  ///< RFC 9000, keys of RFC 9001
  v2 = 0x6b3343cf,  ///< RFC 9369
};

/// Longest connection id in either version.
inline constexpr std::size_t quicConnectionIDBytesMax = 20;

/// What protects a client's Initial packets. No secret: anybody who saw the first one can derive
/// it.
struct QUICInitialKeys {
  std::array<std::uint8_t, 16> key{};
  std::array<std::uint8_t, 12> iv{};
  std::array<std::uint8_t, 16> headerProtectionKey{};

  friend bool operator==(const QUICInitialKeys&, const QUICInitialKeys&) = default;
};

/// The cryptography of QUIC Initial packets, with OpenSSL's contexts kept for use after use so that
/// opening a packet allocates nothing. One for each thread that reads packets, for its whole life.
///
/// When OpenSSL fails, the answer is the one for a packet that does not authenticate.
class QUICInitialCrypto {
 public:
  /// Stops the process when OpenSSL has no AES-128-GCM, AES-128-ECB or HMAC: a broken installation,
  /// better noticed at the start than at the first packet.
  QUICInitialCrypto();

  /// The keys for what a client sends after a first Initial with this destination connection id.
  /// None for an empty one: no client begins with that.
  [[nodiscard]] std::optional<QUICInitialKeys> deriveClientKeys(
      QUICVersion version, WireBytes destinationConnectionID) noexcept;

  using Sample = std::span<const std::uint8_t, 16>;
  /// The mask that covers bits of the first byte (mask[0]) and the packet number (the others).
  [[nodiscard]] std::optional<std::array<std::uint8_t, 5>> headerMask(const QUICInitialKeys& keys,
                                                                      Sample sample) noexcept;

  struct SealedPacket {
    std::uint64_t packetNumber = 0;
    /// The header without protection, up to and with the packet number. In three pieces, because
    /// only the outer two differ from what came over the wire.
    std::array<WireBytes, 3> header;
    /// Ciphertext and, in its last 16 bytes, the tag.
    WireBytes payload;
  };
  static constexpr std::size_t tagBytes = 16;

  /// Decrypts into the front of `plaintext`, which has room for the payload without its tag. False
  /// if the packet does not authenticate; what then lies in `plaintext` is not to be looked at.
  [[nodiscard]] bool open(const QUICInitialKeys& keys, const SealedPacket& packet,
                          std::span<std::uint8_t> plaintext) noexcept;

 private:
  struct Deleter {
    void operator()(evp_cipher_ctx_st* context) const noexcept;
    void operator()(evp_mac_ctx_st* context) const noexcept;
  };
  std::unique_ptr<evp_cipher_ctx_st, Deleter> packetCipher_;
  std::unique_ptr<evp_cipher_ctx_st, Deleter> headerCipher_;
  std::unique_ptr<evp_mac_ctx_st, Deleter> hmac_;
};

}  // namespace stillow::filtering
