#include "StillowAuthority/ValidationDomains.hpp"

#include <optional>
#include <utility>

#include "StillowCore/Invariant.hpp"

namespace stillow::authority {

ValidationDomains ValidationDomains::standard() {
  auto probed = core::Domain::make(probedHostName);
  auto control = core::Domain::make(controlHostName);
  core::require(probed && control, "a validation host is not a domain");
  return {.probed = std::move(*probed), .control = std::move(*control)};
}

}  // namespace stillow::authority
