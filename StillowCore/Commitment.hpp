#pragma once

#include <cstdint>
#include <expected>
#include <span>

#include "StillowCore/ActivationBoundary.hpp"
#include "StillowCore/Coding.hpp"
#include "StillowCore/Date.hpp"
#include "StillowCore/ProjectedEndTime.hpp"
#include "StillowCore/Scope.hpp"

namespace stillow::core {

/// Whether the enforcement of one Commitment is currently known to work.
enum class CommitmentHealth : std::uint8_t { healthy, degraded };

/// One running Commitment.
struct Commitment {
  Date activatedAt;  ///< never changes; fixes the boundary for extensions
  Scope scope;
  double remainingDuration = 0;  ///< seconds of counted time still to run
  CommitmentHealth health = CommitmentHealth::degraded;

  [[nodiscard]] ProjectedEndTime projectedEndTime(Date now) const noexcept {
    return ProjectedEndTime::after(now, remainingDuration);
  }
  [[nodiscard]] ActivationBoundary boundary() const noexcept { return {activatedAt}; }

  /// Replaces the Scope by one that also holds `additions`. On an error nothing has changed.
  [[nodiscard]] std::expected<void, ScopeStrengtheningError> strengthen(const DomainSet& additions);
  [[nodiscard]] std::expected<void, ScopeStrengtheningError> strengthen(
      const CommitmentSelection& selection, std::span<const Website> websites);

  friend bool operator==(const Commitment&, const Commitment&) = default;
};

template <>
struct Coding<CommitmentHealth> {
  static constexpr std::string_view typeName = "CommitmentHealth";
  static constexpr auto names = coding::namesOf<CommitmentHealth>(
      {{CommitmentHealth::healthy, "healthy"}, {CommitmentHealth::degraded, "degraded"}});
};

template <>
struct Coding<Commitment> {
  static constexpr auto fields =
      coding::fieldsOf(coding::field("activatedAt", &Commitment::activatedAt),
                       coding::field("scope", &Commitment::scope),
                       coding::field("remainingDuration", &Commitment::remainingDuration),
                       coding::field("health", &Commitment::health));
};

}  // namespace stillow::core

template <>
struct std::hash<stillow::core::Commitment> {
  std::size_t operator()(const stillow::core::Commitment& commitment) const noexcept {
    std::size_t seed = std::hash<stillow::core::Date>{}(commitment.activatedAt);
    stillow::core::hashInto(seed, commitment.scope);
    stillow::core::hashInto(seed, commitment.remainingDuration);
    stillow::core::hashInto(seed, commitment.health);
    return seed;
  }
};
