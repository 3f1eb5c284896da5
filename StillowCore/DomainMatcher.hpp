#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <ranges>
#include <string>
#include <string_view>
#include <vector>

#include "StillowCore/DomainSet.hpp"
#include "StillowCore/SlotAssignment.hpp"
#include "StillowCore/SuffixHash.hpp"

namespace stillow::core {

/// Tells whether a host name falls under a set of domains: is one of them or lies below one of
/// them.
///
/// Built once per Scope, then asked for every flow. A look-up hashes the host once, from its right
/// end, and mostly ends at the shortest suffix that could be a name, after two reads of memory: the
/// table knows under which few last labels there is anything at all, and each name has a slot of
/// its own, so that nothing is searched. Immutable, so any number of threads may ask.
class DomainMatcher {
 public:
  /// Matches nothing.
  DomainMatcher() = default;
  /// Shares `domains`; the table beside it takes about 45 bytes per name.
  explicit DomainMatcher(DomainSet domains);

  /// The names it was built from, in the order of the set. Valid as long as the matcher.
  [[nodiscard]] auto domainNames() const {
    return std::ranges::subrange(domains_.begin(), domains_.end()) |
           std::views::transform([](const Domain& domain) { return domain.name(); });
  }

  /// Upper case and one final dot make no difference; empty labels are labels like others.
  /// Allocates nothing for a host of ASCII. Bytes that are no UTF-8 do not hide the name behind
  /// them.
  [[nodiscard]] bool matches(std::string_view host) const;

 private:
  using Hashes = std::vector<std::uint64_t>;

  /// A short name lies in its slot, so that finding it costs one cache line and no detour.
  struct Slot {
    SuffixHash::Block block;  ///< the hash alone where the name is longer than a block
    std::uint32_t name = 0;
  };

  /// What one suffix tells. Where it is marked and decides, it is a name; where it is not marked,
  /// no name ends in it.
  struct Probe {
    bool isMarked;
    bool decides;  ///< otherwise longer suffixes have to be asked
  };

  void findLabelsMin();
  /// False if two names have the same hash.
  [[nodiscard]] bool fill();
  /// Sets the marks of every hash.
  void fillMarks(const Hashes& names, const Hashes& gates);
  [[nodiscard]] std::uint64_t groupOf(std::uint64_t hash) const noexcept;
  [[nodiscard]] std::size_t slotOf(std::uint64_t hash, std::uint64_t group) const noexcept;
  /// Of the shortest of the cuts.
  [[nodiscard]] Probe probe(const LastBytes& bytes, std::uint32_t cuts) const noexcept;
  /// Goes on behind the first of the cuts, out of the way of the many look-ups that end there.
  [[nodiscard, gnu::noinline]] bool matchesLonger(std::string_view host, std::uint32_t cuts) const;
  [[nodiscard]] bool matchesInFull(std::string_view host) const;
  /// Of a host of ASCII only the suffixes of at least so many labels, the others having been asked.
  [[nodiscard, gnu::noinline]] bool matchesFrom(std::size_t labels, std::string_view host) const;
  template <class IsSeparator>
  [[nodiscard]] bool matchesAnySuffix(std::string_view name, std::size_t labelsMin,
                                      IsSeparator isSeparator) const;

  DomainSet domains_;
  SuffixHash hash_ = SuffixHash::fixed();
  /// Shorter hosts take the long way. All of them, while there are no names.
  std::size_t hostBytesMin_ = std::numeric_limits<std::size_t>::max();
  /// 1 if a name has one label, else 2: a shorter suffix is not worth a look.
  std::size_t labelsMin_ = 2;
  /// A word for each group of hashes: its pilot, and marks that tell which hashes may be there.
  std::vector<std::uint64_t> groups_;
  std::size_t groupMask_ = 0;
  std::size_t slotCount_ = 0;
  std::vector<Slot> slots_;
};

}  // namespace stillow::core
