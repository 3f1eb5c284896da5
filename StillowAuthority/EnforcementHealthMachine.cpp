#include "StillowAuthority/EnforcementHealthMachine.hpp"

namespace stillow::authority {

using core::DegradedReason;
using core::EnforcementHealthStatus;

std::optional<EnforcementHealthEvent> EnforcementHealthMachine::apply(
    EnforcementVerification verification) {
  const bool wasDegraded = isDegraded();
  if (const auto* const unverified =
          core::getIf<EnforcementVerification::unverified>(verification)) {
    phase = Phase::degraded{unverified->reason};
    if (wasDegraded) return std::nullopt;
    return EnforcementHealthEvent::enteredDegraded{unverified->reason};
  }
  phase = Phase::healthy{};
  if (!wasDegraded) return std::nullopt;
  return EnforcementHealthEvent::returnedToHealthy{};
}

void EnforcementHealthMachine::settleRestored() {
  if (core::is<Phase::restoring>(phase)) phase = Phase::healthy{};
}

EnforcementHealthStatus EnforcementHealthMachine::status() const {
  return core::match(
      phase,
      [](const Phase::degraded& degraded) -> EnforcementHealthStatus {
        return EnforcementHealthStatus::degraded{degraded.reason};
      },
      [](const Phase::restoring&) -> EnforcementHealthStatus {
        return EnforcementHealthStatus::degraded{DegradedReason::recoveringFromCorruption};
      },
      [](const Phase::healthy&) -> EnforcementHealthStatus {
        return EnforcementHealthStatus::healthy{};
      });
}

}  // namespace stillow::authority
