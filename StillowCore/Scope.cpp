#include "StillowCore/Scope.hpp"

#include <algorithm>
#include <vector>

#include "StillowCore/Invariant.hpp"

namespace stillow::core {

bool ScopeCapacity::admits(const DomainSet& domains) noexcept {
  if (domains.size() > domainsMax) return false;
  std::size_t bytes = 0;
  for (const Domain& domain : domains) bytes += domain.name().size();
  return bytes <= nameBytesMax;
}

Scope Scope::resolving(const CommitmentSelection& selection, std::span<const Website> websites) {
  const auto* const selectedGroups = getIf<CommitmentSelection::groups>(selection);
  std::vector<Domain> domains;
  for (const Website& website : websites) {
    const bool isSelected =
        selectedGroups == nullptr || std::ranges::any_of(website.groups, [&](const Group::ID& id) {
          return selectedGroups->ids.contains(id);
        });
    if (isSelected) domains.push_back(website.domain);
  }
  return {.generation = 1, .domains = DomainSet::of(std::move(domains))};
}

std::expected<Scope, ScopeStrengtheningError> Scope::strengthened(
    const DomainSet& additions) const {
  DomainSet grown = domains.united(additions);
  if (grown.size() <= domains.size()) {
    return std::unexpected(ScopeStrengtheningError::noAdditionalDomains);
  }
  if (!ScopeCapacity::admits(grown)) {
    return std::unexpected(ScopeStrengtheningError::exceedsCapacity);
  }
  return Scope{.generation = successor(generation), .domains = std::move(grown)};
}

std::expected<Scope, ScopeStrengtheningError> Scope::strengthened(
    const CommitmentSelection& selection, std::span<const Website> websites) const {
  return strengthened(resolving(selection, websites).domains);
}

bool Scope::contains(std::string_view host) const noexcept {
  return std::ranges::any_of(domains, [&](const Domain& domain) {
    const std::string_view name = domain.name();
    if (!host.ends_with(name)) return false;
    return host.size() == name.size() || host[host.size() - name.size() - 1] == '.';
  });
}

}  // namespace stillow::core
