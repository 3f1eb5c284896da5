#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "PlatformLinuxDaemon/CommandRunner.hpp"
#include "StillowAuthority/DiagnosticConnecting.hpp"
#include "StillowConcurrency/BlockingExecutor.hpp"

namespace stillow::platform {

/// The diagnostic connection, made by stillow-probe: a process of its own for each, so that the
/// libraries which it takes are in memory no longer than it lasts.
///
/// Only what that program says is an outcome. Where it cannot be started, is ended by a signal or
/// by us, or says anything but one of its answers, nothing is known of the host, and "connection
/// failed" would count as proof of the block. The outcome is then `answeredByAnotherHost`, with
/// which no test of the block passes and which makes it inconclusive, and a line of the log says
/// what happened.
class ProcessDiagnosticConnector final : public authority::DiagnosticConnecting {
 public:
  struct Collaborators {
    /// Connections are made on it, one after the other where it has one thread.
    std::shared_ptr<concurrency::BlockingExecutor> blocking;
    std::shared_ptr<CommandRunning> commands;
    std::string program;  ///< the absolute path of stillow-probe
    /// What the program gets beyond the limit of the connection, to be loaded and to end. If it is
    /// still there after that, it is killed.
    std::chrono::nanoseconds startAndEndMax = std::chrono::seconds(2);
    std::function<void(const std::string& line)> log = {};
  };

  explicit ProcessDiagnosticConnector(Collaborators collaborators);

  [[nodiscard]] concurrency::Task<authority::DiagnosticConnectionOutcome> connect(
      std::string host, std::chrono::nanoseconds timeout) override;

 private:
  static concurrency::Task<authority::DiagnosticConnectionOutcome> run(
      Collaborators with, std::string host, std::chrono::nanoseconds timeout);

  const Collaborators with_;
};

}  // namespace stillow::platform
