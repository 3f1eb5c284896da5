#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <stdexcept>

#include <openssl/evp.h>

#include "StillowFiltering/Wire/QUICInitialCrypto.hpp"
#include "WireTesting.hpp"

/// The client's side of QUIC Initial packets: builds and protects what the reader opens.
namespace stillow::filtering::testing {

inline void appendVarint(Bytes& to, std::uint64_t value) {
  const unsigned log2 = value < 0x40 ? 0 : value < 0x4000 ? 1 : value < 0x4000'0000 ? 2 : 3;
  const std::size_t byteCount = std::size_t{1} << log2;
  const std::size_t first = to.size();
  appendNumber(to, value, byteCount);
  to[first] = static_cast<std::uint8_t>(to[first] | log2 << 6);
}

inline void appendCryptoFrame(Bytes& frames, std::uint64_t offset, WireBytes data) {
  frames.push_back(0x06);
  appendVarint(frames, offset);
  appendVarint(frames, data.size());
  append(frames, data);
}

inline Bytes cryptoFrame(std::uint64_t offset, WireBytes data) {
  Bytes frames;
  appendCryptoFrame(frames, offset, data);
  return frames;
}

/// A frame around the piece of `stream` that begins at `offset`, for which that is its place.
inline Bytes cryptoPiece(WireBytes stream, Piece piece) {
  return cryptoFrame(piece.offset, stream.subspan(piece.offset, piece.size));
}

struct InitialOptions {
  std::uint64_t packetNumber = 0;
  std::size_t packetNumberBytes = 4;
  Bytes destination;  ///< other than the id that the keys come from, if not empty
  Bytes token;
  /// Zero frames to make the payload at least this long: the header's sample needs 4 bytes.
  std::size_t payloadBytesMin = 20;
};

/// Seals what one client sends in Initial packets.
class InitialSealer {
 public:
  explicit InitialSealer(QUICVersion version = QUICVersion::v1,
                         Bytes destination = fromHex("8394c8f03e515708"))
      : version_(version), destination_(std::move(destination)) {
    const auto keys = crypto_.deriveClientKeys(version_, destination_);
    if (!keys) throw std::runtime_error{"no keys"};
    keys_ = *keys;
  }

  [[nodiscard]] Bytes seal(Bytes frames, const InitialOptions& options = {}) {
    frames.resize(std::max(frames.size(), options.payloadBytesMin), 0);
    const unsigned initialType = version_ == QUICVersion::v2 ? 1 : 0;
    Bytes packet;
    packet.push_back(
        static_cast<std::uint8_t>(0xc0 | initialType << 4 | (options.packetNumberBytes - 1)));
    appendNumber(packet, static_cast<std::uint32_t>(version_), 4);
    const Bytes& destination = options.destination.empty() ? destination_ : options.destination;
    packet.push_back(static_cast<std::uint8_t>(destination.size()));
    append(packet, destination);
    packet.push_back(0);  // no source connection id
    appendVarint(packet, options.token.size());
    append(packet, options.token);
    appendVarint(packet, options.packetNumberBytes + frames.size() + QUICInitialCrypto::tagBytes);
    const std::size_t numberAt = packet.size();
    appendNumber(packet, options.packetNumber, options.packetNumberBytes);
    append(packet, encrypted(packet, frames, options.packetNumber));

    const auto sample = WireBytes{packet}.subspan(numberAt + 4).first<16>();
    const auto mask = crypto_.headerMask(keys_, sample);
    if (!mask) throw std::runtime_error{"no header mask"};
    packet[0] = static_cast<std::uint8_t>(packet[0] ^ ((*mask)[0] & 0x0f));
    for (std::size_t i = 0; i < options.packetNumberBytes; ++i)
      packet[numberAt + i] ^= (*mask)[i + 1];
    return packet;
  }

 private:
  [[nodiscard]] Bytes encrypted(WireBytes header, WireBytes plaintext, std::uint64_t number) const {
    auto nonce = keys_.iv;
    for (std::size_t i = 0; i < 8; ++i) {
      nonce[nonce.size() - 1 - i] ^= static_cast<std::uint8_t>(number >> (8 * i));
    }
    Bytes sealed(plaintext.size() + QUICInitialCrypto::tagBytes);
    int size = 0;
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context{
        EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free};
    const bool isSealed =
        EVP_EncryptInit_ex2(context.get(), EVP_aes_128_gcm(), keys_.key.data(), nonce.data(),
                            nullptr) == 1 &&
        EVP_EncryptUpdate(context.get(), nullptr, &size, header.data(),
                          static_cast<int>(header.size())) == 1 &&
        EVP_EncryptUpdate(context.get(), sealed.data(), &size, plaintext.data(),
                          static_cast<int>(plaintext.size())) == 1 &&
        EVP_EncryptFinal_ex(context.get(), sealed.data() + size, &size) == 1 &&
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, QUICInitialCrypto::tagBytes,
                            sealed.data() + plaintext.size()) == 1;
    if (!isSealed) throw std::runtime_error{"not sealed"};
    return sealed;
  }

  QUICVersion version_;
  Bytes destination_;
  QUICInitialCrypto crypto_;
  QUICInitialKeys keys_;
};

}  // namespace stillow::filtering::testing
