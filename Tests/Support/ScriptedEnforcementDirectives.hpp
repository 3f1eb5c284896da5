#pragma once

#include <expected>
#include <functional>
#include <optional>
#include <vector>

#include "StillowFiltering/EnforcementDirectiveStore.hpp"

namespace stillow::test {

/// A directive store that fails on request, also the way that a disk does: after the deed.
class ScriptedEnforcementDirectives final : public filtering::EnforcementDirectivePublishing {
 public:
  int failuresLeft = 0;
  std::function<bool()> fails;        ///< asked besides the count
  bool failureStillReplaces = false;  ///< a failed write is in force all the same

  int attempts = 0;
  std::vector<filtering::EnforcementDirective> published;
  std::optional<filtering::EnforcementDirective> inForce;  ///< what the filter reads

  std::expected<void, filtering::EnforcementDirectiveError> publish(
      const filtering::EnforcementDirective& directive) override {
    ++attempts;
    if (failuresLeft > 0 || (fails && fails())) {
      if (failuresLeft > 0) --failuresLeft;
      if (failureStillReplaces) inForce = directive;
      return std::unexpected(filtering::EnforcementDirectiveError{"No space left on device"});
    }
    inForce = directive;
    published.push_back(directive);
    return {};
  }
};

}  // namespace stillow::test
