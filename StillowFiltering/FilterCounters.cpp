#include "StillowFiltering/FilterCounters.hpp"

#include <string_view>

namespace stillow::filtering {

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
