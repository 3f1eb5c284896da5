#pragma once

#include "StillowAuthority/DiagnosticConnecting.hpp"

namespace stillow::platform {

/// HTTPS as a browser would do it, with nothing kept and nothing taken from elsewhere: a session of
/// its own for each connection, without caches, cookies or credentials.
class URLSessionDiagnosticConnector final : public authority::DiagnosticConnecting {
 public:
  [[nodiscard]] concurrency::Task<authority::DiagnosticConnectionOutcome> connect(
      std::string host, std::chrono::nanoseconds timeout) override;
};

}  // namespace stillow::platform
