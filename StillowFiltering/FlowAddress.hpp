#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string_view>

namespace stillow::filtering {

/// The remote IP address of a flow, as text. Equal and hashed by the text.
///
/// The text lives in the value itself, so that asking about a flow allocates nothing.
class FlowAddress {
 public:
  /// The longest printed form, "ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255".
  static constexpr std::size_t literalBytesMax = 45;

  /// From an address's printed form; a zone suffix (from "%" on) is cut off. None for a text that
  /// is empty or too long to be an address; whether it is one is not checked.
  [[nodiscard]] static std::optional<FlowAddress> fromPrintedForm(std::string_view text) noexcept;
  /// Whether `text` is an IPv4 address in dotted form or an IPv6 address, with or without a zone.
  [[nodiscard]] static bool isPrintedForm(std::string_view text) noexcept;
  /// From the bytes of a packet's header, printed as RFC 5952 says.
  [[nodiscard]] static FlowAddress fromIPv4(std::span<const std::uint8_t, 4> bytes) noexcept;
  [[nodiscard]] static FlowAddress fromIPv6(std::span<const std::uint8_t, 16> bytes) noexcept;

  /// Valid as long as this address is.
  [[nodiscard]] std::string_view literal() const noexcept { return {storage_.data(), size()}; }

  /// The text, zeros behind it and the length: equal exactly when the texts are.
  [[nodiscard]] const std::array<char, 48>& storage() const noexcept { return storage_; }

  friend bool operator==(const FlowAddress&, const FlowAddress&) noexcept = default;

 private:
  FlowAddress() = default;
  [[nodiscard]] std::size_t size() const noexcept {
    return static_cast<unsigned char>(storage_.back());
  }
  void append(std::string_view text) noexcept;
  void appendIPv4(std::span<const std::uint8_t, 4> bytes) noexcept;
  void appendNumber(unsigned value, unsigned base) noexcept;

  std::array<char, 48> storage_{};
};

}  // namespace stillow::filtering

template <>
struct std::hash<stillow::filtering::FlowAddress> {
  std::size_t operator()(const stillow::filtering::FlowAddress& address) const noexcept {
    return std::hash<std::string_view>{}(address.literal());
  }
};
