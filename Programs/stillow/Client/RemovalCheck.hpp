#pragma once

#include <functional>
#include <ostream>
#include <string>

#include "StillowAuthority/RemovalRuling.hpp"
#include "StillowClient/DaemonSession.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowCore/Coding.hpp"
#include "StillowCore/Date.hpp"
#include "StillowIPC/UninstallGate.hpp"

namespace stillow::client {

/// Whether the product may be removed, for whoever is about to: a package's scripts, say. Removes
/// nothing. 0 if it may be; 3 if it has to stay, which is printed in the uninstaller's own words;
/// 77 without root, since the checkpoints are root's to read. `formatted` writes a moment as the
/// caller has it. With `asJSON` the ruling itself is printed instead.
[[nodiscard]] concurrency::Task<int> checkRemoval(authority::RemovalRulingSources sources,
                                                  bool isRoot,
                                                  std::function<std::string(core::Date)> formatted,
                                                  std::ostream& out, std::ostream& err,
                                                  bool asJSON = false);

/// The same for what is installed here, on the standard streams. `mayReadCheckpoints`: the caller
/// is root, or one that cannot read them is to be a reason to stay.
[[nodiscard]] int checkRemoval(DaemonSession& session, const std::string& stateDirectory,
                               bool mayReadCheckpoints, bool asJSON = false);

}  // namespace stillow::client

template <>
struct stillow::core::Coding<stillow::ipc::UninstallRefusalCause> {
  using Cause = ipc::UninstallRefusalCause;
  static constexpr auto cases = coding::casesOf(
      coding::caseOf<Cause::commitmentActive>(
          "commitmentActive", coding::field("endsAt", &Cause::commitmentActive::endsAt)),
      coding::caseOf<Cause::enforcementStateUnknown>("enforcementStateUnknown"));
};

template <>
struct stillow::core::Coding<stillow::ipc::UninstallRuling> {
  using Ruling = ipc::UninstallRuling;
  static constexpr auto cases = coding::casesOf(
      coding::caseOf<Ruling::refused>("refused", coding::field("_0", &Ruling::refused::cause)),
      coding::caseOf<Ruling::mayUninstall>("mayUninstall"));
};
