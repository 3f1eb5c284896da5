#include "PlatformLinuxDaemon/CurlDiagnosticConnector.hpp"

#include <string>
#include <utility>

#include "PlatformLinuxDaemon/DiagnosticExchange.hpp"

namespace stillow::platform {

using authority::DiagnosticConnectionOutcome;
using concurrency::Task;

CurlDiagnosticConnector::CurlDiagnosticConnector(
    std::shared_ptr<concurrency::BlockingExecutor> blocking)
    : blocking_(std::move(blocking)) {}

Task<DiagnosticConnectionOutcome> CurlDiagnosticConnector::connect(
    std::string host, std::chrono::nanoseconds timeout) {
  return concurrency::runBlocking(blocking_, [host = std::move(host), timeout] {
    return exchangeDiagnostic(host, timeout).outcome;
  });
}

}  // namespace stillow::platform
