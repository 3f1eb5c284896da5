#include "StillowCore/UUID.hpp"

#include <charconv>

namespace stillow::core {

namespace {

constexpr std::size_t textLength = 36;

constexpr bool isHyphenPosition(std::size_t position) noexcept {
  return position == 8 || position == 13 || position == 18 || position == 23;
}

}  // namespace

std::optional<UUID> UUID::parse(std::string_view text) {
  if (text.size() != textLength) return std::nullopt;
  UUID uuid;
  std::size_t byte = 0;
  for (std::size_t position = 0; position < textLength;) {
    if (isHyphenPosition(position)) {
      if (text[position++] != '-') return std::nullopt;
      continue;
    }
    const char* const first = text.data() + position;
    const auto [end, error] = std::from_chars(first, first + 2, uuid.bytes[byte++], 16);
    if (error != std::errc() || end != first + 2) return std::nullopt;
    position += 2;
  }
  return uuid;
}

std::string UUID::string() const {
  constexpr char digits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(textLength);
  for (const std::uint8_t byte : bytes) {
    if (isHyphenPosition(text.size())) text += '-';
    text += digits[byte >> 4];
    text += digits[byte & 0xF];
  }
  return text;
}

}  // namespace stillow::core
