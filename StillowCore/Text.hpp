#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

/// Text rules that depend on Unicode data. All text is UTF-8.
///
/// What is pure ASCII is settled here; only the rest reaches the platform's own tables, through the
/// functions of `platform`, which an adapter defines at link time. Everything here may be called
/// from any thread, and takes ill-formed UTF-8 without harm: each byte of it counts as one U+FFFD.
namespace stillow::core::text {

[[nodiscard]] constexpr bool isASCII(char c) noexcept {
  return static_cast<unsigned char>(c) < 0x80;
}
[[nodiscard]] constexpr bool isASCII(std::string_view text) noexcept {
  if (std::is_constant_evaluated() || text.size() < 8) {
    for (const char c : text) {
      if (!isASCII(c)) return false;
    }
    return true;
  }
  // Eight bytes at a time; the last word overlaps the one before. Up to the size of most host names
  // nothing depends on the size, so that no branch is guessed wrong.
  const auto load = [&](std::size_t at) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data() + at, 8);
    return word;
  };
  const std::size_t last = text.size() - 8;
  const auto orLast = [last](std::size_t at) { return at < last ? at : last; };
  std::uint64_t all = load(0) | load(orLast(8)) | load(orLast(16)) | load(last);
  for (std::size_t at = 24; at < last; at += 8) all |= load(at);
  return (all & 0x8080'8080'8080'8080U) == 0;
}
/// ASCII without capital letters.
[[nodiscard]] bool isLowercaseASCII(std::string_view text) noexcept;
[[nodiscard]] constexpr char lowercasedASCII(char c) noexcept {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// True if `text` is well-formed UTF-8 (RFC 3629: no surrogates, no overlong forms, at most
/// U+10FFFF).
[[nodiscard]] bool isValidUTF8(std::string_view text) noexcept;

/// A code point and the bytes that it takes. Ill-formed text gives U+FFFD and one byte.
struct CodePoint {
  char32_t value;
  std::size_t length;
  bool isWellFormed;
};
/// The same where that byte is not ASCII.
[[nodiscard]] CodePoint codePointBeyondASCIIAt(std::string_view text, std::size_t offset) noexcept;
/// `offset` must be less than the size.
[[nodiscard]] inline CodePoint codePointAt(std::string_view text, std::size_t offset) noexcept {
  const char lead = text[offset];
  if (isASCII(lead)) return {static_cast<unsigned char>(lead), 1, true};
  return codePointBeyondASCIIAt(text, offset);
}
/// The code point that ends at `offset`, which must be greater than 0.
[[nodiscard]] CodePoint codePointBefore(std::string_view text, std::size_t offset) noexcept;
/// `codePoint` must be a Unicode scalar value.
void appendUTF8(std::string& out, char32_t codePoint);

/// Each code point alone by Unicode's full default mapping: no locale, no final-sigma rule, nothing
/// is normalised.
[[nodiscard]] std::string lowercased(std::string_view text);

/// Without white space and line ends at either end, code point by code point. U+200B counts as
/// white space here. The view is into `text`.
[[nodiscard]] std::string_view trimmingWhitespaceAndNewlines(std::string_view text) noexcept;
/// Likewise without line ends: only the blanks.
[[nodiscard]] std::string_view trimmingWhitespace(std::string_view text) noexcept;

/// The lines, without what ends them: LF, CR, CR LF, U+0085, U+2028 or U+2029. Nothing follows the
/// last of those when the text ends there. The views are into `text`.
[[nodiscard]] std::vector<std::string_view> lines(std::string_view text);
/// The first of the lines, which is removed from `text` with what ends it. Until `text` is empty it
/// has lines.
[[nodiscard]] std::string_view takeLine(std::string_view& text) noexcept;

/// Canonical equivalence (UAX #15): é equals e followed by U+0301. Case and compatibility forms
/// differ.
[[nodiscard]] bool areCanonicallyEqual(std::string_view left, std::string_view right);
/// The canonically composed form (NFC), so that canonically equal texts get equal bytes.
[[nodiscard]] std::string canonicallyComposed(std::string_view text);

/// Whether a user-perceived character (grapheme cluster, UAX #29) may end at `offset` and the next
/// one begin there. Looks at the two code points beside it, which settles the matter whenever one
/// of them is ASCII or white space; between two others it can say true where a longer look would
/// say false.
[[nodiscard]] bool isCharacterBoundary(std::string_view text, std::size_t offset);
/// Whether the ASCII sign at `offset` is a character of its own: "." directly followed by a
/// combining mark is another character and separates nothing.
[[nodiscard]] bool isWholeCharacter(std::string_view text, std::size_t offset);

/// Offset of the first or last place where `signs`, ASCII only, stands as characters of its own;
/// npos when there is none.
[[nodiscard]] std::size_t find(std::string_view text, std::string_view signs, std::size_t from = 0);
[[nodiscard]] std::size_t find(std::string_view text, char sign, std::size_t from = 0);
[[nodiscard]] std::size_t findLast(std::string_view text, char sign);
[[nodiscard]] inline bool hasPrefix(std::string_view text, std::string_view signs) {
  return text.starts_with(signs) && isCharacterBoundary(text, signs.size());
}
[[nodiscard]] inline bool hasSuffix(std::string_view text, char sign) {
  return text.ends_with(sign) && isCharacterBoundary(text, text.size() - 1);
}

/// The host as a URL carries it: UTS #46 in its non-transitional form, every error refused.
/// A host of ASCII only is returned as it is when all its characters may stand in a host.
[[nodiscard]] std::optional<std::string> asciiHost(std::string_view host);

/// What an adapter defines. Never called with ASCII-only text, and with well-formed UTF-8 only.
namespace platform {
/// By Unicode's simple mapping. U+0130, the one code point whose full mapping is another, is not
/// asked about.
[[nodiscard]] char32_t lowercased(char32_t codePoint) noexcept;
/// White space as a character property: U+200B is none, U+0085 is.
[[nodiscard]] bool isWhitespace(char32_t codePoint) noexcept;
[[nodiscard]] std::string canonicallyComposed(std::string_view text);
/// Whether a grapheme cluster (UAX #29) ends between these two, which are all that is known.
[[nodiscard]] bool areSeparateCharacters(char32_t left, char32_t right) noexcept;
/// UTS #46 ToASCII with CHECK_BIDI, CHECK_CONTEXTJ and non-transitional processing; none on any
/// error and for more than 2048 UTF-16 code units.
[[nodiscard]] std::optional<std::string> idnaToASCII(std::string_view host);
}  // namespace platform

}  // namespace stillow::core::text
