#pragma once

#include <optional>
#include <utility>
#include <variant>

#include "StillowAuthority/SupervisionRoles.hpp"
#include "StillowCore/EnforcementHealth.hpp"
#include "StillowCore/SumType.hpp"

namespace stillow::authority {

struct EnforcementHealthEvent {
  struct enteredDegraded {
    core::DegradedReason reason;
    friend bool operator==(const enteredDegraded&, const enteredDegraded&) = default;
  };
  struct returnedToHealthy {
    friend bool operator==(const returnedToHealthy&, const returnedToHealthy&) = default;
  };

  using Cases = std::variant<enteredDegraded, returnedToHealthy>;
  Cases cases;

  template <core::CaseOf<Cases> Case>
  constexpr EnforcementHealthEvent(Case event) : cases(std::move(event)) {}
  friend bool operator==(const EnforcementHealthEvent&, const EnforcementHealthEvent&) = default;
};

/// Whether anybody can vouch that blocking is in force, as a pure value.
struct EnforcementHealthMachine {
  struct Phase {
    struct degraded {
      core::DegradedReason reason;
      friend bool operator==(const degraded&, const degraded&) = default;
    };
    struct restoring {  ///< just started, nothing known yet
      friend bool operator==(const restoring&, const restoring&) = default;
    };
    struct healthy {
      friend bool operator==(const healthy&, const healthy&) = default;
    };

    using Cases = std::variant<degraded, restoring, healthy>;
    Cases cases;

    template <core::CaseOf<Cases> Case>
    constexpr Phase(Case phase) : cases(std::move(phase)) {}
    friend bool operator==(const Phase&, const Phase&) = default;
  };

  Phase phase = Phase::restoring{};

  /// An event when health was lost or regained. A further reason while degraded is none, and
  /// neither is the first success after a start.
  std::optional<EnforcementHealthEvent> apply(EnforcementVerification verification);

  /// The durable state is sound: what was `restoring` is `healthy`, anything else stays.
  void settleRestored();

  /// What clients are told. Nothing is vouched for while restoring.
  [[nodiscard]] core::EnforcementHealthStatus status() const;
  [[nodiscard]] bool isHealthy() const noexcept { return core::is<Phase::healthy>(phase); }
  [[nodiscard]] bool isDegraded() const noexcept { return core::is<Phase::degraded>(phase); }

  friend bool operator==(const EnforcementHealthMachine&,
                         const EnforcementHealthMachine&) = default;
};

}  // namespace stillow::authority
