/// StillowCore's tags: Poly1305 (RFC 8439 section 2.5). A key may be used again here, which it must
/// not where tags are shown: from tags that nobody sees nobody learns it.
#include "StillowCore/ContentTag.hpp"

#include <array>
#include <memory>

#include <openssl/evp.h>
#include <openssl/rand.h>

#include "StillowCore/Invariant.hpp"

namespace stillow::core {

namespace {

struct ContextFree {
  void operator()(EVP_MAC_CTX* context) const noexcept { ::EVP_MAC_CTX_free(context); }
};

using Context = std::unique_ptr<EVP_MAC_CTX, ContextFree>;

/// With the key of this process.
const EVP_MAC_CTX* keyedContext() {
  static const Context context = [] {
    // Fails only where the library's default provider cannot be loaded: that installation is
    // broken.
    EVP_MAC* const algorithm = ::EVP_MAC_fetch(nullptr, "POLY1305", nullptr);
    require(algorithm != nullptr, "Poly1305 is not available");
    Context made(::EVP_MAC_CTX_new(algorithm));
    ::EVP_MAC_free(algorithm);  // the context keeps it
    std::array<unsigned char, 32> key{};
    require(made != nullptr && ::RAND_bytes(key.data(), key.size()) == 1 &&
                ::EVP_MAC_init(made.get(), key.data(), key.size(), nullptr) == 1,
            "Poly1305 could not be set up");
    return made;
  }();
  return context.get();
}

}  // namespace

ContentTag contentTag(std::string_view bytes) {
  const Context context(::EVP_MAC_CTX_dup(keyedContext()));
  ContentTag tag{};
  std::size_t length = 0;
  const bool isDone =
      context &&
      ::EVP_MAC_update(context.get(), reinterpret_cast<const unsigned char*>(bytes.data()),
                       bytes.size()) == 1 &&
      ::EVP_MAC_final(context.get(), tag.data(), &length, tag.size()) == 1;
  require(isDone && length == tag.size(), "Poly1305 failed");
  return tag;
}

}  // namespace stillow::core
