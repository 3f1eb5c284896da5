#include "StillowCore/SuffixHash.hpp"

#include <algorithm>
#include <exception>
#include <random>

namespace stillow::core {

SuffixHash SuffixHash::ofThisProcess() {
  static const SuffixHash hash = []() noexcept {
    try {
      std::random_device random;
      const auto word = [&] { return std::uint64_t{random()} << 32U | random(); };
      Key key;
      std::ranges::generate(key, word);
      return SuffixHash(key);
    } catch (const std::exception&) {
      // No random source at all. Every answer stays right; only the protection against crafted
      // names is gone, and refusing to filter would be the greater harm.
      return fixed();
    }
  }();
  return hash;
}

}  // namespace stillow::core
