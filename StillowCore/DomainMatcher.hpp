#pragma once

#include <cstddef>
#include <cstdint>
#include <ranges>
#include <string>
#include <string_view>
#include <vector>

#include "StillowCore/DomainSet.hpp"
#include "StillowCore/SuffixHash.hpp"

namespace stillow::core {

/// Tells whether a host name falls under a set of domains: is one of them or lies below one of
/// them.
///
/// Built once per Scope, then asked for every flow. A look-up hashes the host once, from its right
/// end, and mostly ends after one probe: the table also knows under which few last labels there is
/// anything at all. Immutable, so any number of threads may ask.
class DomainMatcher {
 public:
  /// Matches nothing.
  DomainMatcher() = default;
  /// Shares `domains`; the table beside it takes 13 to 30 bytes per name.
  explicit DomainMatcher(DomainSet domains);

  /// The names it was built from, in the order of the set. Valid as long as the matcher.
  [[nodiscard]] auto domainNames() const {
    return std::ranges::subrange(domains_.begin(), domains_.end()) |
           std::views::transform(
               [](const Domain& domain) -> const std::string& { return domain.name(); });
  }

  /// Upper case and one final dot make no difference; empty labels are labels like others.
  /// Allocates nothing for a host of ASCII. Bytes that are no UTF-8 do not hide the name behind
  /// them.
  [[nodiscard]] bool matches(std::string_view host) const;

 private:
  /// `name` counts from 1; 0 marks a free slot.
  struct Slot {
    std::uint32_t tag = 0;
    std::uint32_t name = 0;
  };

  void fillSlots();
  /// Marks every name and the short suffixes that names end in.
  void fillFilter();
  void mark(std::uint64_t hash) noexcept;
  [[nodiscard]] bool isMarked(std::uint64_t hash) const noexcept;
  [[nodiscard]] bool matchesUnicode(std::string_view host) const;
  template <SuffixHash::Letters letters, class IsSeparator, class IsEqual>
  [[nodiscard]] bool matchesAnySuffix(std::string_view host, IsSeparator isSeparator,
                                      IsEqual isEqual) const;

  DomainSet domains_;
  SuffixHash hash_ = SuffixHash::fixed();
  std::size_t labelsMin_ = 0;  ///< of all names: a shorter suffix is not worth a probe
  std::vector<std::uint64_t> filter_;
  std::vector<Slot> slots_;
};

}  // namespace stillow::core
