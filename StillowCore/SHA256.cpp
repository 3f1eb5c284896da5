#include "StillowCore/SHA256.hpp"

namespace stillow::core {

std::string hexadecimal(const SHA256Digest& digest) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * digest.size());
  for (const std::uint8_t byte : digest) {
    text += digits[byte >> 4];
    text += digits[byte & 0xF];
  }
  return text;
}

}  // namespace stillow::core
