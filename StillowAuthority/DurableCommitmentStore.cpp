#include "StillowAuthority/DurableCommitmentStore.hpp"

#include <utility>

#include "StillowCore/Invariant.hpp"

namespace stillow::authority {

core::EnforcementHealthStatus enforcementHealth(CommitmentStateRecovery::Source source) noexcept {
  using Status = core::EnforcementHealthStatus;
  switch (source) {
    case CommitmentStateRecovery::Source::current:
      return Status::healthy{};
    case CommitmentStateRecovery::Source::lastKnownGood:
      return Status::degraded{core::DegradedReason::recoveringFromCorruption};
    case CommitmentStateRecovery::Source::failedOpen:
      return Status::degraded{core::DegradedReason::failedOpen};
  }
  core::stopProcess("no such recovery source");
}

DurableCommitmentStore::DurableCommitmentStore(
    std::shared_ptr<CommitmentCheckpointStore> current,
    std::shared_ptr<CommitmentCheckpointStore> lastKnownGood, ErrorLog errorLog)
    : current_(std::move(current)),
      lastKnownGood_(std::move(lastKnownGood)),
      errorLog_(std::move(errorLog)) {}

DurableCommitmentStore::DurableCommitmentStore(filtering::FileSystem& fileSystem,
                                               const std::string& stateDirectory, ErrorLog errorLog)
    : DurableCommitmentStore(std::make_shared<FileCommitmentCheckpointStore>(
                                 fileSystem, stateDirectory + "/" + currentFileName),
                             std::make_shared<FileCommitmentCheckpointStore>(
                                 fileSystem, stateDirectory + "/" + lastKnownGoodFileName),
                             std::move(errorLog)) {}

CommitmentStateRecovery DurableCommitmentStore::recover() const {
  using Source = CommitmentStateRecovery::Source;
  auto current = current_->load();
  if (current && *current) return {std::move(*current), Source::current};
  if (!current) log("The current checkpoint cannot be used: ", current.error());

  // Also when the current file is merely absent: a save never removes it, so somebody else did.
  auto lastKnownGood = lastKnownGood_->load();
  if (lastKnownGood && *lastKnownGood) return {std::move(*lastKnownGood), Source::lastKnownGood};
  if (!lastKnownGood) {
    log("The last known good checkpoint cannot be used: ", lastKnownGood.error());
  }
  return {std::nullopt, current ? Source::current : Source::failedOpen};
}

DurableCommitmentStore::CurrentLook DurableCommitmentStore::lookAtCurrent() const {
  auto current = current_->load();
  if (current) return {.checkpoint = std::move(*current)};
  log("The current checkpoint cannot be used: ", current.error());
  return {.checkpoint = std::nullopt, .mayBecomeReadable = mayPass(current.error())};
}

std::expected<void, CheckpointError> DurableCommitmentStore::save(
    const CommitmentCheckpoint& checkpoint) const {
  // A current file that is not sound must not displace the good copy; one that cannot be copied
  // must not keep the new state from being saved.
  if (const auto copied = lastKnownGood_->saveCopy(*current_); !copied) {
    log("The last known good checkpoint was not renewed: ", copied.error());
  }
  auto saved = current_->save(checkpoint);
  if (!saved) log("The checkpoint could not be saved: ", saved.error());
  return saved;
}

void DurableCommitmentStore::log(const char* what, const CheckpointError& error) const {
  if (errorLog_) errorLog_(what + describe(error));
}

}  // namespace stillow::authority
