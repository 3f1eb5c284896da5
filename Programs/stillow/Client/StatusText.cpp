#include "StillowClient/StatusText.hpp"

#include <algorithm>
#include <string_view>

#include "StillowClient/TimeText.hpp"
#include "StillowCore/SumType.hpp"

namespace stillow::client {

namespace {

using core::EnforcementHealthStatus;
using ipc::CommitmentStatus;

constexpr std::size_t barWidth = 30;
/// Names shown before the rest is only counted.
constexpr std::size_t namesShown = 20;

/// How much of the way from activation to the projected end is still ahead.
double fractionAhead(const ipc::ActiveCommitmentStatus& active, double remaining) {
  const double whole = active.projectedEndTime.date - active.activatedAt;
  return whole > 0 ? remaining / whole : 0;
}

std::string names(const core::DomainSet& scope) {
  std::string text;
  std::size_t shown = 0;
  for (const core::Domain& domain : scope) {
    if (shown == namesShown) break;
    text += (shown == 0 ? "" : ", ") + domain.name();
    ++shown;
  }
  if (scope.size() > shown) text += " and " + std::to_string(scope.size() - shown) + " more";
  return text;
}

}  // namespace

std::string healthSentence(const EnforcementHealthStatus& enforcement) {
  const auto* const degraded = core::getIf<EnforcementHealthStatus::degraded>(enforcement);
  if (degraded == nullptr) return "Blocking is in force.";
  switch (degraded->reason) {
    case core::DegradedReason::recoveringFromCorruption:
      return "Blocking is being restored and not proven yet.";
    case core::DegradedReason::pathUnverified:
      return "The last test of the block did not pass; it is being repeated.";
    case core::DegradedReason::failedOpen:
      return "Nothing is being blocked at the moment; it is being repaired.";
  }
  return "Blocking is in an unknown state.";
}

std::string statusText(const ipc::DaemonStatus& status, bool showsBar) {
  std::string text = core::match(
      status.commitment,
      [&](const CommitmentStatus::active& active) {
        const ipc::ActiveCommitmentStatus& commitment = active.status;
        std::string lines = "A Commitment is active for another " +
                            durationText(commitment.remainingDuration) + ", until about " +
                            momentText(commitment.projectedEndTime.date, status.observedAt) + ".\n";
        if (showsBar) {
          lines += "  " +
                   barText(fractionAhead(commitment, commitment.remainingDuration), barWidth) +
                   "  " + durationText(commitment.remainingDuration) + "\n";
        }
        lines += "  Blocked: " + names(commitment.scope) + "\n";
        return lines;
      },
      [&](const CommitmentStatus::expired& expired) {
        return "The Commitment ended at " + momentText(expired.endedAt, status.observedAt) +
               ". (stillow acknowledge clears this message.)\n";
      },
      [](const CommitmentStatus::idle&) { return std::string("No Commitment is active.\n"); });
  // With nothing to block, being able to block is no news; not being able to is.
  const bool isHealthy = core::is<EnforcementHealthStatus::healthy>(status.enforcement);
  if (status.active() != nullptr || !isHealthy) text += healthSentence(status.enforcement) + "\n";
  return text;
}

std::string statusLine(const ipc::DaemonStatus& status, core::Date now) {
  const ipc::ActiveCommitmentStatus* const active = status.active();
  if (active == nullptr) {
    return core::is<CommitmentStatus::idle>(status.commitment) ? "No Commitment is active."
                                                               : "The Commitment has ended.";
  }
  // Between two statuses the remainder is projected; the daemon's own figure comes with the next
  // one.
  const double remaining =
      std::max(0.0, active->remainingDuration - std::max(0.0, now - status.observedAt));
  return barText(fractionAhead(*active, remaining), barWidth) + "  " + durationText(remaining) +
         "  " + std::to_string(active->scope.size()) +
         (active->scope.size() == 1 ? " site" : " sites") + "  " +
         healthSentence(status.enforcement);
}

}  // namespace stillow::client
