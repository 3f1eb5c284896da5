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
  /// One fresh HTTPS connection to `host`, over in `timeout` at the latest. Where it is made by a
  /// program of its own, that one gets a moment more to start and to end, so the call itself may
  /// take longer; what bounds a whole test of the block is the validator's own limit.
  virtual concurrency::Task<DiagnosticConnectionOutcome> connect(
      std::string host, std::chrono::nanoseconds timeout) = 0;

 protected:
  DiagnosticConnecting() = default;
  DiagnosticConnecting(const DiagnosticConnecting&) = default;
  DiagnosticConnecting& operator=(const DiagnosticConnecting&) = default;
};

}  // namespace stillow::authority
