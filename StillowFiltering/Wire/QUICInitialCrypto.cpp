#include "StillowFiltering/Wire/QUICInitialCrypto.hpp"

#include <algorithm>
#include <limits>
#include <string_view>

#include <openssl/core_names.h>
#include <openssl/evp.h>

#include "StillowCore/Invariant.hpp"

namespace stillow::filtering {
namespace {

/// What a version derives its keys with (RFC 9001, 5.2 and 5.1; RFC 9369, 3.3.1 and 3.3.2).
struct VersionConstants {
  std::array<std::uint8_t, 20> salt;
  std::string_view keyLabel;
  std::string_view ivLabel;
  std::string_view headerProtectionLabel;
};

constexpr VersionConstants v1Constants{
    .salt = {0x38, 0x76, 0x2c, 0xf7, 0xf5, 0x59, 0x34, 0xb3, 0x4d, 0x17,
             0x9a, 0xe6, 0xa4, 0xc8, 0x0c, 0xad, 0xcc, 0xbb, 0x7f, 0x0a},
    .keyLabel = "quic key",
    .ivLabel = "quic iv",
    .headerProtectionLabel = "quic hp"};
constexpr VersionConstants v2Constants{
    .salt = {0x0d, 0xed, 0xe3, 0xde, 0xf7, 0x00, 0xa6, 0xdb, 0x81, 0x93,
             0x81, 0xbe, 0x6e, 0x26, 0x9d, 0xcb, 0xf9, 0xbd, 0x2e, 0xd9},
    .keyLabel = "quicv2 key",
    .ivLabel = "quicv2 iv",
    .headerProtectionLabel = "quicv2 hp"};

/// The longest key or secret here, and what SHA-256 puts out.
using HashBlock = std::array<std::uint8_t, 32>;

/// HMAC with SHA-256, and so each of HKDF's two steps for keys of at most one block (RFC 5869): the
/// extraction has the salt as key, the expansion has the secret as key and ends its message in 1.
/// OpenSSL's own HKDF takes twice as long for the same, on parameters and their copies.
bool hmac(evp_mac_ctx_st* context, WireBytes key, WireBytes message, HashBlock& out) noexcept {
  std::size_t size = 0;
  return EVP_MAC_init(context, key.data(), key.size(), nullptr) == 1 &&
         EVP_MAC_update(context, message.data(), message.size()) == 1 &&
         EVP_MAC_final(context, out.data(), &size, out.size()) == 1 && size == out.size();
}

/// What is hashed for HKDF-Expand-Label with an empty context (RFC 8446, 7.1) and one block.
class LabelInfo {
 public:
  LabelInfo(std::string_view label, std::size_t outBytes) noexcept {
    constexpr std::string_view prefix = "tls13 ";
    append(0);
    append(outBytes);
    append(prefix.size() + label.size());
    for (const char c : prefix) append(static_cast<unsigned char>(c));
    for (const char c : label) append(static_cast<unsigned char>(c));
    append(0);
    append(1);
  }
  [[nodiscard]] WireBytes bytes() const noexcept { return {bytes_.data(), size_}; }

 private:
  void append(std::size_t byte) noexcept { bytes_[size_++] = static_cast<std::uint8_t>(byte); }

  std::array<std::uint8_t, 32> bytes_{};
  std::size_t size_ = 0;
};

constexpr int intSize(std::size_t size) noexcept { return static_cast<int>(size); }

}  // namespace

void QUICInitialCrypto::Deleter::operator()(evp_cipher_ctx_st* context) const noexcept {
  EVP_CIPHER_CTX_free(context);
}
void QUICInitialCrypto::Deleter::operator()(evp_mac_ctx_st* context) const noexcept {
  EVP_MAC_CTX_free(context);
}

QUICInitialCrypto::QUICInitialCrypto()
    : packetCipher_(EVP_CIPHER_CTX_new()), headerCipher_(EVP_CIPHER_CTX_new()) {
  // The algorithms stay in the contexts; later calls only change the keys.
  const bool hasCiphers =
      packetCipher_ && headerCipher_ &&
      EVP_DecryptInit_ex2(packetCipher_.get(), EVP_aes_128_gcm(), nullptr, nullptr, nullptr) == 1 &&
      EVP_EncryptInit_ex2(headerCipher_.get(), EVP_aes_128_ecb(), nullptr, nullptr, nullptr) == 1;
  core::require(hasCiphers, "OpenSSL has no AES-128-GCM or AES-128-ECB");

  EVP_MAC* algorithm = EVP_MAC_fetch(nullptr, OSSL_MAC_NAME_HMAC, nullptr);
  hmac_.reset(EVP_MAC_CTX_new(algorithm));  // holds a reference of its own
  EVP_MAC_free(algorithm);
  char digest[] = "SHA256";
  const std::array parameters{OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, 0),
                              OSSL_PARAM_construct_end()};
  core::require(hmac_ && EVP_MAC_CTX_set_params(hmac_.get(), parameters.data()) == 1,
                "OpenSSL has no HMAC with SHA-256");
}

std::optional<QUICInitialKeys> QUICInitialCrypto::deriveClientKeys(
    QUICVersion version, WireBytes destinationConnectionID) noexcept {
  const VersionConstants& constants = version == QUICVersion::v2 ? v2Constants : v1Constants;
  HashBlock initialSecret{};
  HashBlock clientSecret{};
  const auto expand = [&](std::string_view label, std::span<std::uint8_t> out) {
    HashBlock block{};
    if (!hmac(hmac_.get(), clientSecret, LabelInfo{label, out.size()}.bytes(), block)) return false;
    std::ranges::copy(WireBytes{block}.first(out.size()), out.begin());
    return true;
  };
  QUICInitialKeys keys;
  const bool isDerived =
      hmac(hmac_.get(), constants.salt, destinationConnectionID, initialSecret) &&
      hmac(hmac_.get(), initialSecret, LabelInfo{"client in", clientSecret.size()}.bytes(),
           clientSecret) &&
      expand(constants.keyLabel, keys.key) && expand(constants.ivLabel, keys.iv) &&
      expand(constants.headerProtectionLabel, keys.headerProtectionKey);
  if (!isDerived) return std::nullopt;
  return keys;
}

std::optional<std::array<std::uint8_t, 5>> QUICInitialCrypto::headerMask(
    const QUICInitialKeys& keys, Sample sample) noexcept {
  std::array<std::uint8_t, 32> block{};  // one block of output; OpenSSL may buffer another
  int written = 0;
  const bool isEncrypted =
      EVP_EncryptInit_ex2(headerCipher_.get(), nullptr, keys.headerProtectionKey.data(), nullptr,
                          nullptr) == 1 &&
      EVP_EncryptUpdate(headerCipher_.get(), block.data(), &written, sample.data(),
                        intSize(sample.size())) == 1 &&
      written == intSize(sample.size());
  if (!isEncrypted) return std::nullopt;
  return std::array<std::uint8_t, 5>{block[0], block[1], block[2], block[3], block[4]};
}

bool QUICInitialCrypto::open(const QUICInitialKeys& keys, const SealedPacket& packet,
                             std::span<std::uint8_t> plaintext) noexcept {
  if (packet.payload.size() < tagBytes) return false;
  const WireBytes ciphertext = packet.payload.first(packet.payload.size() - tagBytes);
  if (ciphertext.size() > plaintext.size() ||
      packet.payload.size() > std::numeric_limits<std::uint16_t>::max()) {
    return false;
  }
  std::array<std::uint8_t, tagBytes> tag;
  std::ranges::copy(packet.payload.last(tagBytes), tag.begin());

  std::array<std::uint8_t, 12> nonce = keys.iv;
  for (std::size_t i = 0; i < sizeof packet.packetNumber; ++i) {
    nonce[nonce.size() - 1 - i] ^= static_cast<std::uint8_t>(packet.packetNumber >> (8 * i));
  }

  evp_cipher_ctx_st* const context = packetCipher_.get();
  int written = 0;
  if (EVP_DecryptInit_ex2(context, nullptr, keys.key.data(), nonce.data(), nullptr) != 1) {
    return false;
  }
  for (const WireBytes piece : packet.header) {
    if (EVP_DecryptUpdate(context, nullptr, &written, piece.data(), intSize(piece.size())) != 1) {
      return false;
    }
  }
  return EVP_DecryptUpdate(context, plaintext.data(), &written, ciphertext.data(),
                           intSize(ciphertext.size())) == 1 &&
         EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_SET_TAG, intSize(tag.size()), tag.data()) ==
             1 &&
         EVP_DecryptFinal_ex(context, plaintext.data() + written, &written) == 1;
}

}  // namespace stillow::filtering
