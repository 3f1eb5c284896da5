#pragma once

#include <cstddef>
#include <functional>
#include <utility>
#include <variant>

#include "StillowCore/Coding.hpp"
#include "StillowCore/Commitment.hpp"
#include "StillowCore/Date.hpp"
#include "StillowCore/SumType.hpp"

namespace stillow::authority {

/// What the daemon is bound to at one moment; the part of its state that survives it.
struct AuthorityState {
  struct active {
    core::Commitment commitment;
    friend bool operator==(const active&, const active&) = default;
  };
  /// The running time ran out at `endedAt`; a client is still to acknowledge it.
  struct expired {
    core::Date endedAt;
    friend bool operator==(const expired&, const expired&) = default;
  };
  struct idle {
    friend bool operator==(const idle&, const idle&) = default;
  };

  using Cases = std::variant<active, expired, idle>;
  Cases cases;

  template <core::CaseOf<Cases> Case>
  AuthorityState(Case state) : cases(std::move(state)) {}

  [[nodiscard]] bool isActive() const noexcept { return std::holds_alternative<active>(cases); }
  /// Null unless a Commitment is active. Valid as long as this state is not assigned to.
  [[nodiscard]] const core::Commitment* commitment() const noexcept {
    const auto* const held = std::get_if<active>(&cases);
    return held == nullptr ? nullptr : &held->commitment;
  }
  [[nodiscard]] core::Commitment* commitment() noexcept {
    auto* const held = std::get_if<active>(&cases);
    return held == nullptr ? nullptr : &held->commitment;
  }

  /// States that share their domain set are compared without looking at a single domain.
  friend bool operator==(const AuthorityState&, const AuthorityState&) = default;
};

}  // namespace stillow::authority

template <>
struct stillow::core::Coding<stillow::authority::AuthorityState> {
  using State = authority::AuthorityState;
  static constexpr auto cases = coding::casesOf(
      coding::caseOf<State::active>("active", coding::field("_0", &State::active::commitment)),
      coding::caseOf<State::expired>("expired", coding::field("endedAt", &State::expired::endedAt)),
      coding::caseOf<State::idle>("idle"));
};

template <>
struct std::hash<stillow::authority::AuthorityState> {
  std::size_t operator()(const stillow::authority::AuthorityState& state) const noexcept {
    std::size_t seed = state.cases.index();
    if (const auto* const commitment = state.commitment()) {
      stillow::core::hashInto(seed, *commitment);
    } else if (const auto* const expired =
                   std::get_if<stillow::authority::AuthorityState::expired>(&state.cases)) {
      stillow::core::hashInto(seed, expired->endedAt);
    }
    return seed;
  }
};
