/// StillowCore's hash over CommonCrypto.
#include "StillowCore/SHA256.hpp"

#include <CommonCrypto/CommonDigest.h>

#include <algorithm>
#include <limits>

#include "StillowCore/Invariant.hpp"

namespace stillow::core {

SHA256Digest sha256(std::string_view bytes) {
  static_assert(std::tuple_size_v<SHA256Digest> == CC_SHA256_DIGEST_LENGTH);
  SHA256Digest digest{};
  CC_SHA256_CTX context;
  // Its lengths have 32 bits.
  constexpr std::size_t pieceBytesMax = std::numeric_limits<CC_LONG>::max();
  bool isDone = CC_SHA256_Init(&context) == 1;
  while (isDone && !bytes.empty()) {
    const std::size_t piece = std::min(bytes.size(), pieceBytesMax);
    isDone = CC_SHA256_Update(&context, bytes.data(), static_cast<CC_LONG>(piece)) == 1;
    bytes.remove_prefix(piece);
  }
  require(isDone && CC_SHA256_Final(digest.data(), &context) == 1, "SHA-256 failed");
  return digest;
}

}  // namespace stillow::core
