#include "StillowAuthority/CommitmentAuthority.hpp"

#include <utility>

#include "StillowCore/Invariant.hpp"
#include "StillowCore/Scope.hpp"

namespace stillow::authority {

namespace {

using concurrency::Task;
using concurrency::Turn;
using core::Date;
using ipc::DaemonError;
using ipc::DaemonStatus;
using Machine = CommitmentAuthorityMachine;
using Source = CommitmentStateRecovery::Source;

Machine initialMachine(const CommitmentStateRecovery& recovery) {
  auto enforcement = enforcementHealth(recovery.source);
  const bool isActive = recovery.checkpoint && recovery.checkpoint->state.isActive();
  // Enforcement of a Commitment that was running before is unproven until somebody has looked.
  if (isActive && recovery.source == Source::current) {
    enforcement =
        core::EnforcementHealthStatus::degraded{core::DegradedReason::recoveringFromCorruption};
  }
  Machine machine(AuthorityState::idle{}, enforcement);
  if (recovery.checkpoint) machine.adopt(recovery.checkpoint->state);
  return machine;
}

core::DomainSet resolve(const ipc::ScopeAddition& addition) {
  return core::match(
      addition, [](const ipc::ScopeAddition::websites& websites) { return websites.domains; },
      [](const ipc::ScopeAddition::selection& selection) {
        return core::Scope::resolving(selection.selected, selection.collectionSnapshot).domains;
      });
}

Task<void> reportLostSave(std::shared_ptr<EnforcementFaultReporting> faults) {
  co_await faults->reportFault(core::DegradedReason::recoveringFromCorruption);
}

}  // namespace

std::shared_ptr<CommitmentAuthority> CommitmentAuthority::make(
    concurrency::Executor executor, std::shared_ptr<concurrency::BlockingExecutor> blocking,
    DurableCommitmentStore durableState, core::WallClock clock) {
  CommitmentStateRecovery recovery = durableState.recover();
  return std::shared_ptr<CommitmentAuthority>(
      new CommitmentAuthority(executor, std::move(blocking), std::move(durableState),
                              std::move(clock), std::move(recovery)));
}

CommitmentAuthority::CommitmentAuthority(const concurrency::Executor& executor,
                                         std::shared_ptr<concurrency::BlockingExecutor> blocking,
                                         DurableCommitmentStore durableState, core::WallClock clock,
                                         CommitmentStateRecovery recovery)
    : executor_(executor),
      blocking_(std::move(blocking)),
      durableState_(std::move(durableState)),
      clock_(std::move(clock)),
      machine_(initialMachine(recovery)),
      lastCheckpoint_(std::move(recovery.checkpoint)),
      recoverySource_(recovery.source),
      currentFileIsNewer_(recovery.source != Source::current) {}

template <class Work>
Task<std::invoke_result_t<Work&, CommitmentAuthority&>> CommitmentAuthority::briefTurn(Self self,
                                                                                       Work work) {
  const Turn::Holder turn = co_await self->turn_.take();
  co_return work(*self);
}

// ---- the operations

Task<DaemonStatus> CommitmentAuthority::status() { return answerStatus(shared_from_this(), false); }

Task<DaemonStatus> CommitmentAuthority::publishStatus() {
  return answerStatus(shared_from_this(), true);
}

// Resolving a large selection takes a while. It needs nothing of the authority, so it is done
// before the turn, on the caller's time.
Task<CommitmentAuthority::StatusResult> CommitmentAuthority::activate(
    ipc::ActivationRequest request) {
  return resolveAndActivate(shared_from_this(), std::move(request));
}

Task<CommitmentAuthority::StatusResult> CommitmentAuthority::strengthen(
    ipc::ScopeAddition addition) {
  return resolveAndStrengthen(shared_from_this(), std::move(addition));
}

Task<CommitmentAuthority::StatusResult> CommitmentAuthority::extend(
    core::ProjectedEndTime newEndTime, std::function<bool()> mayRule) {
  Rule rule = [newEndTime, mayRule = std::move(mayRule)](Machine& machine, Date now) {
    if (mayRule && !mayRule()) {
      return Machine::Ruling(std::unexpected(
          DaemonError::internalFailure{"The running time up to now is not charged."}));
    }
    return machine.extend(newEndTime, now);
  };
  return apply(shared_from_this(), std::move(rule), Origin::client, RunningTimeRecording::durable);
}

Task<DaemonStatus> CommitmentAuthority::acknowledgeExpiry() {
  Rule rule = [](Machine& machine, Date now) { return machine.acknowledgeExpiry(now); };
  return applyAlwaysPermitted(shared_from_this(), std::move(rule), Origin::client,
                              RunningTimeRecording::durable);
}

Task<DaemonStatus> CommitmentAuthority::recordEnforcement(
    core::EnforcementHealthStatus enforcement) {
  Rule rule = [enforcement](Machine& machine, Date now) {
    return machine.recordEnforcement(enforcement, now);
  };
  return applyAlwaysPermitted(shared_from_this(), std::move(rule), Origin::daemon,
                              RunningTimeRecording::durable);
}

Task<void> CommitmentAuthority::record(core::EnforcementValidation validation, Date obtainedAt) {
  return briefTurn(shared_from_this(), [validation, obtainedAt](CommitmentAuthority& self) {
    (void)self.machine_.recordValidation(validation, obtainedAt, self.clock_());
  });
}

Task<DaemonStatus> CommitmentAuthority::recordFilterConfiguration(bool isEnabled, bool publishing) {
  return applyFilterConfiguration(shared_from_this(), isEnabled, publishing);
}

Task<DaemonStatus> CommitmentAuthority::recordRunningTime(double seconds,
                                                          RunningTimeRecording recording) {
  Rule rule = [seconds](Machine& machine, Date now) {
    return machine.recordRunningTime(seconds, now);
  };
  return applyAlwaysPermitted(shared_from_this(), std::move(rule), Origin::daemon, recording);
}

Task<std::optional<ipc::ActivationValidationRefusal>> CommitmentAuthority::activationRefusal() {
  return briefTurn(shared_from_this(), [](CommitmentAuthority& self) {
    return self.machine_.readiness().activationRefusal(self.clock_());
  });
}

Task<CommitmentAuthority::Subscription> CommitmentAuthority::subscribe(Observer observer) {
  return addObserver(shared_from_this(), std::move(observer));
}

Task<void> CommitmentAuthority::unsubscribe(core::UUID token) {
  return briefTurn(shared_from_this(),
                   [token](CommitmentAuthority& self) { self.observers_.erase(token); });
}

Task<void> CommitmentAuthority::setFaultReporter(std::weak_ptr<EnforcementFaultReporting> faults) {
  return briefTurn(shared_from_this(),
                   [faults](CommitmentAuthority& self) { self.faults_ = faults; });
}

Task<Source> CommitmentAuthority::recoverySource() {
  return briefTurn(shared_from_this(),
                   [](CommitmentAuthority& self) { return self.recoverySource_; });
}

Task<bool> CommitmentAuthority::retryRecovery() { return recoverAgain(shared_from_this()); }

// ---- turns

Task<CommitmentAuthority::StatusResult> CommitmentAuthority::apply(Self self, Rule rule,
                                                                   Origin origin,
                                                                   RunningTimeRecording recording) {
  const Turn::Holder turn = co_await self->turn_.take();
  const Date now = self->clock_();
  const Snapshot before = self->snapshot();
  StatusResult ruling = rule(self->machine_, now);
  if (!ruling || self->snapshot() == before) co_return ruling;

  const bool changedKind = self->machine_.state().isActive() != before.state.isActive();
  if (recording == RunningTimeRecording::inMemory && !changedKind) co_return ruling;

  if (!(self->machine_.state() == before.state)) {
    bool isSaving = true;
    if (origin == Origin::client) {
      self->currentFileIsNewer_ = false;
    } else if (self->currentFileIsNewer_) {
      // A save now would replace the state that could not be read by an older one.
      const Adoption adoption = co_await self->adoptCurrentIfReadable();
      if (adoption == Adoption::adopted) ruling = rule(self->machine_, now);
      core::require(ruling.has_value(), "the daemon's own records are never refused");
      isSaving = adoption != Adoption::notYet;
    }
    if (isSaving) co_await self->save(now);
  }
  co_await self->tellObservers(std::make_shared<const DaemonStatus>(*ruling));
  co_return ruling;
}

Task<DaemonStatus> CommitmentAuthority::applyAlwaysPermitted(Self self, Rule rule, Origin origin,
                                                             RunningTimeRecording recording) {
  Task<StatusResult> turn = apply(std::move(self), std::move(rule), origin, recording);
  StatusResult ruling = co_await std::move(turn);
  core::require(ruling.has_value(), "a record is never refused");
  co_return std::move(*ruling);
}

Task<CommitmentAuthority::StatusResult> CommitmentAuthority::resolveAndActivate(
    Self self, ipc::ActivationRequest request) {
  const core::DomainSet websites =
      core::Scope::resolving(request.selection, request.collectionSnapshot).domains;
  request.collectionSnapshot = {};
  Rule rule = [websites, duration = request.duration](Machine& machine, Date now) {
    // Judged before, too, but the turn may have come late.
    if (auto refusal = machine.readiness().activationRefusal(now)) {
      return Machine::Ruling(std::unexpected(DaemonError::enforcementNotValidated{*refusal}));
    }
    return machine.activate(websites, duration, now);
  };
  Task<StatusResult> turn =
      apply(self, std::move(rule), Origin::client, RunningTimeRecording::durable);
  StatusResult ruling = co_await std::move(turn);
  co_return ruling;
}

Task<CommitmentAuthority::StatusResult> CommitmentAuthority::resolveAndStrengthen(
    Self self, ipc::ScopeAddition addition) {
  const core::DomainSet additions = resolve(addition);
  Rule rule = [additions](Machine& machine, Date now) {
    return machine.strengthen(additions, now);
  };
  Task<StatusResult> turn =
      apply(self, std::move(rule), Origin::client, RunningTimeRecording::durable);
  StatusResult ruling = co_await std::move(turn);
  co_return ruling;
}

Task<DaemonStatus> CommitmentAuthority::answerStatus(Self self, bool publishing) {
  const Turn::Holder turn = co_await self->turn_.take();
  const StatusPointer status = self->currentStatus();
  if (publishing) co_await self->tellObservers(status);
  co_return *status;
}

Task<DaemonStatus> CommitmentAuthority::applyFilterConfiguration(Self self, bool isEnabled,
                                                                 bool publishing) {
  const Turn::Holder turn = co_await self->turn_.take();
  const auto status = std::make_shared<const DaemonStatus>(
      self->machine_.recordFilterConfiguration(isEnabled, self->clock_()));
  if (publishing) co_await self->tellObservers(status);
  co_return *status;
}

Task<CommitmentAuthority::Subscription> CommitmentAuthority::addObserver(Self self,
                                                                         Observer observer) {
  const Turn::Holder turn = co_await self->turn_.take();
  // Unique for the life of the authority, which is all that is asked of it.
  core::UUID token;
  std::uint64_t number = ++self->lastToken_;
  for (std::size_t at = token.bytes.size(); number != 0; number >>= 8) {
    token.bytes[--at] = static_cast<std::uint8_t>(number & 0xFF);
  }
  self->observers_.emplace(token, std::move(observer));
  co_return Subscription{token, self->currentStatus()};
}

Task<bool> CommitmentAuthority::recoverAgain(Self self) {
  const Turn::Holder turn = co_await self->turn_.take();
  const Date now = self->clock_();
  const Snapshot before = self->snapshot();
  if (self->currentFileIsNewer_) {
    const Adoption adoption = co_await self->adoptCurrentIfReadable();
    if (adoption == Adoption::notYet) co_return false;
    if (adoption == Adoption::adopted) {
      if (!(self->snapshot() == before)) co_await self->tellObservers(self->currentStatus());
      co_return true;
    }
  }
  if (!self->hasUnsavedChange_) {
    const CommitmentStateRecovery found = co_await self->recover();
    // Nothing to mend: the disk holds what was last saved or recovered, or still nothing at all.
    if (found.source == Source::current && found.checkpoint == self->lastCheckpoint_) {
      self->recoverySource_ = found.source;
      co_return true;
    }
  }
  const bool isWritten = co_await self->writeCheckpoint(now);
  if (!isWritten) co_return false;
  const CommitmentStateRecovery found = co_await self->recover();
  self->recoverySource_ = found.source;
  co_return found.source == Source::current;
}

// ---- steps of a turn

CommitmentAuthority::StatusPointer CommitmentAuthority::currentStatus() const {
  return std::make_shared<const DaemonStatus>(machine_.status(clock_()));
}

Task<CommitmentStateRecovery> CommitmentAuthority::recover() {
  return concurrency::runBlocking(blocking_,
                                  [durable = durableState_] { return durable.recover(); });
}

/// Reads the current file once more; if it is sound by now, its state becomes the present one.
Task<CommitmentAuthority::Adoption> CommitmentAuthority::adoptCurrentIfReadable() {
  auto looking = concurrency::runBlocking(
      blocking_, [durable = durableState_] { return durable.lookAtCurrent(); });
  DurableCommitmentStore::CurrentLook found = co_await std::move(looking);
  if (!found.checkpoint) co_return found.mayBecomeReadable ? Adoption::notYet : Adoption::never;
  machine_.adopt(found.checkpoint->state);
  lastCheckpoint_ = std::move(found.checkpoint);
  recoverySource_ = Source::current;
  currentFileIsNewer_ = false;
  hasUnsavedChange_ = false;
  co_return Adoption::adopted;
}

Task<bool> CommitmentAuthority::writeCheckpoint(Date now) {
  const CommitmentCheckpoint next{
      .state = machine_.state(),
      .writtenAt = now,
      .sequence = lastCheckpoint_ ? core::successor(lastCheckpoint_->sequence) : 1};
  auto saving = concurrency::runBlocking(
      blocking_, [durable = durableState_, next] { return durable.save(next); });
  const auto saved = co_await std::move(saving);
  hasUnsavedChange_ = !saved.has_value();
  if (!saved) co_return false;
  lastCheckpoint_ = next;
  currentFileIsNewer_ = false;
  co_return true;
}

Task<void> CommitmentAuthority::save(Date now) {
  const bool isWritten = co_await writeCheckpoint(now);
  if (!isWritten) {
    // In a task of its own: the reporter may call the authority, whose turn this is.
    if (auto faults = faults_.lock()) {
      concurrency::spawn(executor_, reportLostSave(std::move(faults)));
    }
    co_return;
  }
  if (recoverySource_ != Source::current) {
    const CommitmentStateRecovery found = co_await recover();
    recoverySource_ = found.source;
  }
}

Task<void> CommitmentAuthority::tellObservers(StatusPointer status) {
  for (const auto& [token, observer] : observers_) {
    Task<void> told = observer(status);
    co_await std::move(told);
  }
}

}  // namespace stillow::authority
