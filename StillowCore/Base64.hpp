#pragma once

#include <cstddef>
#include <expected>
#include <string>
#include <string_view>

/// Standard Base64 (RFC 4648 section 4) with padding and without line breaks.
namespace stillow::core::json {

[[nodiscard]] constexpr std::size_t base64Size(std::size_t byteCount) noexcept {
  return (byteCount + 2) / 3 * 4;
}
/// Writes base64Size(bytes.size()) characters to `out`; where they end.
char* writeBase64(char* out, std::string_view bytes) noexcept;
[[nodiscard]] std::string base64Encoded(std::string_view bytes);
/// Strict: padding required, no other character allowed; left-over bits are not checked.
[[nodiscard]] std::expected<std::string, std::string> base64Decoded(std::string_view text);

}  // namespace stillow::core::json
