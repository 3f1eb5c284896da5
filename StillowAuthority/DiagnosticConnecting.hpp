#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "StillowConcurrency/Task.hpp"

namespace stillow::authority {

enum class DiagnosticConnectionOutcome : std::uint8_t {
  answered,               ///< HTTP 200 with the host's own "ok HOST"
  answeredByAnotherHost,  ///< somebody answered, but not that host
  connectionFailed,       ///< any transport error, a time-out included
};

class DiagnosticConnecting {
 public:
  virtual ~DiagnosticConnecting() = default;
  /// One fresh HTTPS connection to `host`, over in `timeout` at the latest.
  virtual concurrency::Task<DiagnosticConnectionOutcome> connect(
      std::string host, std::chrono::nanoseconds timeout) = 0;

 protected:
  DiagnosticConnecting() = default;
  DiagnosticConnecting(const DiagnosticConnecting&) = default;
  DiagnosticConnecting& operator=(const DiagnosticConnecting&) = default;
};

}  // namespace stillow::authority
