#pragma once

#include <string_view>

namespace stillow::core {

/// The two hosts of the end-to-end validation, fixed at build time. Each answers "ok " and its own
/// name over HTTPS.
struct ValidationHosts {
  /// The filter has to drop connections to this one while a probe is lent.
  static constexpr std::string_view probed = "old-probe.stillow.larchmoor.com";
  /// The filter leaves this one alone.
  static constexpr std::string_view control = "new-probe.stillow.larchmoor.com";
};

}  // namespace stillow::core
