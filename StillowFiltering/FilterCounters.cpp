#include "StillowFiltering/FilterCounters.hpp"

#include <algorithm>
#include <string_view>

#include "StillowCore/Invariant.hpp"

namespace stillow::filtering {

namespace {

void increment(std::int64_t& counter) noexcept { counter = core::successor(counter); }

}  // namespace

void FilterCounters::countAssociation(std::size_t addressCount) noexcept {
  increment(associationsRecorded);
  associatedAddressCount = static_cast<std::int64_t>(addressCount);
}

void FilterCounters::countClassified(const FlowClassification& classification) noexcept {
  increment(flowsClassified);
  switch (classification.attribution) {
    case FlowAttribution::ambiguous:
      increment(ambiguousFlowsAllowed);
      break;
    case FlowAttribution::unattributed:
      increment(unattributedFlowsAllowed);
      break;
    case FlowAttribution::scoped:
    case FlowAttribution::unscoped:
      break;
  }
  core::match(
      classification.disposition,
      [this](FlowDisposition::allowUnderInspection) { increment(flowsHeldForInspection); },
      [this](FlowDisposition::drop) { increment(flowsDropped); },
      [this](FlowDisposition::allowAndRelease) { increment(flowsReleased); });
}

void FilterCounters::countEndOfInspection(const FlowDisposition& disposition) noexcept {
  // A flow may be asked about again that never counted as held: before the filter was restarted,
  // say.
  flowsHeldForInspection = std::max<std::int64_t>(flowsHeldForInspection - 1, 0);
  increment(core::is<FlowDisposition::drop>(disposition) ? flowsDropped : flowsReleased);
}

std::string description(const FilterCounters& counters) {
  std::string text;
  const auto append = [&text](std::string_view label, std::int64_t value) {
    text.append(label).append(std::to_string(value));
  };
  append("scopeGeneration=", counters.scopeGeneration);
  append(" classified=", counters.flowsClassified);
  append(" dropped=", counters.flowsDropped);
  append(" released=", counters.flowsReleased);
  append(" heldForInspection=", counters.flowsHeldForInspection);
  append(" ambiguousAllowed=", counters.ambiguousFlowsAllowed);
  append(" unattributedAllowed=", counters.unattributedFlowsAllowed);
  append(" associationsRecorded=", counters.associationsRecorded);
  append(" associatedAddresses=", counters.associatedAddressCount);
  return text;
}

}  // namespace stillow::filtering
