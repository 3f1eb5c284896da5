#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace stillow::filtering {

/// Bytes as a client sent them. Nothing about them has been checked.
using WireBytes = std::span<const std::uint8_t>;

/// A host name that was read off the wire, in the form the matcher takes without a copy: ASCII,
/// lower case, no dot at the end. It owns its text in place and allocates nothing.
///
/// Internationalised names travel in their xn-- form, so bytes outside ASCII are no host name.
class HostName {
 public:
  /// A name of DNS has at most 255 octets on its wire, which is 253 characters of text (RFC 1035).
  static constexpr std::size_t bytesMax = 253;
  static constexpr std::size_t labelBytesMax = 63;

  /// None when `bytes` are no host name: nothing but a dot, an empty or too long label, too long
  /// altogether, a control character, a blank, a byte outside ASCII, a character that no `Domain`
  /// may hold, or an address in place of a name (every label a decimal number). One dot at the end
  /// is dropped.
  [[nodiscard]] static std::optional<HostName> read(WireBytes bytes) noexcept;

  /// Valid as long as this object is neither assigned to nor destroyed.
  [[nodiscard]] std::string_view text() const noexcept { return {text_.data(), size_}; }

  friend bool operator==(const HostName& left, const HostName& right) noexcept {
    return left.text() == right.text();
  }

 private:
  HostName() = default;

  std::array<char, bytesMax> text_{};
  std::uint8_t size_ = 0;
};

}  // namespace stillow::filtering
