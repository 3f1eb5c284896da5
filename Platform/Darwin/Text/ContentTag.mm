/// StillowCore's tags over CommonCrypto: HMAC with SHA-256 (RFC 2104), the quickest code for
/// messages that it has.
#include "StillowCore/ContentTag.hpp"

#include <CommonCrypto/CommonDigest.h>
#include <CommonCrypto/CommonHMAC.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <cstdint>

namespace stillow::core {

ContentTag contentTag(std::string_view bytes) {
  static const auto key = [] {
    std::array<std::uint8_t, 32> made{};
    arc4random_buf(made.data(), made.size());
    return made;
  }();
  std::array<std::uint8_t, CC_SHA256_DIGEST_LENGTH> code{};
  CCHmac(kCCHmacAlgSHA256, key.data(), key.size(), bytes.data(), bytes.size(), code.data());
  ContentTag tag{};
  std::copy_n(code.begin(), tag.size(), tag.begin());
  return tag;
}

}  // namespace stillow::core
