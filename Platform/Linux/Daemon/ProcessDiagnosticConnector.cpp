#include "PlatformLinuxDaemon/ProcessDiagnosticConnector.hpp"

#include <expected>
#include <utility>

#include "PlatformLinuxPeer/LogText.hpp"
#include "PlatformLinuxProbe/ProbeAnswer.hpp"

namespace stillow::platform {

using authority::DiagnosticConnectionOutcome;
using concurrency::Task;

namespace {

/// Or why there is none, as a sentence.
using Told = std::expected<DiagnosticConnectionOutcome, std::string>;

Told ask(CommandRunning& commands, const Command& command) {
  const auto run = commands.run(command);
  if (!run) return std::unexpected(run.error().description);
  if (run->exitStatus == 0) {
    if (const auto outcome = outcomeOfProbeAnswer(run->output)) return *outcome;
  }
  return std::unexpected("The command " + command.arguments.front() + " exited with status " +
                         std::to_string(run->exitStatus) + ", output " + quotedForLog(run->output) +
                         " and errors " + quotedForLog(run->errors) + ".");
}

}  // namespace

ProcessDiagnosticConnector::ProcessDiagnosticConnector(Collaborators collaborators)
    : with_(std::move(collaborators)) {}

Task<DiagnosticConnectionOutcome> ProcessDiagnosticConnector::connect(
    std::string host, std::chrono::nanoseconds timeout) {
  return run(with_, std::move(host), timeout);
}

Task<DiagnosticConnectionOutcome> ProcessDiagnosticConnector::run(
    Collaborators with, std::string host, std::chrono::nanoseconds timeout) {
  const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(timeout).count();
  Command command{.arguments = {with.program, std::move(host), std::to_string(milliseconds)},
                  .limit = timeout + with.startAndEndMax};
  Task<Told> asking = concurrency::runBlocking(
      with.blocking,
      [commands = with.commands, command = std::move(command)] { return ask(*commands, command); });
  const Told told = co_await std::move(asking);
  if (told) co_return *told;
  if (with.log) with.log("The block could not be tested. " + told.error());
  co_return DiagnosticConnectionOutcome::answeredByAnotherHost;
}

}  // namespace stillow::platform
