#include "StillowFiltering/FlowEvidence.hpp"

namespace stillow::filtering {

void FlowDescription::setEndpoint(std::string_view host) noexcept {
  (FlowAddress::isPrintedForm(host) ? endpointAddress : endpointName) = host;
}

FlowEvidence FlowEvidence::of(const FlowDescription& description) noexcept {
  FlowEvidence evidence{.remoteHostname = std::nullopt,
                        .remoteAddress = FlowAddress::fromPrintedForm(description.endpointAddress)};
  for (const std::string_view name :
       {description.urlHost, description.remoteHostname, description.endpointName}) {
    if (name.empty()) continue;
    evidence.remoteHostname = name;
    break;
  }
  return evidence;
}

}  // namespace stillow::filtering
