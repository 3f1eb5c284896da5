#pragma once

#include <optional>
#include <string>
#include <string_view>

/// Text rules that depend on Unicode data. All text is UTF-8.
///
/// What is pure ASCII is settled here; only the rest reaches the platform's own tables, through the
/// functions of `platform`, which an adapter defines at link time.
namespace stillow::core::text {

[[nodiscard]] constexpr bool isASCII(char c) noexcept {
  return static_cast<unsigned char>(c) < 0x80;
}
[[nodiscard]] constexpr bool isASCII(std::string_view text) noexcept {
  for (const char c : text) {
    if (!isASCII(c)) return false;
  }
  return true;
}
[[nodiscard]] constexpr char lowercasedASCII(char c) noexcept {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// True if `text` is well-formed UTF-8 (RFC 3629: no surrogates, no overlong forms, at most U+10FFFF).
[[nodiscard]] bool isValidUTF8(std::string_view text) noexcept;

/// Each code point alone by Unicode's full default mapping: no locale, no final-sigma rule, nothing
/// is normalised.
[[nodiscard]] std::string lowercased(std::string_view text);

/// Without white space and line ends at either end, code point by code point. U+200B counts as white
/// space here. The view is into `text`.
[[nodiscard]] std::string_view trimmingWhitespaceAndNewlines(std::string_view text);
/// Likewise without line ends: only the blanks.
[[nodiscard]] std::string_view trimmingWhitespace(std::string_view text);

/// Canonical equivalence (UAX #15): é equals e followed by U+0301. Case and compatibility forms differ.
[[nodiscard]] bool areCanonicallyEqual(std::string_view left, std::string_view right);
/// The canonically composed form (NFC), so that canonically equal texts get equal bytes.
[[nodiscard]] std::string canonicallyComposed(std::string_view text);

/// The host as a URL carries it: UTS #46 in its non-transitional form, every error refused.
/// A host of ASCII only is returned as it is when all its characters may stand in a host.
[[nodiscard]] std::optional<std::string> asciiHost(std::string_view host);

/// What an adapter defines. Never called with ASCII-only text.
namespace platform {
[[nodiscard]] std::string lowercased(std::string_view text);
/// White space as a character property: U+200B is none, U+0085 is.
[[nodiscard]] bool isWhitespace(char32_t codePoint) noexcept;
[[nodiscard]] std::string canonicallyComposed(std::string_view text);
/// Bytes from `offset` to the end of the grapheme cluster (UAX #29) that begins there.
[[nodiscard]] std::size_t graphemeLength(std::string_view text, std::size_t offset);
/// UTS #46 ToASCII with CHECK_BIDI, CHECK_CONTEXTJ and non-transitional processing; none on any error.
[[nodiscard]] std::optional<std::string> idnaToASCII(std::string_view host);
}  // namespace platform

}  // namespace stillow::core::text
