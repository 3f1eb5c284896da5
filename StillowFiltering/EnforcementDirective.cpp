#include "StillowFiltering/EnforcementDirective.hpp"

#include <algorithm>
#include <utility>

namespace stillow::filtering {

ValidationProbe ValidationProbe::issued(core::Domain domain, core::Date issuedAt,
                                        double lifetimeSeconds) {
  // A NaN counts as no lifetime.
  const double lifetime = lifetimeSeconds > 0 ? std::min(lifetimeSeconds, lifetimeMaxSeconds) : 0;
  return {.domain = std::move(domain), .expiresAt = issuedAt + lifetime};
}

core::DomainSet EnforcementDirective::effectiveDomains(core::Date now) const {
  const core::DomainSet domains = scope ? scope->domains : core::DomainSet();
  if (!validation || !(now < validation->expiresAt)) return domains;
  return domains.united(core::DomainSet::of({validation->domain}));
}

}  // namespace stillow::filtering
