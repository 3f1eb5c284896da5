#pragma once

#include <algorithm>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

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

inline Finding findingOf(const Report& report, std::string_view check) {
  const auto found = std::ranges::find(report.findings, check, &Finding::check);
  EXPECT_NE(found, report.findings.end()) << check;
  return found == report.findings.end() ? Finding{} : *found;
}

/// What is not ok, as "check", "check?" (warning), "check-" (not checked), "check<cause".
inline std::vector<std::string> troubles(const Report& report) {
  std::vector<std::string> list;
  for (const Finding& finding : report.findings) {
    if (finding.state == FindingState::ok) continue;
    std::string text = finding.check;
    if (finding.state == FindingState::warning) text += '?';
    if (finding.state == FindingState::notChecked) text += '-';
    if (finding.consequenceOf) text += "<" + *finding.consequenceOf;
    list.push_back(text);
  }
  return list;
}

struct Row {
  const char* what;
  Observations machine;
  std::vector<std::string> expected;
  std::function<void(Observations&)> breakIt;
};

inline void expectRows(std::vector<Row> rows) {
  for (Row& row : rows) {
    SCOPED_TRACE(row.what);
    row.breakIt(row.machine);
    const Report report = judge(row.machine);
    EXPECT_EQ(troubles(report), row.expected);
    for (const Finding& finding : report.findings) {
      EXPECT_FALSE(finding.meaning.empty()) << finding.check;
      if (finding.state == FindingState::notChecked) continue;
      EXPECT_EQ(finding.action.has_value(), finding.isWrong() && !finding.consequenceOf)
          << finding.check;
    }
  }
}

inline ipc::DaemonStatus failedValidation(core::EnforcementValidationFailure failure) {
  return idleStatus(Validation::failed{failure});
}

}  // namespace stillow::doctor::testing
