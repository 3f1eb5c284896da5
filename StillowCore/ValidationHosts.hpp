#pragma once

#include <string_view>

namespace stillow::core {

/// The two hosts of the end-to-end validation, fixed at build time. Each serves HTTPS
/// and answers "GET /" with status 200 and the body "ok " followed by its own name;
/// Packaging/probe-hosts has a server's configuration.
struct ValidationHosts {
  /// The filter has to drop connections to this one while a probe is lent.
  static constexpr std::string_view probed = "old-probe.stillow.larchmoor.com";
  /// The filter leaves this one alone.
  static constexpr std::string_view control = "new-probe.stillow.larchmoor.com";
};

}  // namespace stillow::core
