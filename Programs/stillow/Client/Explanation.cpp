#include "StillowClient/Explanation.hpp"

#include "StillowClient/SiteList.hpp"
#include "StillowClient/TextLayout.hpp"
#include "StillowCore/SumType.hpp"

namespace stillow::client {

using Understood = core::DomainNormalizationResult;

const core::Domain& blockedDomain(const Understood& result) {
  if (const auto* const already = core::getIf<Understood::alreadyRegistrable>(result)) {
    return already->domain;
  }
  if (const auto* const reduced = core::getIf<Understood::normalizedToRegistrable>(result)) {
    return reduced->registrable;
  }
  return core::getIf<Understood::narrowerSubdomain>(result)->narrow;
}

std::optional<core::Domain> blockedBy(const core::DomainSet& scope, const core::Domain& domain) {
  std::string_view name = domain.name();
  while (true) {
    if (auto candidate = core::Domain::make(name); candidate && scope.contains(*candidate)) {
      return candidate;
    }
    const std::size_t dot = name.find('.');
    if (dot == std::string_view::npos) return std::nullopt;
    name.remove_prefix(dot + 1);
  }
}

std::string explanation(std::string_view text, const Understood& result) {
  const std::string name = printable(blockedDomain(result).name());
  std::string lines = client::quoted(text) + " is understood as " + name + ".\n";
  lines += core::match(
      result,
      [&](const Understood::alreadyRegistrable&) {
        return std::string(
            "That is a registrable domain: a whole site, as its owner registered it.\n");
      },
      [&](const Understood::normalizedToRegistrable&) {
        return std::string(
            "That is its registrable domain: the whole site, as its owner registered it.\n");
      },
      [&](const Understood::narrowerSubdomain& narrower) {
        const std::string registrable = printable(narrower.registrable.name());
        return "It is a part of the registrable domain " + registrable +
               ". To block all of that, name " + registrable + ".\n";
      });
  if (std::string refusal = domainRefusal(text, blockedDomain(result)); !refusal.empty()) {
    return lines + refusal + " So it cannot be blocked.\n";
  }
  return lines + "Blocking it blocks " + name + " and every name below it, nothing else.\n";
}

std::string scopeSentence(const core::Domain& domain, const ipc::DaemonStatus& status) {
  const ipc::ActiveCommitmentStatus* const active = status.active();
  if (active == nullptr) return "No Commitment is active, so it is not blocked now.";
  const auto blocker = blockedBy(active->scope, domain);
  if (!blocker) {
    return "It is not in the Scope of the running Commitment. To block it too: stillow add " +
           printable(domain.name());
  }
  if (*blocker == domain) return "It is in the Scope of the running Commitment.";
  return "It is in the Scope of the running Commitment, below " + printable(blocker->name()) + ".";
}

}  // namespace stillow::client
