#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <functional>
#include <span>
#include <string_view>

#include "StillowCore/Coding.hpp"
#include "StillowCore/DomainCoding.hpp"
#include "StillowCore/DomainSet.hpp"
#include "StillowCore/Website.hpp"

namespace stillow::core {

enum class ScopeStrengtheningError : std::uint8_t {
  noAdditionalDomains,  ///< every offered domain is already in the Scope
  exceedsCapacity,      ///< the union would pass ScopeCapacity; nothing was added
};

/// The most that a Scope may hold. Without it a user could grow a Scope until the filter, which
/// keeps all names in memory, is killed for want of it, and with the filter the block.
struct ScopeCapacity {
  static constexpr std::size_t domainsMax = 1'200'000;
  static constexpr std::size_t nameBytesMax = 48U << 20;

  [[nodiscard]] static bool admits(const DomainSet& domains) noexcept;
};

/// The domains that a Commitment blocks. It only ever grows, and `generation` counts the growth.
struct Scope {
  std::int64_t generation = 1;  ///< 1 when resolved; +1 with each successful strengthening
  DomainSet domains;

  /// A Scope of generation 1 with the domains of the selected Websites; may be empty.
  [[nodiscard]] static Scope resolving(const CommitmentSelection& selection,
                                       std::span<const Website> websites);
  /// This Scope and `additions`, one generation on. Stops the process if the generation is at its
  /// end.
  [[nodiscard]] std::expected<Scope, ScopeStrengtheningError> strengthened(
      const DomainSet& additions) const;
  [[nodiscard]] std::expected<Scope, ScopeStrengtheningError> strengthened(
      const CommitmentSelection& selection, std::span<const Website> websites) const;
  /// True if `host`, in lower case, is one of the domains or lies below one. A scan of all domains:
  /// where many hosts are tested, build a DomainMatcher.
  [[nodiscard]] bool contains(std::string_view host) const noexcept;

  friend bool operator==(const Scope&, const Scope&) = default;
};

template <>
struct Coding<Scope> {
  static constexpr auto fields = coding::fieldsOf(coding::field("generation", &Scope::generation),
                                                  coding::field("domains", &Scope::domains));
};

}  // namespace stillow::core

template <>
struct std::hash<stillow::core::Scope> {
  std::size_t operator()(const stillow::core::Scope& scope) const noexcept {
    std::size_t seed = std::hash<std::int64_t>{}(scope.generation);
    stillow::core::hashInto(seed, scope.domains);
    return seed;
  }
};
