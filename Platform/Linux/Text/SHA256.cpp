/// StillowCore's hash over OpenSSL.
#include "StillowCore/SHA256.hpp"

#include <openssl/evp.h>

#include "StillowCore/Invariant.hpp"

namespace stillow::core {

SHA256Digest sha256(std::string_view bytes) {
  SHA256Digest digest{};
  // The one-call form looks the algorithm up each time, which costs more than a small checkpoint.
  static const EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  // Fails only where the library's default provider cannot be loaded: that installation is broken.
  require(algorithm != nullptr, "SHA-256 is not available");
  unsigned length = 0;
  const int isDone =
      EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, algorithm, nullptr);
  require(isDone == 1 && length == digest.size(), "SHA-256 failed");
  return digest;
}

}  // namespace stillow::core
