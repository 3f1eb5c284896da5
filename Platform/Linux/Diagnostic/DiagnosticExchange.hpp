#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "StillowAuthority/DiagnosticConnecting.hpp"
#include "StillowCore/Date.hpp"

namespace stillow::platform {

/// What one diagnostic connection came to, for whoever has to find out why.
struct DiagnosticExchange {
  /// Why nobody answered.
  enum class Failure : std::uint8_t {
    none,  ///< somebody did
    nameNotResolved,
    notConnected,
    tookTooLong,
    cut,                        ///< connected, then ended from elsewhere: reset or closed
    certificateOutsideItsTime,  ///< not valid yet or not any more, by this machine's clock
    certificateNotTrusted,      ///< of no trusted authority, or for another name
    trustStoreUnusable,
    other,
  };

  authority::DiagnosticConnectionOutcome outcome =
      authority::DiagnosticConnectionOutcome::connectionFailed;
  Failure failure = Failure::other;
  std::string detail = {};  ///< libcurl's own words; empty if somebody answered
  long httpStatus = 0;      ///< 0: none came
  /// The server's clock, to the second, when the answer's head was written.
  std::optional<core::Date> serverDate = {};

  friend bool operator==(const DiagnosticExchange&, const DiagnosticExchange&) = default;
};

/// Whether certificates that are not valid at this moment are refused, as they have to be, or only
/// looked through to ask what time it is. Everything else about them is verified either way.
enum class CertificateTimes : std::uint8_t { verified, ignored };

/// HTTPS as a browser would do it, with nothing kept and nothing taken from elsewhere: a fresh name
/// resolution and a fresh connection over whichever address family works, verified against the
/// system's trust store; no proxy, not even one that the environment names, no redirects, cookies,
/// caches, credentials or remembered TLS sessions. Blocks, for `timeout` at the most. Any thread.
[[nodiscard]] DiagnosticExchange exchangeDiagnostic(
    const std::string& host, std::chrono::nanoseconds timeout,
    CertificateTimes times = CertificateTimes::verified);

/// The file with the certificates of the authorities that such a connection trusts; empty if
/// libcurl was built to look elsewhere.
[[nodiscard]] std::string trustStorePath();

}  // namespace stillow::platform
