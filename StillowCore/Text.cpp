#include "StillowCore/Text.hpp"

#include <algorithm>

#include "StillowCore/ByteBlock.hpp"

namespace stillow::core::text {

namespace {

constexpr char32_t replacementCharacter = 0xFFFD;
constexpr CodePoint illFormed{replacementCharacter, 1, false};

constexpr unsigned char byteAt(std::string_view text, std::size_t offset) noexcept {
  return static_cast<unsigned char>(text[offset]);
}

constexpr bool isContinuation(unsigned char byte) noexcept { return (byte & 0xC0U) == 0x80U; }

/// Where the first byte is, from `offset` on, for which `isWanted` holds of a block; or a place
/// where less than a block is left.
template <class IsWanted>
std::size_t skipBlocks(std::string_view text, std::size_t offset, IsWanted isWanted) noexcept {
  for (; text.size() - offset >= ByteBlock::size; offset += ByteBlock::size) {
    const ByteBlock wanted = isWanted(ByteBlock::load(text.data() + offset));
    if (wanted.holdsAnywhere()) return offset + wanted.firstPlace();
  }
  return offset;
}

ByteBlock isBeyondASCII(const ByteBlock& block) noexcept { return block.isAbove(0x7F); }

/// The platform's set of blanks. It is not the character property: U+200B is in it.
constexpr bool isBlank(char32_t codePoint) noexcept {
  return codePoint == 0x09 || codePoint == 0x20 || codePoint == 0xA0 || codePoint == 0x1680 ||
         (codePoint >= 0x2000 && codePoint <= 0x200B) || codePoint == 0x202F ||
         codePoint == 0x205F || codePoint == 0x3000;
}

/// What ends a line when a text is read line by line.
constexpr bool isLineTerminator(char32_t codePoint) noexcept {
  return codePoint == 0x0A || codePoint == 0x0D || codePoint == 0x85 || codePoint == 0x2028 ||
         codePoint == 0x2029;
}

/// What the platform's set of newlines holds: the tabulations of lines and pages as well.
constexpr bool isNewline(char32_t codePoint) noexcept {
  return isLineTerminator(codePoint) || codePoint == 0x0B || codePoint == 0x0C;
}

template <class Predicate>
std::string_view trimming(std::string_view text, Predicate isTrimmed) noexcept {
  const auto isNeverTrimmed = [](char c) { return c > ' ' && isASCII(c); };
  if (!text.empty() && isNeverTrimmed(text.front()) && isNeverTrimmed(text.back())) return text;
  while (!text.empty()) {
    const auto first = codePointAt(text, 0);
    if (!isTrimmed(first.value)) break;
    text.remove_prefix(first.length);
  }
  while (!text.empty()) {
    const auto last = codePointBefore(text, text.size());
    if (!isTrimmed(last.value)) break;
    text.remove_suffix(last.length);
  }
  return text;
}

constexpr bool isHostSign(char c) noexcept {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view{"!$&'()*+,-.;=_~"}.find(c) != std::string_view::npos;
}

constexpr bool isHexDigit(char c) noexcept {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

/// What a URL's host may hold once it is ASCII: the signs above and "%" with two hex digits.
bool isURLHost(std::string_view host) noexcept {
  for (std::size_t at = 0; at < host.size(); ++at) {
    if (isHostSign(host[at])) continue;
    if (host[at] != '%' || host.size() - at < 3 || !isHexDigit(host[at + 1]) ||
        !isHexDigit(host[at + 2])) {
      return false;
    }
    at += 2;
  }
  return !host.empty();
}

}  // namespace

CodePoint codePointBeyondASCIIAt(std::string_view text, std::size_t offset) noexcept {
  const unsigned char lead = byteAt(text, offset);
  // The second byte's range depends on the first: that keeps out overlong forms, surrogates and
  // what lies beyond U+10FFFF.
  std::size_t length = 0;
  unsigned char lowest = 0x80;
  unsigned char highest = 0xBF;
  char32_t value = 0;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
    value = lead & 0x1FU;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    value = lead & 0x0FU;
    if (lead == 0xE0) lowest = 0xA0;
    if (lead == 0xED) highest = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    value = lead & 0x07U;
    if (lead == 0xF0) lowest = 0x90;
    if (lead == 0xF4) highest = 0x8F;
  } else {
    return illFormed;
  }
  if (text.size() - offset < length) return illFormed;
  const unsigned char second = byteAt(text, offset + 1);
  if (second < lowest || second > highest) return illFormed;
  value = (value << 6U) | (second & 0x3FU);
  for (std::size_t i = 2; i < length; ++i) {
    const unsigned char next = byteAt(text, offset + i);
    if (!isContinuation(next)) return illFormed;
    value = (value << 6U) | (next & 0x3FU);
  }
  return {value, length, true};
}

CodePoint codePointBefore(std::string_view text, std::size_t offset) noexcept {
  std::size_t start = offset - 1;
  while (offset - start < 4 && start > 0 && isContinuation(byteAt(text, start))) --start;
  const auto found = codePointAt(text.substr(0, offset), start);
  return found.isWellFormed && start + found.length == offset ? found : illFormed;
}

void appendUTF8(std::string& out, char32_t codePoint) {
  const auto continuation = [&](unsigned shift) {
    out += static_cast<char>(0x80U | ((codePoint >> shift) & 0x3FU));
  };
  if (codePoint < 0x80) {
    out += static_cast<char>(codePoint);
  } else if (codePoint < 0x800) {
    out += static_cast<char>(0xC0U | (codePoint >> 6U));
    continuation(0);
  } else if (codePoint < 0x1'0000) {
    out += static_cast<char>(0xE0U | (codePoint >> 12U));
    continuation(6);
    continuation(0);
  } else {
    out += static_cast<char>(0xF0U | (codePoint >> 18U));
    continuation(12);
    continuation(6);
    continuation(0);
  }
}

bool isLowercaseASCII(std::string_view text) noexcept {
  constexpr std::size_t half = ByteBlock::size / 2;
  const auto others = [](const ByteBlock& block) {
    return isBeyondASCII(block) | block.isWithin('A', 'Z');
  };
  if (text.size() < half) {
    return std::ranges::all_of(text, [](char c) { return isASCII(c) && lowercasedASCII(c) == c; });
  }
  // The last half of a block overlaps the one before. Up to the size of most host names nothing
  // depends on the size, so that no branch is guessed wrong.
  const char* const from = text.data();
  const std::size_t last = text.size() - half;
  ByteBlock found = others(ByteBlock::load(from, from + std::min(half, last))) |
                    others(ByteBlock::load(from + std::min(2 * half, last), from + last));
  for (std::size_t at = 3 * half; at < last; at += ByteBlock::size) {
    found = found | others(ByteBlock::load(from + at, from + std::min(at + half, last)));
  }
  return !found.holdsAnywhere();
}

bool isValidUTF8(std::string_view text) noexcept {
  for (std::size_t at = 0; at < text.size();) {
    at = skipBlocks(text, at, isBeyondASCII);
    if (at == text.size()) break;
    const auto next = codePointAt(text, at);
    if (!next.isWellFormed) return false;
    at += next.length;
  }
  return true;
}

std::string lowercased(std::string_view text) {
  if (isASCII(text)) {
    std::string lower(text);
    for (char& c : lower) c = lowercasedASCII(c);
    return lower;
  }
  constexpr char32_t capitalIWithDotAbove = 0x130;
  std::string lower;
  lower.reserve(text.size() + 4);
  for (std::size_t at = 0; at < text.size();) {
    const auto next = codePointAt(text, at);
    if (next.value < 0x80) {
      lower += lowercasedASCII(text[at]);
    } else if (next.value == capitalIWithDotAbove) {
      lower += "i\u0307";
    } else {
      appendUTF8(lower, platform::lowercased(next.value));
    }
    at += next.length;
  }
  return lower;
}

std::string_view trimmingWhitespaceAndNewlines(std::string_view text) noexcept {
  return trimming(text, [](char32_t c) { return isBlank(c) || isNewline(c); });
}

std::string_view trimmingWhitespace(std::string_view text) noexcept {
  return trimming(text, isBlank);
}

std::string_view takeLine(std::string_view& text) noexcept {
  const auto mayEndLine = [](const ByteBlock& block) {
    return block.isBelow('\r' + 1) | isBeyondASCII(block);
  };
  std::size_t end = 0;
  std::size_t terminator = 0;
  while (true) {
    end = skipBlocks(text, end, mayEndLine);
    if (end == text.size()) break;
    const auto next = codePointAt(text, end);
    if (isLineTerminator(next.value)) {
      terminator = text.substr(end).starts_with("\r\n") ? 2 : next.length;
      break;
    }
    end += next.length;
  }
  const auto line = text.substr(0, end);
  text.remove_prefix(end + terminator);
  return line;
}

std::vector<std::string_view> lines(std::string_view text) {
  std::vector<std::string_view> found;
  while (!text.empty()) found.push_back(takeLine(text));
  return found;
}

bool areCanonicallyEqual(std::string_view left, std::string_view right) {
  if (left == right) return true;
  if (isASCII(left) && isASCII(right)) return false;
  return canonicallyComposed(left) == canonicallyComposed(right);
}

std::string canonicallyComposed(std::string_view text) {
  if (isASCII(text)) return std::string(text);
  if (isValidUTF8(text)) return platform::canonicallyComposed(text);
  std::string repaired;
  repaired.reserve(text.size() + 8);
  for (std::size_t at = 0; at < text.size();) {
    const auto next = codePointAt(text, at);
    appendUTF8(repaired, next.value);
    at += next.length;
  }
  return platform::canonicallyComposed(repaired);
}

bool isCharacterBoundary(std::string_view text, std::size_t offset) {
  if (offset == 0 || offset == text.size()) return true;
  if (isASCII(text[offset - 1]) && isASCII(text[offset])) {
    return text[offset - 1] != '\r' || text[offset] != '\n';
  }
  const auto before = codePointBefore(text, offset);
  const auto after = codePointAt(text, offset);
  if (!before.isWellFormed || !after.isWellFormed) return true;
  return platform::areSeparateCharacters(before.value, after.value);
}

bool isWholeCharacter(std::string_view text, std::size_t offset) {
  return isCharacterBoundary(text, offset) && isCharacterBoundary(text, offset + 1);
}

std::size_t find(std::string_view text, std::string_view signs, std::size_t from) {
  for (auto at = text.find(signs, from); at != std::string_view::npos;
       at = text.find(signs, at + 1)) {
    if (isCharacterBoundary(text, at) && isCharacterBoundary(text, at + signs.size())) return at;
  }
  return std::string_view::npos;
}

std::size_t find(std::string_view text, char sign, std::size_t from) {
  auto at = text.find(sign, from);
  while (at != std::string_view::npos && !isWholeCharacter(text, at)) at = text.find(sign, at + 1);
  return at;
}

std::size_t findLast(std::string_view text, char sign) {
  for (auto at = text.rfind(sign); at != std::string_view::npos; at = text.rfind(sign, at - 1)) {
    if (isWholeCharacter(text, at)) return at;
    if (at == 0) break;
  }
  return std::string_view::npos;
}

std::optional<std::string> asciiHost(std::string_view host) {
  if (isASCII(host)) {
    if (!isURLHost(host)) return std::nullopt;
    return std::string(host);
  }
  if (!isValidUTF8(host)) return std::nullopt;
  for (const char c : host) {
    if (isASCII(c) && !isHostSign(c)) return std::nullopt;
  }
  auto converted = platform::idnaToASCII(host);
  // The mapping can make signs that no host holds: U+2100 becomes "a/c".
  if (!converted || !isURLHost(*converted)) return std::nullopt;
  return converted;
}

}  // namespace stillow::core::text
