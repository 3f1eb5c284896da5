#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "StillowCore/ShortText.hpp"

namespace stillow::core {

/// A host name that passed the character check: lower case, no final dot, one or more non-empty
/// labels separated by ".", no white space and none of the signs /\?#@:[]"'<>,;=&%+!*().
///
/// On purpose there is no limit on lengths, no rule about hyphens, a single label is fine, and
/// letters beyond ASCII stay as they stand. Names are equal, ordered and hashed under canonical
/// equivalence: é equals e followed by U+0301.
class Domain {
 public:
  /// Lower-cases `name` and removes one final dot. None where the rule above refuses the rest, or
  /// where it is not UTF-8.
  [[nodiscard]] static std::optional<Domain> make(std::string_view name);

  /// Valid until the domain is moved from, assigned to or destroyed.
  [[nodiscard]] std::string_view name() const& noexcept { return name_.view(); }
  [[nodiscard]] std::string name() && { return std::string(name_.view()); }

  friend bool operator==(const Domain& left, const Domain& right) {
    return left.name() == right.name() || (left <=> right) == 0;
  }
  /// Byte order of the canonically composed names.
  friend std::weak_ordering operator<=>(const Domain& left, const Domain& right);

 private:
  /// Only this class can say that a name has passed.
  struct Passed {};

 public:
  Domain(Passed, std::string_view name) : name_(name) {}

 private:
  ShortText name_;
};

}  // namespace stillow::core

template <>
struct std::hash<stillow::core::Domain> {
  std::size_t operator()(const stillow::core::Domain& domain) const;
};
