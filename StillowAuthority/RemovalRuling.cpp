#include "StillowAuthority/RemovalRuling.hpp"

namespace stillow::authority {

using ipc::UninstallRefusalCause;
using ipc::UninstallRuling;

UninstallRuling rulingFromCheckpoints(const CommitmentStateRecovery& recovery, core::Date now) {
  if (recovery.source == CommitmentStateRecovery::Source::failedOpen) {
    return UninstallRuling::refused{UninstallRefusalCause::enforcementStateUnknown{}};
  }
  const core::Commitment* const commitment =
      recovery.checkpoint ? recovery.checkpoint->state.commitment() : nullptr;
  if (commitment != nullptr && commitment->remainingDuration > 0) {
    return UninstallRuling::refused{
        UninstallRefusalCause::commitmentActive{commitment->projectedEndTime(now)}};
  }
  return UninstallRuling::mayUninstall{};
}

concurrency::Task<UninstallRuling> rulingOnRemoval(RemovalRulingSources sources) {
  const ipc::CommitmentAuthorityClient::Result status = co_await sources.daemon->status();
  if (status) co_return ipc::UninstallGate::ruling(*status);
  const CommitmentStateRecovery recovery = sources.recoverCheckpoints();
  co_return rulingFromCheckpoints(recovery, sources.wallClock());
}

}  // namespace stillow::authority
