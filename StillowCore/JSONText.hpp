#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <string>
#include <string_view>

#include "StillowCore/TextBuffer.hpp"

/// The platform's own JSON text: which characters are escaped, how numbers look.
namespace stillow::core::json {

/// Bytes that follow the one long value of our records at most, to ask for at once with it: a
/// buffer that holds exactly that value would be copied for the rest.
inline constexpr std::size_t endBytes = 1'024;

/// `text` between quotes. Escapes ", \, / and control characters; everything else is written as it
/// is.
void appendString(TextBuffer& out, std::string_view text);
/// Likewise behind `before`, the sign that an array has there.
void appendString(TextBuffer& out, char before, std::string_view text);
void appendInteger(TextBuffer& out, std::int64_t value);
/// Shortest digits that read back to `value`, without a ".0". False for what JSON has no form for
/// (NaN, infinities); nothing is appended then.
[[nodiscard]] bool appendDouble(TextBuffer& out, double value);
/// `bytes` in Base64, as a string.
void appendBase64(TextBuffer& out, std::string_view bytes);

void appendString(std::string& out, std::string_view text);
void appendInteger(std::string& out, std::int64_t value);

/// "5.0", "1e+16", "nan": the shortest digits that read back, always with a fraction or an
/// exponent.
[[nodiscard]] std::string description(double value);

/// None: the text is no number of that type.
[[nodiscard]] std::expected<std::int64_t, std::string> parseInteger(std::string_view digits);
[[nodiscard]] std::expected<double, std::string> parseDouble(std::string_view digits);

/// `json`, a valid JSON text, with two blanks per level, " : " after keys and keys sorted by their
/// bytes.
[[nodiscard]] std::string prettyPrinted(std::string_view json);

}  // namespace stillow::core::json
