#pragma once

#include <expected>
#include <utility>

#include "StillowAuthority/AuthorityState.hpp"
#include "StillowCore/CommitmentDuration.hpp"
#include "StillowCore/Date.hpp"
#include "StillowCore/DomainSet.hpp"
#include "StillowCore/EnforcementHealth.hpp"
#include "StillowCore/ProjectedEndTime.hpp"
#include "StillowIPC/DaemonError.hpp"
#include "StillowIPC/DaemonStatus.hpp"
#include "StillowIPC/EnforcementReadinessReport.hpp"

namespace stillow::authority {

/// The rules of the product over one state, free of clocks and input/output. docs/state-machine.md
/// shows them as a table.
///
/// Every operation takes the present moment, changes the value or refuses and leaves it as it was,
/// and answers with the status as of that moment. Nothing here ends a Commitment before its counted
/// seconds have run, shortens it, or takes a domain out of its Scope. Apart from activation and
/// strengthening, no operation costs more for a larger Scope.
class CommitmentAuthorityMachine {
 public:
  using Ruling = std::expected<ipc::DaemonStatus, ipc::DaemonError>;

  explicit CommitmentAuthorityMachine(
      AuthorityState state = AuthorityState::idle{},
      core::EnforcementHealthStatus enforcement = core::EnforcementHealthStatus::healthy{},
      ipc::EnforcementReadinessReport readiness = {})
      : state_(std::move(state)), enforcement_(enforcement), readiness_(readiness) {}

  [[nodiscard]] const AuthorityState& state() const noexcept { return state_; }
  [[nodiscard]] const core::EnforcementHealthStatus& enforcement() const noexcept {
    return enforcement_;
  }
  [[nodiscard]] const ipc::EnforcementReadinessReport& readiness() const noexcept {
    return readiness_;
  }

  [[nodiscard]] ipc::DaemonStatus status(core::Date now) const;

  /// Refuses with commitmentAlreadyActive, scopeResolvedEmpty, or internalFailure past
  /// core::ScopeCapacity. An unacknowledged expiry is no obstacle. Does not ask whether enforcement
  /// was validated: the authority does.
  [[nodiscard]] Ruling activate(core::DomainSet websites, core::CommitmentDuration duration,
                                core::Date now);
  /// Refuses with noActiveCommitment, strengtheningAddsNoWebsites, or internalFailure past
  /// core::ScopeCapacity.
  [[nodiscard]] Ruling strengthen(const core::DomainSet& additions, core::Date now);
  /// Refuses with noActiveCommitment, extensionDoesNotStrengthen or
  /// extensionExceedsActivationBoundary.
  [[nodiscard]] Ruling extend(core::ProjectedEndTime requested, core::Date now);
  /// Without an expiry to acknowledge nothing changes.
  ipc::DaemonStatus acknowledgeExpiry(core::Date now);

  /// Charges `seconds` of running time. What is not greater than 0, or comes without an active
  /// Commitment, changes nothing.
  ipc::DaemonStatus recordRunningTime(double seconds, core::Date now);
  ipc::DaemonStatus recordEnforcement(core::EnforcementHealthStatus enforcement, core::Date now);
  ipc::DaemonStatus recordValidation(core::EnforcementValidation validation, core::Date obtainedAt,
                                     core::Date now);
  ipc::DaemonStatus recordFilterConfiguration(bool isEnabled, core::Date now);

  /// Puts a recovered state in the place of the present one; an active Commitment takes its health
  /// from `enforcement`, because what stood in the file says nothing about now.
  void adopt(AuthorityState recovered);

 private:
  [[nodiscard]] core::CommitmentHealth commitmentHealth() const noexcept;

  AuthorityState state_;
  core::EnforcementHealthStatus enforcement_;
  ipc::EnforcementReadinessReport readiness_;
};

}  // namespace stillow::authority
