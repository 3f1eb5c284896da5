#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <string>

#include "StillowAuthority/ContentFilterRemoving.hpp"
#include "StillowAuthority/DurableCommitmentStore.hpp"
#include "StillowAuthority/PrivilegedUninstall.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowCore/Date.hpp"
#include "StillowIPC/CommitmentAuthorityClient.hpp"

namespace stillow::daemon {

/// What uninstalling takes from the system that it runs on.
struct UninstallTools {
  bool isRoot = false;
  /// Reads the checkpoints, without a daemon and without waiting for one.
  std::function<authority::CommitmentStateRecovery()> recoverCheckpoints;
  core::WallClock wallClock;
  /// Writes a moment as the caller's language and time zone have it.
  std::function<std::string(core::Date)> formatted;
  authority::PrivilegedUninstall uninstall;
  std::shared_ptr<authority::ContentFilterRemoving> contentFilter;
};

/// Removes the privileged parts of the product, if no Commitment is in the way, and prints what
/// became of each. 77 without root, 3 if it has to stay, 0 if all is gone, 4 if something is left.
/// Blocks the thread that it runs on.
[[nodiscard]] concurrency::Task<int> uninstall(
    std::shared_ptr<ipc::CommitmentAuthorityClient> client, UninstallTools tools, std::ostream& out,
    std::ostream& err);

}  // namespace stillow::daemon
