// The digest and the Base64 text of a checkpoint's payload against OpenSSL's own calls: EVP_Digest
// with an algorithm that was fetched once, which is the quickest of its forms, and EVP_EncodeBlock.
// Base64 goes into memory that is there already, on both sides. The argument is the number of
// domains in the checkpoint's Scope.

#include <array>
#include <cstddef>
#include <string>

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include "ActiveCommitment.hpp"
#include "Alternating.hpp"
#include "StillowCore/Base64.hpp"
#include "StillowCore/Coding.hpp"
#include "StillowCore/SHA256.hpp"

namespace stillow::benchmarks {
namespace {

std::string payloadOf(const benchmark::State& state) {
  return core::encode(activeCommitment(static_cast<std::size_t>(state.range(0)))).value();
}

void sha256(benchmark::State& state) {
  const std::string payload = payloadOf(state);
  EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  const auto digestOf = [&] {
    core::SHA256Digest digest{};
    (void)EVP_Digest(payload.data(), payload.size(), digest.data(), nullptr, algorithm, nullptr);
    return digest;
  };
  if (core::sha256(payload) != digestOf()) state.SkipWithError("the digests differ");
  const auto ours = [&](std::size_t count) {
    for (; count > 0; --count) benchmark::DoNotOptimize(core::sha256(payload));
  };
  const auto reference = [&](std::size_t count) {
    for (; count > 0; --count) benchmark::DoNotOptimize(digestOf());
  };
  compareAlternating(state, Measure::processorTime, ours, reference);
  EVP_MD_free(algorithm);
}

void base64(benchmark::State& state) {
  const std::string payload = payloadOf(state);
  const std::size_t size = core::json::base64Size(payload.size());
  std::string ourText(size, '\0');
  std::string referenceText(size + 1, '\0');  // its end is marked by a zero
  const auto ours = [&](std::size_t count) {
    for (; count > 0; --count) {
      benchmark::DoNotOptimize(core::json::writeBase64(ourText.data(), payload));
    }
  };
  const auto reference = [&](std::size_t count) {
    for (; count > 0; --count) {
      benchmark::DoNotOptimize(
          EVP_EncodeBlock(reinterpret_cast<unsigned char*>(referenceText.data()),
                          reinterpret_cast<const unsigned char*>(payload.data()),
                          static_cast<int>(payload.size())));
    }
  };
  ours(1);
  reference(1);
  referenceText.pop_back();
  if (ourText != referenceText) state.SkipWithError("the texts differ");
  referenceText.push_back('\0');
  compareAlternating(state, Measure::processorTime, ours, reference);
}

BENCHMARK(sha256)->Arg(100)->Arg(10'000)->Apply(batches);
BENCHMARK(base64)->Arg(100)->Arg(10'000)->Apply(batches);

}  // namespace
}  // namespace stillow::benchmarks
