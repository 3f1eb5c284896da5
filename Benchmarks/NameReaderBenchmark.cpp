// The name readers, each compared with the least that reading such a flow can cost.
//
// A TLS or HTTP flow of one segment: with one copy of that segment, which any reader pays that puts
// the stream together before it looks. A QUIC flow of one datagram: with the bare OpenSSL calls for
// it, key derivation by OpenSSL's HKDF and decryption, in contexts that are kept; so the ratio says
// what the reader adds, or saves.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
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

using filtering::FlowNameReader;
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
  std::vector<std::uint8_t> buffer(filtering::inspectedBytesMax);
  if (bytes.empty() || bytes.size() > buffer.size()) return state.SkipWithError("no such fixture");
  if (filtering::readStreamName(bytes).name() == nullptr) return state.SkipWithError("no name");
  const auto ours = [&] {
    FlowNameReader reader;
    benchmark::DoNotOptimize(reader.take({1, false, bytes}));
  };
  const auto reference = [&] {
    std::memcpy(buffer.data(), bytes.data(), bytes.size());
    benchmark::DoNotOptimize(buffer.data());
    benchmark::ClobberMemory();
  };
  compareAlternating(state, Measure::processorTime, repeated(ours), repeated(reference));
}

/// The calls that reading one client Initial takes, on contexts that are kept.
class BareOpenSSL {
 public:
  BareOpenSSL() {
    EVP_KDF* hkdf = EVP_KDF_fetch(nullptr, "HKDF", nullptr);
    derivation_.reset(EVP_KDF_CTX_new(hkdf));
    EVP_KDF_free(hkdf);
  }

  bool open(WireBytes destination, WireBytes payload, std::uint8_t* plaintext) {
    std::array<std::uint8_t, 32> secret{};
    std::array<std::uint8_t, 16> key{};
    std::array<std::uint8_t, 12> nonce{};
    std::array<std::uint8_t, 16> mask{};
    static constexpr std::array<std::uint8_t, 20> salt{};
    int size = 0;
    const int ciphertextBytes = static_cast<int>(payload.size() - 16);
    // The tag is wrong for these keys, and the work is the same.
    return derive(destination, salt, "client in", secret) && derive(secret, {}, "key", key) &&
           derive(secret, {}, "iv", nonce) && derive(secret, {}, "hp", mask) &&
           EVP_EncryptInit_ex2(header_.get(), EVP_aes_128_ecb(), mask.data(), nullptr, nullptr) ==
               1 &&
           EVP_EncryptUpdate(header_.get(), mask.data(), &size, payload.data(), 16) == 1 &&
           EVP_DecryptInit_ex2(packet_.get(), EVP_aes_128_gcm(), key.data(), nonce.data(),
                               nullptr) == 1 &&
           EVP_DecryptUpdate(packet_.get(), plaintext, &size, payload.data(), ciphertextBytes) == 1;
  }

 private:
  bool derive(WireBytes secret, WireBytes salt, std::string_view info,
              std::span<std::uint8_t> out) {
    int mode = salt.empty() ? EVP_KDF_HKDF_MODE_EXPAND_ONLY : EVP_KDF_HKDF_MODE_EXTRACT_AND_EXPAND;
    char digest[] = "SHA256";
    const auto octets = [](const char* name, const void* bytes, std::size_t size) {
      return OSSL_PARAM_construct_octet_string(name, const_cast<void*>(bytes), size);
    };
    const std::array parameters{OSSL_PARAM_construct_int(OSSL_KDF_PARAM_MODE, &mode),
                                OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
                                octets(OSSL_KDF_PARAM_KEY, secret.data(), secret.size()),
                                octets(OSSL_KDF_PARAM_INFO, info.data(), info.size()),
                                salt.empty()
                                    ? OSSL_PARAM_construct_end()
                                    : octets(OSSL_KDF_PARAM_SALT, salt.data(), salt.size()),
                                OSSL_PARAM_construct_end()};
    EVP_KDF_CTX_reset(derivation_.get());
    return EVP_KDF_derive(derivation_.get(), out.data(), out.size(), parameters.data()) == 1;
  }

  template <auto release>
  struct Release {
    void operator()(auto* context) const noexcept { release(context); }
  };
  std::unique_ptr<EVP_KDF_CTX, Release<EVP_KDF_CTX_free>> derivation_;
  std::unique_ptr<EVP_CIPHER_CTX, Release<EVP_CIPHER_CTX_free>> header_{EVP_CIPHER_CTX_new()};
  std::unique_ptr<EVP_CIPHER_CTX, Release<EVP_CIPHER_CTX_free>> packet_{EVP_CIPHER_CTX_new()};
};

void quic(benchmark::State& state) {
  const Bytes file = loadFixture("rfc9001-a2.datagrams");
  if (file.empty()) return state.SkipWithError("no such fixture");
  const WireBytes datagram = datagramAt(file, 0);
  QUICInitialCrypto crypto;
  BareOpenSSL openSSL;
  std::vector<std::uint8_t> plaintext(datagram.size());
  if (QUICInitialReader{}.take(datagram, crypto).name() == nullptr ||
      !openSSL.open(datagram.subspan(6, 8), datagram.subspan(22), plaintext.data())) {
    return state.SkipWithError("not opened");
  }
  const auto ours = [&] {
    QUICInitialReader reader;
    benchmark::DoNotOptimize(reader.take(datagram, crypto));
  };
  const auto reference = [&] {
    benchmark::DoNotOptimize(
        openSSL.open(datagram.subspan(6, 8), datagram.subspan(22), plaintext.data()));
  };
  compareAlternating(state, Measure::processorTime, repeated(ours), repeated(reference));
}

BENCHMARK_CAPTURE(stream, tlsOfCurl, "curl-tls.stream")->Apply(batches);
BENCHMARK_CAPTURE(stream, tlsOfChromium, "chromium-tls.stream")->Apply(batches);
BENCHMARK_CAPTURE(stream, tlsInTwoRecords, "openssl-tls-two-records.stream")->Apply(batches);
BENCHMARK_CAPTURE(stream, http, "curl-http.stream")->Apply(batches);
BENCHMARK(quic)->Apply(batches);

}  // namespace
}  // namespace stillow::benchmarks
