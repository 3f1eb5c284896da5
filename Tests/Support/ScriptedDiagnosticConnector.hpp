#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "StillowAuthority/DiagnosticConnecting.hpp"
#include "TestSupport/Gate.hpp"

namespace stillow::test {

class ScriptedDiagnosticConnector final : public authority::DiagnosticConnecting {
 public:
  using Outcome = authority::DiagnosticConnectionOutcome;

  std::function<Outcome(const std::string& host)> outcome;  ///< must be set
  Gate gate;  ///< passed before the outcome is looked up

  struct Connection {
    std::string host;
    std::chrono::nanoseconds timeout;
    friend bool operator==(const Connection&, const Connection&) = default;
  };
  std::vector<Connection> connections;
  int underWay = 0;
  int mostAtOnce = 0;

  concurrency::Task<Outcome> connect(std::string host, std::chrono::nanoseconds timeout) override {
    connections.push_back({host, timeout});
    mostAtOnce = std::max(mostAtOnce, ++underWay);
    co_await gate.pass();
    --underWay;
    co_return outcome(host);
  }
};

}  // namespace stillow::test
