#include "StillowCore/Commitment.hpp"

#include <utility>

namespace stillow::core {

std::expected<void, ScopeStrengtheningError> Commitment::strengthen(const DomainSet& additions) {
  auto strengthened = scope.strengthened(additions);
  if (!strengthened) return std::unexpected(strengthened.error());
  scope = std::move(*strengthened);
  return {};
}

std::expected<void, ScopeStrengtheningError> Commitment::strengthen(
    const CommitmentSelection& selection, std::span<const Website> websites) {
  return strengthen(Scope::resolving(selection, websites).domains);
}

}  // namespace stillow::core
