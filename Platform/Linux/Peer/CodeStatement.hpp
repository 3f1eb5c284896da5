#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "StillowCore/SHA256.hpp"

namespace stillow::platform {

/// What a signature says: "the executable of this size and digest is `identifier`".
///
///     stillow code statement 1
///     identifier com.larchmoor.Stillow
///     size 1048576
///     sha256 64 hexadecimal digits in lower case
///
/// Four lines, each ended by LF. There is one text for one statement: no other spelling is read.
struct CodeStatement {
  /// 1 to 255 letters, digits, periods and hyphens.
  std::string identifier;
  /// Bytes of the executable. Signed too, so that a stranger's huge file beside a copied signature
  /// is refused without reading it.
  std::uint64_t size = 0;
  core::SHA256Digest sha256{};

  [[nodiscard]] static std::optional<CodeStatement> parse(std::string_view text);
  [[nodiscard]] std::string text() const;

  friend bool operator==(const CodeStatement&, const CodeStatement&) = default;
};

}  // namespace stillow::platform
