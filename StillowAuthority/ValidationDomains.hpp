#pragma once

#include <string_view>

#include "StillowCore/Domain.hpp"

namespace stillow::authority {

/// The two hosts of the end-to-end test. Each serves HTTPS and answers "GET /" with status 200 and
/// the body "ok " followed by its own name; Packaging/probe-hosts has a server's configuration.
struct ValidationDomains {
  static constexpr std::string_view probedHostName = "old-probe.stillow.larchmoor.com";
  static constexpr std::string_view controlHostName = "new-probe.stillow.larchmoor.com";

  core::Domain probed;   ///< the filter must drop it while a probe is lent
  core::Domain control;  ///< the filter leaves it alone

  /// The hosts above. Stops the process should they be no domains.
  [[nodiscard]] static ValidationDomains standard();

  friend bool operator==(const ValidationDomains&, const ValidationDomains&) = default;
};

}  // namespace stillow::authority
