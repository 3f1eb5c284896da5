#include "StillowClient/RemovalCheck.hpp"

#include <iostream>
#include <utility>

#include "StillowAuthority/DurableCommitmentStore.hpp"
#include "StillowCore/SystemTime.hpp"
#include "StillowFiltering/Storage/PosixFileSystem.hpp"
#include "StillowIPC/UninstallGate.hpp"

namespace stillow::client {

namespace {

constexpr int exitMayBeRemoved = 0;
constexpr int exitHasToStay = 3;
constexpr int exitNotRoot = 77;

}  // namespace

concurrency::Task<int> checkRemoval(authority::RemovalRulingSources sources, bool isRoot,
                                    std::function<std::string(core::Date)> formatted,
                                    std::ostream& out, std::ostream& err, bool asJSON) {
  if (!isRoot) {
    err << ipc::uninstallNeedsRootText << '\n' << std::flush;
    co_return exitNotRoot;
  }
  const ipc::UninstallRuling ruling = co_await authority::rulingOnRemoval(std::move(sources));
  if (asJSON) out << core::encode(ruling).value_or("") << '\n' << std::flush;  // dates are finite
  const auto* const refused = core::getIf<ipc::UninstallRuling::refused>(ruling);
  if (refused == nullptr) co_return exitMayBeRemoved;
  if (!asJSON) out << ipc::refusalText(refused->cause, formatted) << "\n" << std::flush;
  co_return exitHasToStay;
}

int checkRemoval(DaemonSession& session, const std::string& stateDirectory, bool mayReadCheckpoints,
                 bool asJSON) {
  filtering::PosixFileSystem fileSystem;
  const authority::DurableCommitmentStore checkpoints(fileSystem, stateDirectory);
  authority::RemovalRulingSources sources{
      .daemon = session.daemon(),
      .recoverCheckpoints = [&checkpoints] { return checkpoints.recover(); },
      .wallClock = core::systemTime};
  const auto formatted = [platform = session.platform()](core::Date date) {
    return platform->formatted(date);
  };
  return session.run(checkRemoval(std::move(sources), mayReadCheckpoints, formatted, std::cout,
                                  std::cerr, asJSON));
}

}  // namespace stillow::client
