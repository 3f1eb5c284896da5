#pragma once

#include <memory>

#include "StillowAuthority/DiagnosticConnecting.hpp"
#include "StillowConcurrency/BlockingExecutor.hpp"

namespace stillow::platform {

/// HTTPS as a browser would do it, with nothing kept and nothing taken from elsewhere: a fresh name
/// resolution and a fresh connection over whichever address family works, verified against the
/// system's trust store; no proxy, not even one that the environment names, no redirects, cookies,
/// caches, credentials or remembered TLS sessions.
class CurlDiagnosticConnector final : public authority::DiagnosticConnecting {
 public:
  /// Connections are made on `blocking`, one after the other where it has one thread.
  explicit CurlDiagnosticConnector(std::shared_ptr<concurrency::BlockingExecutor> blocking);

  [[nodiscard]] concurrency::Task<authority::DiagnosticConnectionOutcome> connect(
      std::string host, std::chrono::nanoseconds timeout) override;

 private:
  const std::shared_ptr<concurrency::BlockingExecutor> blocking_;
};

}  // namespace stillow::platform
