#include "StillowIPC/CodeSigningRequirement.hpp"

#include "StillowIPC/CodeRequirementLanguage.hpp"
#include "StillowIPC/StillowDaemonService.hpp"

namespace stillow::ipc {

CodeSigningRequirement CodeSigningRequirement::signedBy(
    std::string_view team, std::span<const std::string_view> identifiers) {
  std::string text = "anchor apple generic and certificate leaf[subject.OU] = \"";
  text += team;
  text += "\" and (";
  std::string_view separator;
  for (const auto identifier : identifiers) {
    text += separator;
    text += "identifier \"";
    text += identifier;
    text += '"';
    separator = " or ";
  }
  text += ')';
  return {std::move(text)};
}

const CodeSigningRequirement& CodeSigningRequirement::trustedPeers() {
  static const auto requirement =
      signedBy(teamIdentifier, StillowDaemonService::signedClientIdentifiers);
  return requirement;
}

bool CodeSigningRequirement::isSatisfiedBy(const CodeIdentity& identity) const {
  const auto expression = compileCodeRequirement(text);
  return expression.has_value() && isSatisfied(*expression, identity);
}

}  // namespace stillow::ipc
