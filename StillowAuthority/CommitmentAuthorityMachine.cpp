#include "StillowAuthority/CommitmentAuthorityMachine.hpp"

#include "StillowCore/ActivationBoundary.hpp"
#include "StillowCore/Scope.hpp"

namespace stillow::authority {

namespace {

using core::Date;
using ipc::DaemonError;
using ipc::DaemonStatus;

ipc::CommitmentStatus commitmentStatus(const AuthorityState& state, Date now) {
  return core::match(
      state,
      [&](const AuthorityState::active& active) -> ipc::CommitmentStatus {
        return ipc::CommitmentStatus::active{
            ipc::ActiveCommitmentStatus::of(active.commitment, now)};
      },
      [](const AuthorityState::expired& expired) -> ipc::CommitmentStatus {
        return ipc::CommitmentStatus::expired{expired.endedAt};
      },
      [](const AuthorityState::idle&) -> ipc::CommitmentStatus {
        return ipc::CommitmentStatus::idle{};
      });
}

}  // namespace

DaemonStatus CommitmentAuthorityMachine::status(Date now) const {
  return {.observedAt = now,
          .commitment = commitmentStatus(state_, now),
          .enforcement = enforcement_,
          .readiness = readiness_};
}

core::CommitmentHealth CommitmentAuthorityMachine::commitmentHealth() const noexcept {
  return core::is<core::EnforcementHealthStatus::healthy>(enforcement_)
             ? core::CommitmentHealth::healthy
             : core::CommitmentHealth::degraded;
}

auto CommitmentAuthorityMachine::activate(core::DomainSet websites,
                                          core::CommitmentDuration duration, Date now) -> Ruling {
  if (const auto* const running = state_.commitment()) {
    return std::unexpected(
        DaemonError::commitmentAlreadyActive{ipc::ActiveCommitmentStatus::of(*running, now)});
  }
  if (websites.empty()) return std::unexpected(DaemonError::scopeResolvedEmpty{});
  if (!core::ScopeCapacity::admits(websites)) {
    return std::unexpected(DaemonError::internalFailure{
        "The selection holds more websites than Stillow can block at once."});
  }
  state_ = AuthorityState::active{
      core::Commitment{.activatedAt = now,
                       .scope = {.generation = 1, .domains = std::move(websites)},
                       .remainingDuration = duration.seconds(),
                       .health = commitmentHealth()}};
  return status(now);
}

auto CommitmentAuthorityMachine::strengthen(const core::DomainSet& additions, Date now) -> Ruling {
  auto* const commitment = state_.commitment();
  if (commitment == nullptr) return std::unexpected(DaemonError::noActiveCommitment{});
  const auto strengthened = commitment->strengthen(additions);
  if (strengthened) return status(now);
  switch (strengthened.error()) {
    case core::ScopeStrengtheningError::noAdditionalDomains:
      return std::unexpected(DaemonError::strengtheningAddsNoWebsites{});
    case core::ScopeStrengtheningError::exceedsCapacity:
      break;
  }
  return std::unexpected(DaemonError::internalFailure{"Scope could not be strengthened."});
}

auto CommitmentAuthorityMachine::extend(core::ProjectedEndTime requested, Date now) -> Ruling {
  auto* const commitment = state_.commitment();
  if (commitment == nullptr) return std::unexpected(DaemonError::noActiveCommitment{});
  const core::ProjectedEndTime current = commitment->projectedEndTime(now);
  const core::ExtensionRuling ruling = commitment->boundary().rule(current, requested);
  return core::match(
      ruling,
      [](const core::ExtensionRuling::exceedsOriginalBoundary& exceeds) -> Ruling {
        return std::unexpected(
            DaemonError::extensionExceedsActivationBoundary{exceeds.latestPermittedEndTime});
      },
      [&](const core::ExtensionRuling::permitted&) -> Ruling {
        commitment->remainingDuration = requested.date - now;
        return status(now);
      },
      [&](const core::ExtensionRuling::doesNotStrengthen&) -> Ruling {
        return std::unexpected(DaemonError::extensionDoesNotStrengthen{current});
      });
}

DaemonStatus CommitmentAuthorityMachine::acknowledgeExpiry(Date now) {
  if (core::is<AuthorityState::expired>(state_)) state_ = AuthorityState::idle{};
  return status(now);
}

DaemonStatus CommitmentAuthorityMachine::recordRunningTime(double seconds, Date now) {
  auto* const commitment = state_.commitment();
  // Written so that a NaN changes nothing.
  if (commitment != nullptr && seconds > 0) {
    commitment->remainingDuration -= seconds;
    if (commitment->remainingDuration <= 0) state_ = AuthorityState::expired{now};
  }
  return status(now);
}

DaemonStatus CommitmentAuthorityMachine::recordEnforcement(
    core::EnforcementHealthStatus enforcement, Date now) {
  enforcement_ = enforcement;
  if (auto* const commitment = state_.commitment()) commitment->health = commitmentHealth();
  return status(now);
}

DaemonStatus CommitmentAuthorityMachine::recordValidation(core::EnforcementValidation validation,
                                                          Date obtainedAt, Date now) {
  readiness_.validation = validation;
  readiness_.validatedAt = obtainedAt;
  return status(now);
}

DaemonStatus CommitmentAuthorityMachine::recordFilterConfiguration(bool isEnabled, Date now) {
  readiness_.filterConfigurationIsEnabled = isEnabled;
  return status(now);
}

void CommitmentAuthorityMachine::adopt(AuthorityState recovered) {
  state_ = std::move(recovered);
  if (auto* const commitment = state_.commitment()) commitment->health = commitmentHealth();
}

}  // namespace stillow::authority
