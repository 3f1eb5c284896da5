#pragma once

#include <functional>
#include <memory>

#include "StillowAuthority/DurableCommitmentStore.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowCore/Date.hpp"
#include "StillowIPC/CommitmentAuthorityClient.hpp"
#include "StillowIPC/UninstallGate.hpp"

namespace stillow::authority {

/// Whether the product may be removed, by the checkpoints alone. No checkpoint permits it, unless
/// there is one that cannot be trusted and no other beside it.
[[nodiscard]] ipc::UninstallRuling rulingFromCheckpoints(const CommitmentStateRecovery& recovery,
                                                         core::Date now);

/// Where a ruling on removal comes from.
struct RemovalRulingSources {
  std::shared_ptr<ipc::CommitmentAuthorityClient> daemon;
  /// Reads the checkpoints. Called only if the daemon gave no answer; may block.
  std::function<CommitmentStateRecovery()> recoverCheckpoints;
  core::WallClock wallClock;
};

/// Whether the product may be removed, by the daemon's word. A daemon that is not there, does not
/// answer in time, will not talk to us or says what nobody understands gives none: then the
/// checkpoints decide, as of now.
[[nodiscard]] concurrency::Task<ipc::UninstallRuling> rulingOnRemoval(RemovalRulingSources sources);

}  // namespace stillow::authority
