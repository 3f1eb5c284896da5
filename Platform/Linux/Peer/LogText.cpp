#include "PlatformLinuxPeer/LogText.hpp"

#include <system_error>

namespace stillow::platform {

std::string quotedForLog(std::string_view name) {
  constexpr std::size_t bytesMax = 256;
  constexpr std::string_view digits = "0123456789abcdef";
  std::string text = "\"";
  for (const char c : name.substr(0, bytesMax)) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte > 0x7e || c == '"' || c == '\\') {
      text += "\\x";
      text += digits[byte >> 4];
      text += digits[byte & 15];
    } else {
      text += c;
    }
  }
  text += name.size() > bytesMax ? "...\"" : "\"";
  return text;
}

std::string systemErrorText(int errorNumber) {
  return std::error_code(errorNumber, std::generic_category()).message();
}

}  // namespace stillow::platform
