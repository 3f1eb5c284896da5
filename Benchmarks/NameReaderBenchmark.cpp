// The name readers, each compared with the least that reading such a flow can cost.
//
// A TLS or HTTP flow of one segment, as the filter tries it where it lies: with a plain loop that
// adds up the segment's bytes, one after the other. A QUIC flow of one datagram: with the bare
// OpenSSL calls for it, the five steps of HKDF and the two of AES, on algorithms that were fetched
// and contexts that were prepared once; so the ratio says what the reader adds, or saves. Each flow
// is a new connection to both sides: neither keeps anything of the one before.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>

#include "Alternating.hpp"
#include "StillowFiltering/Wire/FlowNameReader.hpp"
#include "StillowFiltering/Wire/QUICInitialReader.hpp"

namespace stillow::benchmarks {
namespace {

using filtering::NameReading;
using filtering::QUICInitialCrypto;
using filtering::QUICInitialReader;
using filtering::WireBytes;
using Bytes = std::vector<std::uint8_t>;

Bytes loadFixture(const char* name) {
  std::ifstream file{std::string{STILLOW_FIXTURES} + "/wire/" + name, std::ios::binary};
  return {std::istreambuf_iterator<char>{file}, {}};
}

/// The datagram that begins at `offset` of a file in which each follows its length in two bytes.
WireBytes datagramAt(WireBytes file, std::size_t offset) {
  const std::size_t size = static_cast<std::size_t>(file[offset]) << 8 | file[offset + 1];
  return file.subspan(offset + 2, size);
}

template <class Work>
auto repeated(Work work) {
  return [work](std::size_t count) mutable {
    for (; count > 0; --count) work();
  };
}

void stream(benchmark::State& state, const char* fixture) {
  const Bytes bytes = loadFixture(fixture);
  const NameReading reading = filtering::readStreamName(bytes);
  if (reading.name() == nullptr || reading.name()->text() != "www.example.org") {
    return state.SkipWithError("not the name that the client asked for");
  }
  const auto ours = [&] { benchmark::DoNotOptimize(filtering::readStreamName(bytes)); };
  const auto reference = [&] {
    std::uint64_t sum = 0;
    for (const std::uint8_t byte : bytes) sum += byte;
    benchmark::DoNotOptimize(sum);
  };
  compareAlternating(state, Measure::processorTime, repeated(ours), repeated(reference));
}

/// The calls that reading one client Initial of version 1 takes: HKDF and AES, and between them
/// what makes the output of one the input of the next.
class BareOpenSSL {
 public:
  struct Packet {
    WireBytes destination;
    WireBytes header;   ///< up to the packet number
    WireBytes payload;  ///< from the packet number on, which has four bytes
  };

  BareOpenSSL() {
    EVP_KDF* const hkdf = EVP_KDF_fetch(nullptr, "HKDF", nullptr);
    for (const auto& [context, mode] : {std::pair{&extraction_, EVP_KDF_HKDF_MODE_EXTRACT_ONLY},
                                        std::pair{&expansion_, EVP_KDF_HKDF_MODE_EXPAND_ONLY}}) {
      context->reset(EVP_KDF_CTX_new(hkdf));
      char digest[] = "SHA256";
      int modeNumber = mode;
      const std::array parameters{
          OSSL_PARAM_construct_int(OSSL_KDF_PARAM_MODE, &modeNumber),
          OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
          OSSL_PARAM_construct_end()};
      isReady_ = isReady_ && EVP_KDF_CTX_set_params(context->get(), parameters.data()) == 1;
    }
    EVP_KDF_free(hkdf);
    EVP_CIPHER* const ecb = EVP_CIPHER_fetch(nullptr, "AES-128-ECB", nullptr);
    EVP_CIPHER* const gcm = EVP_CIPHER_fetch(nullptr, "AES-128-GCM", nullptr);
    isReady_ = isReady_ &&
               EVP_EncryptInit_ex2(header_.get(), ecb, nullptr, nullptr, nullptr) == 1 &&
               EVP_DecryptInit_ex2(packet_.get(), gcm, nullptr, nullptr, nullptr) == 1;
    EVP_CIPHER_free(ecb);
    EVP_CIPHER_free(gcm);
  }

  /// False where a call fails or the packet is not authentic.
  bool open(const Packet& packet, std::uint8_t* plaintext) {
    std::array<std::uint8_t, 32> secret{};
    std::array<std::uint8_t, 32> clientSecret{};
    if (!isReady_ ||
        !derive(extraction_.get(), packet.destination, OSSL_KDF_PARAM_SALT, salt, secret) ||
        !derive(expansion_.get(), secret, OSSL_KDF_PARAM_INFO, clientInfo, clientSecret) ||
        !derive(expansion_.get(), clientSecret, OSSL_KDF_PARAM_INFO, keyInfo, keys_.key) ||
        !derive(expansion_.get(), clientSecret, OSSL_KDF_PARAM_INFO, ivInfo, keys_.iv) ||
        !derive(expansion_.get(), clientSecret, OSSL_KDF_PARAM_INFO, headerInfo,
                keys_.headerProtectionKey)) {
      return false;
    }
    std::array<std::uint8_t, 32> mask{};
    int size = 0;
    if (EVP_EncryptInit_ex2(header_.get(), nullptr, keys_.headerProtectionKey.data(), nullptr,
                            nullptr) != 1 ||
        EVP_EncryptUpdate(header_.get(), mask.data(), &size, &packet.payload[4], 16) != 1) {
      return false;
    }
    std::array<std::uint8_t, 64> header{};
    std::ranges::copy(packet.header, header.begin());
    header[0] = static_cast<std::uint8_t>(header[0] ^ (mask[0] & 0x0f));
    std::array<std::uint8_t, 12> nonce = keys_.iv;
    for (std::size_t i = 0; i < 4; ++i) {
      const auto byte = static_cast<std::uint8_t>(packet.payload[i] ^ mask[i + 1]);
      header[packet.header.size() + i] = byte;
      nonce[8 + i] ^= byte;
    }
    std::array<std::uint8_t, 16> tag{};
    std::ranges::copy(packet.payload.last(16), tag.begin());
    return EVP_DecryptInit_ex2(packet_.get(), nullptr, keys_.key.data(), nonce.data(), nullptr) ==
               1 &&
           EVP_DecryptUpdate(packet_.get(), nullptr, &size, header.data(),
                             static_cast<int>(packet.header.size()) + 4) == 1 &&
           EVP_DecryptUpdate(packet_.get(), plaintext, &size, &packet.payload[4],
                             static_cast<int>(packet.payload.size()) - 20) == 1 &&
           EVP_CIPHER_CTX_ctrl(packet_.get(), EVP_CTRL_AEAD_SET_TAG, 16, tag.data()) == 1 &&
           EVP_DecryptFinal_ex(packet_.get(), plaintext, &size) == 1;
  }

  /// Those of the packet that was opened last.
  [[nodiscard]] const filtering::QUICInitialKeys& keys() const { return keys_; }

 private:
  static constexpr std::array<std::uint8_t, 20> salt{0x38, 0x76, 0x2c, 0xf7, 0xf5, 0x59, 0x34,
                                                     0xb3, 0x4d, 0x17, 0x9a, 0xe6, 0xa4, 0xc8,
                                                     0x0c, 0xad, 0xcc, 0xbb, 0x7f, 0x0a};
  // The length of the output, that of the label, the label, that of the context.
  static constexpr std::string_view clientInfo{"\0\x20\x0ftls13 client in\0", 19};
  static constexpr std::string_view keyInfo{"\0\x10\x0etls13 quic key\0", 18};
  static constexpr std::string_view ivInfo{"\0\x0c\x0dtls13 quic iv\0", 17};
  static constexpr std::string_view headerInfo{"\0\x10\x0dtls13 quic hp\0", 17};

  bool derive(EVP_KDF_CTX* context, WireBytes key, const char* secondName, const auto& second,
              std::span<std::uint8_t> out) {
    const auto octets = [](const char* name, const void* bytes, std::size_t size) {
      return OSSL_PARAM_construct_octet_string(name, const_cast<void*>(bytes), size);
    };
    const std::array parameters{octets(OSSL_KDF_PARAM_KEY, key.data(), key.size()),
                                octets(secondName, second.data(), second.size()),
                                OSSL_PARAM_construct_end()};
    return EVP_KDF_derive(context, out.data(), out.size(), parameters.data()) == 1;
  }

  template <auto release>
  struct Release {
    void operator()(auto* context) const noexcept { release(context); }
  };
  std::unique_ptr<EVP_KDF_CTX, Release<EVP_KDF_CTX_free>> extraction_;
  std::unique_ptr<EVP_KDF_CTX, Release<EVP_KDF_CTX_free>> expansion_;
  std::unique_ptr<EVP_CIPHER_CTX, Release<EVP_CIPHER_CTX_free>> header_{EVP_CIPHER_CTX_new()};
  std::unique_ptr<EVP_CIPHER_CTX, Release<EVP_CIPHER_CTX_free>> packet_{EVP_CIPHER_CTX_new()};
  filtering::QUICInitialKeys keys_;
  bool isReady_ = true;
};

void quic(benchmark::State& state) {
  const Bytes file = loadFixture("rfc9001-a2.datagrams");
  if (file.empty()) return state.SkipWithError("no such fixture");
  const WireBytes datagram = datagramAt(file, 0);
  const BareOpenSSL::Packet packet{.destination = datagram.subspan(6, 8),
                                   .header = datagram.first(18),
                                   .payload = datagram.subspan(18)};
  QUICInitialCrypto crypto;
  BareOpenSSL openSSL;
  std::vector<std::uint8_t> plaintext(datagram.size());
  const NameReading reading = QUICInitialReader{}.take(datagram, crypto);
  if (reading.name() == nullptr || !openSSL.open(packet, plaintext.data()) ||
      openSSL.keys() != crypto.deriveClientKeys(filtering::QUICVersion::v1, packet.destination) ||
      std::ranges::search(plaintext, reading.name()->text()).empty()) {
    return state.SkipWithError("the two sides differ");
  }
  const auto ours = [&] {
    QUICInitialReader reader;
    benchmark::DoNotOptimize(reader.take(datagram, crypto));
  };
  const auto reference = [&] { benchmark::DoNotOptimize(openSSL.open(packet, plaintext.data())); };
  compareAlternating(state, Measure::processorTime, repeated(ours), repeated(reference));
}

BENCHMARK_CAPTURE(stream, tlsOfCurl, "curl-tls.stream")->Apply(batches);
BENCHMARK_CAPTURE(stream, tlsOfChromium, "chromium-tls.stream")->Apply(batches);
BENCHMARK_CAPTURE(stream, tlsInTwoRecords, "openssl-tls-two-records.stream")->Apply(batches);
BENCHMARK_CAPTURE(stream, http, "curl-http.stream")->Apply(batches);
BENCHMARK(quic)->Apply(batches);

}  // namespace
}  // namespace stillow::benchmarks
