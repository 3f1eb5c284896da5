#pragma once

#include <algorithm>
#include <utility>
#include <variant>

#include "StillowCore/Coding.hpp"
#include "StillowCore/Date.hpp"
#include "StillowCore/ProjectedEndTime.hpp"
#include "StillowCore/SumType.hpp"

namespace stillow::core {

/// The verdict on a proposed extension. A refusal is a ruling, not an error.
struct ExtensionRuling {
  /// The proposed end lies past activation + 24 h, which is the payload.
  struct exceedsOriginalBoundary {
    Date latestPermittedEndTime;
    friend bool operator==(const exceedsOriginalBoundary&,
                           const exceedsOriginalBoundary&) = default;
  };
  struct permitted {
    friend bool operator==(const permitted&, const permitted&) = default;
  };
  /// The proposed end is not later than the current one.
  struct doesNotStrengthen {
    friend bool operator==(const doesNotStrengthen&, const doesNotStrengthen&) = default;
  };

  using Cases = std::variant<exceedsOriginalBoundary, permitted, doesNotStrengthen>;
  Cases cases;

  template <CaseOf<Cases> Case>
  constexpr ExtensionRuling(Case ruling) : cases(std::move(ruling)) {}
  friend bool operator==(const ExtensionRuling&, const ExtensionRuling&) = default;
};

/// How far extensions may move the end of a Commitment: 24 hours past its activation.
///
/// Wall time on purpose. A Commitment is served in counted time, so time that does not count pushes
/// its projected end outward; this limit stays where activation put it.
struct ActivationBoundary {
  static constexpr double spanSeconds = 86'400;

  Date activatedAt;

  /// The limit itself is still permitted.
  [[nodiscard]] constexpr Date latestPermittedEndTime() const noexcept {
    return activatedAt + spanSeconds;
  }
  [[nodiscard]] constexpr bool permits(ProjectedEndTime end) const noexcept {
    return end.date <= latestPermittedEndTime();
  }

  /// Seconds that an extension could still reach beyond `now`. Never negative.
  [[nodiscard]] constexpr double remainingHeadroom(Date now) const noexcept {
    return std::max(0.0, latestPermittedEndTime() - now);
  }

  /// Judges moving the end from `current` to `proposed`. What is not later than `current` is
  /// `doesNotStrengthen` even past the limit: it extends nothing.
  [[nodiscard]] constexpr ExtensionRuling rule(ProjectedEndTime current,
                                               ProjectedEndTime proposed) const noexcept {
    // Not `proposed <= current`: a NaN has to end in this refusal too.
    if (!(current < proposed)) return ExtensionRuling::doesNotStrengthen{};
    if (permits(proposed)) return ExtensionRuling::permitted{};
    return ExtensionRuling::exceedsOriginalBoundary{latestPermittedEndTime()};
  }

  friend constexpr bool operator==(const ActivationBoundary&, const ActivationBoundary&) = default;
};

template <>
struct Coding<ActivationBoundary> {
  static constexpr auto fields =
      coding::fieldsOf(coding::field("activatedAt", &ActivationBoundary::activatedAt));
};

}  // namespace stillow::core

template <>
struct std::hash<stillow::core::ActivationBoundary> {
  std::size_t operator()(const stillow::core::ActivationBoundary& boundary) const noexcept {
    return std::hash<stillow::core::Date>{}(boundary.activatedAt);
  }
};
