#include "StillowCore/Base64.hpp"

#include <array>
#include <cstdint>

namespace stillow::core::json {

namespace {

constexpr std::string_view base64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/// Two digits at once: what twelve bits look like.
constexpr std::array<std::array<char, 2>, 4'096> base64Pairs = [] {
  std::array<std::array<char, 2>, 4'096> pairs{};
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    pairs[i] = {base64Alphabet[i >> 6], base64Alphabet[i & 63]};
  }
  return pairs;
}();

constexpr std::uint8_t noDigit = 0xFF;

constexpr std::array<std::uint8_t, 256> base64Values = [] {
  std::array<std::uint8_t, 256> values{};
  values.fill(noDigit);
  for (std::size_t i = 0; i < base64Alphabet.size(); ++i) {
    values[static_cast<unsigned char>(base64Alphabet[i])] = static_cast<std::uint8_t>(i);
  }
  return values;
}();

/// The digits of one group of four, 24 bits; more than that if one of them is none.
std::uint32_t groupAt(const char* text) noexcept {
  std::uint32_t group = 0;
  std::uint32_t all = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    const std::uint32_t value = base64Values[static_cast<unsigned char>(text[i])];
    group = group << 6 | value;
    all |= value;
  }
  return all > 63 ? UINT32_MAX : group;
}

}  // namespace

char* writeBase64(char* out, std::string_view bytes) noexcept {
  const auto byte = [&](std::size_t i) -> std::uint32_t {
    return static_cast<unsigned char>(bytes[i]);
  };
  const auto writePair = [&](std::uint32_t twelveBits) {
    *out++ = base64Pairs[twelveBits][0];
    *out++ = base64Pairs[twelveBits][1];
  };
  std::size_t at = 0;
  for (; at + 3 <= bytes.size(); at += 3) {
    const std::uint32_t group = byte(at) << 16 | byte(at + 1) << 8 | byte(at + 2);
    writePair(group >> 12);
    writePair(group & 4'095);
  }
  if (at < bytes.size()) {
    const bool hasSecond = at + 1 < bytes.size();
    const std::uint32_t group = byte(at) << 16 | (hasSecond ? byte(at + 1) << 8 : 0U);
    writePair(group >> 12);
    *out++ = hasSecond ? base64Pairs[group & 4'095][0] : '=';
    *out++ = '=';
  }
  return out;
}

std::string base64Encoded(std::string_view bytes) {
  std::string text;
  text.resize_and_overwrite(base64Size(bytes.size()), [&](char* out, std::size_t) {
    return static_cast<std::size_t>(writeBase64(out, bytes) - out);
  });
  return text;
}

std::expected<std::string, std::string> base64Decoded(std::string_view text) {
  const auto refused = [] {
    return std::unexpected(std::string("Encountered Data is not valid Base64."));
  };
  // A whole group of padding behind complete bytes adds nothing; the platform's decoder takes it.
  if (text.size() > 4 && text.ends_with("====") && text[text.size() - 5] != '=') {
    text.remove_suffix(4);
  }
  if (text.size() % 4 != 0) return refused();
  if (text.empty()) return std::string();
  const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
  // The padding as digits of zero bits.
  std::array<char, 4> last{'A', 'A', 'A', 'A'};
  text.substr(text.size() - 4, 4 - padding).copy(last.data(), last.size());
  text.remove_suffix(4);

  bool isValid = true;
  std::string bytes;
  bytes.resize_and_overwrite(text.size() / 4 * 3 + 3, [&](char* const begin, std::size_t) {
    char* out = begin;
    const auto decode = [&](const char* four) {
      const std::uint32_t group = groupAt(four);
      *out++ = static_cast<char>(group >> 16 & 0xFF);
      *out++ = static_cast<char>(group >> 8 & 0xFF);
      *out++ = static_cast<char>(group & 0xFF);
      return group != UINT32_MAX;
    };
    for (std::size_t at = 0; at < text.size() && isValid; at += 4) isValid = decode(&text[at]);
    isValid = isValid && decode(last.data());
    return static_cast<std::size_t>(out - begin);
  });
  if (!isValid) return refused();
  bytes.resize(bytes.size() - padding);
  return bytes;
}

}  // namespace stillow::core::json
