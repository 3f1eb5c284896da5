#include "StillowClient/StatusText.hpp"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <string_view>
#include <utility>

#include "StillowClient/TimeText.hpp"
#include "StillowCore/SumType.hpp"

namespace stillow::client {

namespace {

using core::EnforcementHealthStatus;
using ipc::CommitmentStatus;

constexpr std::size_t barWidthMax = 30;
constexpr std::size_t barWidthMin = 8;
/// Names shown before the rest is only counted.
constexpr std::size_t namesShown = 20;
constexpr std::size_t indent = 2;

/// How much of the way from activation to the projected end is still ahead.
double fractionAhead(const ipc::ActiveCommitmentStatus& active, double remaining) {
  const double whole = active.projectedEndTime.date - active.activatedAt;
  return whole > 0 ? remaining / whole : 0;
}

/// The bar with the remainder behind it, as wide as there is room for.
std::string barLine(const ipc::ActiveCommitmentStatus& active, double remaining,
                    std::string_view behind, const TextStyle& style) {
  const std::string text = "  " + durationText(remaining) + std::string(behind);
  std::size_t width = barWidthMax;
  if (style.columns != 0) {
    const std::size_t taken = indent + displayWidth(text);
    width = style.columns > taken ? std::min(barWidthMax, style.columns - taken) : 0;
    width = std::max(width, barWidthMin);
  }
  return std::string(indent, ' ') +
         toned(barText(fractionAhead(active, remaining), width), Tone::good, style) + text;
}

std::string activeText(const ipc::ActiveCommitmentStatus& active, core::Date now,
                       const TextStyle& style) {
  std::string text =
      wrapped(toned("A Commitment is active", Tone::strong, style) + " for another " +
                  durationText(active.remainingDuration) + ", until about " +
                  momentText(active.projectedEndTime.date, now) + ".",
              style.columns) +
      "\n";
  if (style.showsBar) text += barLine(active, active.remainingDuration, "", style) + "\n";
  return text + wrapped("  Blocked: " + scopeText(active.scope), style.columns, 2 * indent) + "\n";
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

Tone healthTone(const EnforcementHealthStatus& enforcement) {
  const auto* const degraded = core::getIf<EnforcementHealthStatus::degraded>(enforcement);
  if (degraded == nullptr) return Tone::good;
  return degraded->reason == core::DegradedReason::failedOpen ? Tone::bad : Tone::uncertain;
}

std::string scopeText(const core::DomainSet& scope) {
  std::string text;
  std::size_t shown = 0;
  for (const core::Domain& domain : scope) {
    if (shown == namesShown) break;
    text += (shown == 0 ? "" : ", ") + printable(domain.name());
    ++shown;
  }
  if (scope.size() > shown) text += " and " + std::to_string(scope.size() - shown) + " more";
  return text;
}

std::string statusText(const ipc::DaemonStatus& status, const TextStyle& style) {
  const core::Date now = status.observedAt;
  std::string text = core::match(
      status.commitment,
      [&](const CommitmentStatus::active& active) { return activeText(active.status, now, style); },
      [&](const CommitmentStatus::expired& expired) {
        return wrapped("The Commitment ended at " + momentText(expired.endedAt, now) +
                           ". (stillow acknowledge clears this message.)",
                       style.columns) +
               "\n";
      },
      [](const CommitmentStatus::idle&) { return std::string("No Commitment is active.\n"); });
  // With nothing to block, being able to block is no news; not being able to is.
  const bool isHealthy = core::is<EnforcementHealthStatus::healthy>(status.enforcement);
  if (status.active() != nullptr || !isHealthy) {
    text +=
        wrapped(toned(healthSentence(status.enforcement), healthTone(status.enforcement), style),
                style.columns) +
        "\n";
  }
  return text;
}

std::vector<std::string> liveLines(const ipc::DaemonStatus& status, core::Date now,
                                   bool isConnected, const TextStyle& style) {
  std::string text;
  if (const ipc::ActiveCommitmentStatus* const active = status.active()) {
    const double passed = std::max(0.0, now - status.observedAt);
    const double remaining = std::max(0.0, active->remainingDuration - passed);
    text = barLine(*active, remaining, " left", style) + "\n" +
           wrapped("  Until about " + momentText(active->projectedEndTime.date, now) + ", " +
                       counted(active->scope.size(), "site") + ".",
                   style.columns, indent) +
           "\n";
  } else if (const auto* const expired =
                 core::getIf<CommitmentStatus::expired>(status.commitment)) {
    text = wrapped("  The Commitment ended at " + momentText(expired->endedAt, now) + ".",
                   style.columns, indent) +
           "\n";
  } else {
    text = "  No Commitment is active.\n";
  }
  const std::string health =
      isConnected
          ? toned(healthSentence(status.enforcement), healthTone(status.enforcement), style)
          : toned("The daemon is gone; waiting for it to come back.", Tone::uncertain, style);
  text += wrapped("  " + health, style.columns, indent);

  std::vector<std::string> lines;
  for (std::size_t at = 0;;) {
    const std::size_t end = text.find('\n', at);
    lines.push_back(text.substr(at, end == std::string::npos ? end : end - at));
    if (end == std::string::npos) return lines;
    at = end + 1;
  }
}

namespace {

/// Ends that are closer than this are the same: the daemon's clock and its counting differ a
/// little.
constexpr double endToleranceSeconds = 1.5;

std::string addedNames(const core::DomainSet& before, const core::DomainSet& after) {
  std::vector<core::Domain> added;
  std::ranges::set_difference(after, before, std::back_inserter(added));
  return added.empty() ? "" : "Added: " + scopeText(core::DomainSet::of(std::move(added))) + ".";
}

void compare(const ipc::ActiveCommitmentStatus& before, const ipc::ActiveCommitmentStatus& after,
             core::Date now, std::vector<std::string>& changes) {
  if (std::string added = addedNames(before.scope, after.scope); !added.empty()) {
    changes.push_back(std::move(added));
  }
  const double moved = after.projectedEndTime.date - before.projectedEndTime.date;
  if (std::abs(moved) < endToleranceSeconds) return;
  const std::string end =
      "t ends at about " + momentText(after.projectedEndTime.date, now) + " now.";
  // Only an extension lets time grow; an end moves for other reasons too, such as a clock that was
  // set or time that did not count.
  const bool isExtended = after.remainingDuration > before.remainingDuration;
  changes.push_back((isExtended ? "Extended: i" : "I") + end);
}

}  // namespace

std::vector<std::string> changesBetween(const ipc::DaemonStatus& before,
                                        const ipc::DaemonStatus& after) {
  std::vector<std::string> changes;
  const core::Date now = after.observedAt;
  const auto* const active = after.active();
  if (active != nullptr && before.active() != nullptr &&
      active->activatedAt == before.active()->activatedAt) {
    compare(*before.active(), *active, now, changes);
  } else if (active != nullptr) {
    changes.push_back("A Commitment has started: " + scopeText(active->scope) + ", until about " +
                      momentText(active->projectedEndTime.date, now) + ".");
  } else if (before.commitment.cases.index() != after.commitment.cases.index()) {
    changes.push_back(core::is<CommitmentStatus::expired>(after.commitment)
                          ? "The Commitment has ended. Clear this with: stillow acknowledge"
                          : "No Commitment is active any more.");
  }
  if (before.enforcement != after.enforcement) {
    changes.push_back(healthSentence(after.enforcement));
  }
  return changes;
}

}  // namespace stillow::client
