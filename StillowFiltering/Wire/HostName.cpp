#include "StillowFiltering/Wire/HostName.hpp"

#include <string_view>

#include "StillowCore/Text.hpp"

namespace stillow::filtering {
namespace {

constexpr auto isHostCharacter = [] {
  std::array<bool, 256> table{};
  for (std::size_t c = 0x21; c < 0x7f; ++c) table[c] = true;
  // What no Domain may hold either. The dot separates labels and is handled by itself.
  for (const char c : std::string_view{"/\\?#@:[]\"'<>,;=&%+!*()."}) {
    table[static_cast<unsigned char>(c)] = false;
  }
  return table;
}();

constexpr bool isDigit(std::uint8_t c) noexcept { return c >= '0' && c <= '9'; }

}  // namespace

std::optional<HostName> HostName::read(WireBytes bytes) noexcept {
  if (!bytes.empty() && bytes.back() == '.') bytes = bytes.first(bytes.size() - 1);
  if (bytes.empty() || bytes.size() > bytesMax) return std::nullopt;

  HostName name;
  std::size_t labelBytes = 0;
  bool isAllDigits = true;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const std::uint8_t c = bytes[i];
    if (c == '.') {
      if (labelBytes == 0) return std::nullopt;
      labelBytes = 0;
    } else {
      if (!isHostCharacter[c] || ++labelBytes > labelBytesMax) return std::nullopt;
      isAllDigits = isAllDigits && isDigit(c);
    }
    name.text_[i] = core::text::lowercasedASCII(static_cast<char>(c));
  }
  if (labelBytes == 0 || isAllDigits) return std::nullopt;
  name.size_ = static_cast<std::uint8_t>(bytes.size());
  return name;
}

}  // namespace stillow::filtering
