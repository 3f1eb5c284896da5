#pragma once

#include <cstdint>
#include <expected>
#include <string>
#include <string_view>

/// The platform's own JSON text: which characters are escaped, how numbers look.
namespace stillow::core::json {

/// `text` between quotes. Escapes ", \, / and control characters; everything else is written as it
/// is.
void appendString(std::string& out, std::string_view text);
void appendInteger(std::string& out, std::int64_t value);
/// Shortest digits that read back to `value`, without a ".0". False for what JSON has no form for
/// (NaN, infinities); nothing is appended then.
[[nodiscard]] bool appendDouble(std::string& out, double value);

/// "5.0", "1e+16", "nan": the shortest digits that read back, always with a fraction or an
/// exponent.
[[nodiscard]] std::string description(double value);

/// None: the text is no number of that type.
[[nodiscard]] std::expected<std::int64_t, std::string> parseInteger(std::string_view digits);
[[nodiscard]] std::expected<double, std::string> parseDouble(std::string_view digits);

/// Standard Base64 (RFC 4648 section 4) with padding and without line breaks.
[[nodiscard]] std::string base64Encoded(std::string_view bytes);
/// Strict: padding required, no other character allowed; left-over bits are not checked.
[[nodiscard]] std::expected<std::string, std::string> base64Decoded(std::string_view text);

/// `json`, a valid JSON text, with two blanks per level, " : " after keys and keys sorted by their
/// bytes.
[[nodiscard]] std::string prettyPrinted(std::string_view json);

}  // namespace stillow::core::json
