#include "StillowDaemon/UninstallMode.hpp"

#include <expected>
#include <utility>

#include "StillowAuthority/RemovalRuling.hpp"
#include "StillowCore/SumType.hpp"
#include "StillowIPC/UninstallGate.hpp"

namespace stillow::daemon {

namespace {

using Outcome = authority::UninstallStepResult::Outcome;

constexpr int exitAllGone = 0;
constexpr int exitRefused = 3;
constexpr int exitSomethingLeft = 4;
constexpr int exitNotRoot = 77;

std::string contentFilterLine(const std::expected<void, std::string>& removed) {
  if (removed) return "Removed Stillow’s content filter configuration.";
  return "Could not remove the content filter configuration (" + removed.error() +
         "). If System Settings ▸ Network ▸ Filters still lists Stillow, remove it there.";
}

std::string stepLine(const authority::UninstallStepResult& step) {
  return core::match(
      step.outcome,
      [&](const Outcome::failed& failed) {
        return "Still there: " + step.item + " — " + failed.reason;
      },
      [&](const Outcome::removed&) { return "Removed " + step.item; },
      [&](const Outcome::notPresent&) { return "Not present: " + step.item; });
}

}  // namespace

concurrency::Task<int> uninstall(std::shared_ptr<ipc::CommitmentAuthorityClient> client,
                                 UninstallTools tools, std::ostream& out, std::ostream& err) {
  if (!tools.isRoot) {
    err << ipc::uninstallNeedsRootText << '\n' << std::flush;
    co_return exitNotRoot;
  }
  authority::RemovalRulingSources sources{.daemon = std::move(client),
                                          .recoverCheckpoints = tools.recoverCheckpoints,
                                          .wallClock = tools.wallClock};
  const ipc::UninstallRuling ruling = co_await authority::rulingOnRemoval(std::move(sources));
  const authority::UninstallReport report = tools.uninstall.run(ruling);
  if (report.refusal) {
    out << ipc::refusalText(*report.refusal, tools.formatted) << '\n' << std::flush;
    co_return exitRefused;
  }
  // After the daemon, which would put the rules back; its line comes first all the same.
  const auto contentFilter = tools.contentFilter->remove();
  out << contentFilterLine(contentFilter) << '\n';
  for (const auto& step : report.steps) out << stepLine(step) << '\n';
  const bool isEverythingGone = contentFilter.has_value() && report.isEverythingGone();
  out << (isEverythingGone ? "Stillow’s privileged components are off this Mac. Move Stillow.app "
                             "to the Trash to finish."
                           : "Some pieces are still here; see above.")
      << '\n'
      << std::flush;
  co_return isEverythingGone ? exitAllGone : exitSomethingLeft;
}

}  // namespace stillow::daemon
