#include "PlatformLinuxPeer/CodeStatement.hpp"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace stillow::platform {
namespace {

bool isIdentifierCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '-';
}

/// Takes "`label``value`\n" off the front of `text`.
std::optional<std::string_view> takeLine(std::string_view& text, std::string_view label) {
  const auto end = text.find('\n');
  if (!text.starts_with(label) || end == std::string_view::npos || end < label.size()) return {};
  const auto value = text.substr(label.size(), end - label.size());
  text.remove_prefix(end + 1);
  return value;
}

std::optional<core::SHA256Digest> parseDigest(std::string_view digits) {
  constexpr std::string_view hexadecimalDigits = "0123456789abcdef";
  core::SHA256Digest digest{};
  if (digits.size() != 2 * digest.size()) return {};
  for (std::size_t i = 0; i < digits.size(); ++i) {
    const auto value = hexadecimalDigits.find(digits[i]);
    if (value == std::string_view::npos) return {};
    digest[i / 2] = static_cast<std::uint8_t>(digest[i / 2] * 16U + value);
  }
  return digest;
}

}  // namespace

std::optional<CodeStatement> CodeStatement::parse(std::string_view text) {
  auto rest = text;
  const auto title = takeLine(rest, "stillow code statement 1");
  const auto identifier = title ? takeLine(rest, "identifier ") : std::nullopt;
  const auto size = identifier ? takeLine(rest, "size ") : std::nullopt;
  const auto sha256 = size ? takeLine(rest, "sha256 ") : std::nullopt;
  const auto digest = sha256 ? parseDigest(*sha256) : std::nullopt;
  if (!digest || identifier->empty() || identifier->size() > 255 ||
      !std::ranges::all_of(*identifier, isIdentifierCharacter)) {
    return {};
  }
  CodeStatement statement{std::string(*identifier), 0, *digest};
  const auto [end, error] =
      std::from_chars(size->data(), size->data() + size->size(), statement.size);
  // The comparison refuses what the steps above let pass: leading zeros, text after the last line.
  if (error != std::errc() || statement.text() != text) return {};
  return statement;
}

std::string CodeStatement::text() const {
  return "stillow code statement 1\nidentifier " + identifier + "\nsize " + std::to_string(size) +
         "\nsha256 " + core::hexadecimal(sha256) + "\n";
}

}  // namespace stillow::platform
