#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace stillow::core {

using SHA256Digest = std::array<std::uint8_t, 32>;

/// SHA-256 (FIPS 180-4) of `bytes`. Defined by the platform's adapter.
[[nodiscard]] SHA256Digest sha256(std::string_view bytes);

/// 64 lower-case hexadecimal digits.
[[nodiscard]] std::string hexadecimal(const SHA256Digest& digest);

}  // namespace stillow::core
