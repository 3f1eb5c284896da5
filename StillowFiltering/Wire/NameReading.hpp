#pragma once

#include <cstddef>
#include <utility>
#include <variant>

#include "StillowFiltering/Wire/HostName.hpp"

namespace stillow::filtering {

/// Bytes of a flow that are looked at for a name before it is released: the evidence bound that the
/// classifier applies, and the size of every buffer that a reader has.
inline constexpr std::size_t inspectedBytesMax = 4096;

/// What the first bytes of a flow say about the host that it goes to.
///
/// Every reader answers from the bytes that cannot change any more, so `found` and `none` are
/// final: more bytes of the same flow never turn them into another answer.
struct NameReading {
  /// The name may lie in bytes that have not come yet: keep the flow under inspection.
  struct needMore {
    friend constexpr bool operator==(const needMore&, const needMore&) = default;
  };
  /// No name can follow, or the inspection bound is reached: treat the bound as reached.
  struct none {
    friend constexpr bool operator==(const none&, const none&) = default;
  };
  /// The client named this host.
  struct found {
    HostName name;
    friend bool operator==(const found&, const found&) = default;
  };

  using Cases = std::variant<needMore, none, found>;
  Cases cases;

  NameReading(needMore value) noexcept : cases(value) {}
  NameReading(none value) noexcept : cases(value) {}
  NameReading(found value) noexcept : cases(value) {}

  /// The name, or null unless there is one. Valid as long as this reading is.
  [[nodiscard]] const HostName* name() const noexcept {
    const auto* reading = std::get_if<found>(&cases);
    return reading != nullptr ? &reading->name : nullptr;
  }
  [[nodiscard]] bool needsMore() const noexcept { return std::holds_alternative<needMore>(cases); }
  [[nodiscard]] bool isNone() const noexcept { return std::holds_alternative<none>(cases); }

  friend bool operator==(const NameReading&, const NameReading&) = default;
};

}  // namespace stillow::filtering
