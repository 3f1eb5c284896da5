#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "StillowCore/ValidationHosts.hpp"
#include "StillowDoctor/Judging.hpp"

/// A machine on which all is well, for tests to break.
namespace stillow::doctor::testing {

using Failure = platform::DiagnosticExchange::Failure;
using Installation = platform::SystemdUnit::Installation;
using Validation = core::EnforcementValidation;
using HolderKind = platform::FilterQueueHolder::Kind;

inline constexpr core::Date now{816'969'728};

inline platform::DiagnosticExchange answering(core::Date serverDate = now) {
  return {.outcome = authority::DiagnosticConnectionOutcome::answered,
          .failure = Failure::none,
          .httpStatus = 200,
          .serverDate = serverDate};
}
inline platform::DiagnosticExchange answeringForAnother() {
  return {.outcome = authority::DiagnosticConnectionOutcome::answeredByAnotherHost,
          .failure = Failure::none,
          .httpStatus = 302};
}
inline platform::DiagnosticExchange failing(Failure failure) {
  return {.failure = failure, .detail = "its own words"};
}

/// What rules that are all in place look like when they are listed.
inline platform::InstalledRules wholeRules() {
  using platform::InstalledRules;
  // A load names each rule as a listing does; jumps it inserts in another way.
  auto rules = InstalledRules::parse(
      platform::NetfilterRules::armText(platform::IPFamily::v4, InstalledRules{}));
  rules.hold = {1, 1};
  rules.verdict = {1, 1};
  return rules;
}

inline ipc::DaemonStatus idleStatus(Validation validation = Validation::passed{}) {
  return {.observedAt = now, .readiness = {.validation = validation, .validatedAt = now}};
}
inline ipc::DaemonStatus activeStatus(Validation validation = Validation::passed{}) {
  ipc::DaemonStatus status = idleStatus(validation);
  status.commitment = ipc::CommitmentStatus::active{
      {.activatedAt = now,
       .scopeGeneration = 2,
       .scope = core::DomainSet::of({*core::Domain::make("blocked.example")}),
       .remainingDuration = 60}};
  return status;
}

inline Observations healthyMachine() {
  Observations seen;
  seen.now = now;
  seen.hasServiceManager = true;
  seen.daemonUnit = UnitObservation{Installation::enabled, "active"};
  seen.filterUnit = UnitObservation{Installation::enabled, "active"};
  seen.signature = {client::OwnSignature::Standing::trusted};
  seen.socket = {.kind = SocketObservation::Kind::present, .path = "/run/stillow/daemon.sock"};
  seen.status = idleStatus();
  seen.stateDirectory = StateDirectoryObservation{.exists = true,
                                                  .path = "/state",
                                                  .belongsToRoot = true,
                                                  .permissions = 0700,
                                                  .freeBytes = std::uint64_t{1} << 30};
  seen.checkpoints = authority::CommitmentStateRecovery::Source::current;
  seen.directive =
      DirectiveObservation{.read = filtering::EnforcementDirective{.publishedAt = now}};
  seen.queue = QueueObservation{.holder = {HolderKind::ourFilter}};
  seen.rules = std::vector<FamilyRulesObservation>{{platform::IPFamily::v4, {}},
                                                   {platform::IPFamily::v6, {}}};
  seen.network = authority::NetworkPathSnapshot{true, false, {"eth0"}};
  seen.trustStore = TrustStoreObservation{"/etc/ssl/authorities.pem", true, 140};
  seen.clockIsSynchronized = true;
  seen.control = answering();
  seen.controlAnsweredAt = now;
  seen.probed = answering();
  seen.validation = idleStatus();
  return seen;
}

/// The same in the middle of a Commitment.
inline Observations enforcingMachine() {
  Observations seen = healthyMachine();
  seen.status = activeStatus();
  seen.validation = activeStatus();
  seen.directive->read = filtering::EnforcementDirective{
      .scope = core::Scope{2, seen.status->active()->scope}, .publishedAt = now};
  seen.rules = std::vector<FamilyRulesObservation>{{platform::IPFamily::v4, wholeRules()},
                                                   {platform::IPFamily::v6, wholeRules()}};
  return seen;
}

inline void stopDaemon(Observations& seen, client::ReachCause cause) {
  seen.status = std::unexpected(ipc::DaemonError::daemonUnavailable{"No."});
  seen.reach = client::ReachFinding{cause, "It is not reached.", "Reach for it."};
  seen.validation.reset();
}

}  // namespace stillow::doctor::testing
