#include "StillowFiltering/Wire/QUICInitialCrypto.hpp"

#include <algorithm>
#include <limits>
#include <string_view>

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>

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

/// One HKDF call with SHA-256. A secret that was extracted before is expanded only, so it has no
/// salt.
bool hkdf(evp_kdf_ctx_st* context, WireBytes secret, WireBytes salt, WireBytes info,
          std::span<std::uint8_t> out) noexcept {
  // OpenSSL's parameters take pointers to mutable memory but only read from these.
  const auto octets = [](const char* name, WireBytes bytes) {
    return OSSL_PARAM_construct_octet_string(name, const_cast<std::uint8_t*>(bytes.data()),
                                             bytes.size());
  };
  int mode = salt.empty() ? EVP_KDF_HKDF_MODE_EXPAND_ONLY : EVP_KDF_HKDF_MODE_EXTRACT_AND_EXPAND;
  char digest[] = "SHA256";
  std::array<OSSL_PARAM, 6> parameters{
      OSSL_PARAM_construct_int(OSSL_KDF_PARAM_MODE, &mode),
      OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
      octets(OSSL_KDF_PARAM_KEY, secret),
      octets(OSSL_KDF_PARAM_INFO, info),
      salt.empty() ? OSSL_PARAM_construct_end() : octets(OSSL_KDF_PARAM_SALT, salt),
      OSSL_PARAM_construct_end()};
  // OpenSSL appends further info to what is set already, so each derivation starts from nothing.
  EVP_KDF_CTX_reset(context);
  return EVP_KDF_derive(context, out.data(), out.size(), parameters.data()) == 1;
}

/// The info of HKDF-Expand-Label with an empty context (RFC 8446, 7.1).
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
void QUICInitialCrypto::Deleter::operator()(evp_kdf_ctx_st* context) const noexcept {
  EVP_KDF_CTX_free(context);
}

QUICInitialCrypto::QUICInitialCrypto()
    : packetCipher_(EVP_CIPHER_CTX_new()), headerCipher_(EVP_CIPHER_CTX_new()) {
  // The algorithms stay in the contexts; later calls only change the keys.
  const bool hasCiphers =
      packetCipher_ && headerCipher_ &&
      EVP_DecryptInit_ex2(packetCipher_.get(), EVP_aes_128_gcm(), nullptr, nullptr, nullptr) == 1 &&
      EVP_EncryptInit_ex2(headerCipher_.get(), EVP_aes_128_ecb(), nullptr, nullptr, nullptr) == 1;
  core::require(hasCiphers, "OpenSSL has no AES-128-GCM or AES-128-ECB");

  EVP_KDF* hkdfAlgorithm = EVP_KDF_fetch(nullptr, OSSL_KDF_NAME_HKDF, nullptr);
  keyDerivation_.reset(EVP_KDF_CTX_new(hkdfAlgorithm));  // holds a reference of its own
  EVP_KDF_free(hkdfAlgorithm);
  core::require(keyDerivation_ != nullptr, "OpenSSL has no HKDF");
}

std::optional<QUICInitialKeys> QUICInitialCrypto::deriveClientKeys(
    QUICVersion version, WireBytes destinationConnectionID) noexcept {
  const VersionConstants& constants = version == QUICVersion::v2 ? v2Constants : v1Constants;
  std::array<std::uint8_t, 32> clientSecret{};
  const auto expand = [&](std::string_view label, std::span<std::uint8_t> out) {
    return hkdf(keyDerivation_.get(), clientSecret, {}, LabelInfo{label, out.size()}.bytes(), out);
  };
  QUICInitialKeys keys;
  const bool isDerived = hkdf(keyDerivation_.get(), destinationConnectionID, constants.salt,
                              LabelInfo{"client in", clientSecret.size()}.bytes(), clientSecret) &&
                         expand(constants.keyLabel, keys.key) &&
                         expand(constants.ivLabel, keys.iv) &&
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
