#include "StillowAuthority/ValidationDomains.hpp"

#include <optional>
#include <utility>

#include "StillowCore/Invariant.hpp"
#include "StillowCore/ValidationHosts.hpp"

namespace stillow::authority {

ValidationDomains ValidationDomains::standard() {
  auto probed = core::Domain::make(core::ValidationHosts::probed);
  auto control = core::Domain::make(core::ValidationHosts::control);
  core::require(probed && control, "a validation host is not a domain");
  return {.probed = std::move(*probed), .control = std::move(*control)};
}

}  // namespace stillow::authority
