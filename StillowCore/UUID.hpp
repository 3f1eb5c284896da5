#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <cstring>
#include <expected>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "StillowCore/Coding.hpp"

namespace stillow::core {

/// A universally unique identifier (RFC 9562).
struct UUID {
  std::array<std::uint8_t, 16> bytes{};

  /// The 36-character form in any letter case; none for anything else.
  [[nodiscard]] static std::optional<UUID> parse(std::string_view text);
  /// The 36-character form in upper case.
  [[nodiscard]] std::string string() const;

  friend bool operator==(const UUID&, const UUID&) = default;
  friend auto operator<=>(const UUID&, const UUID&) = default;
};

template <>
struct Coding<UUID> {
  using Underlying = std::string;
  static std::string raw(const UUID& uuid) { return uuid.string(); }
  static std::expected<UUID, std::string> refine(const std::string& text) {
    const auto uuid = UUID::parse(text);
    if (!uuid) return std::unexpected("Attempted to decode UUID from invalid UUID string.");
    return *uuid;
  }
};

}  // namespace stillow::core

template <>
struct std::hash<stillow::core::UUID> {
  std::size_t operator()(const stillow::core::UUID& uuid) const noexcept {
    std::size_t seed = 0;
    std::memcpy(&seed, uuid.bytes.data(), sizeof seed);
    return seed;
  }
};
