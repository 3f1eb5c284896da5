#pragma once

#include "StillowCore/Domain.hpp"

namespace stillow::authority {

/// The two hosts of the end-to-end test (core::ValidationHosts), as domains.
struct ValidationDomains {
  core::Domain probed;   ///< the filter must drop it while a probe is lent
  core::Domain control;  ///< the filter leaves it alone

  /// The hosts above. Stops the process should they be no domains.
  [[nodiscard]] static ValidationDomains standard();

  friend bool operator==(const ValidationDomains&, const ValidationDomains&) = default;
};

}  // namespace stillow::authority
