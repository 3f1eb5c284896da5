#include "StillowAuthority/EnforcementHealthCoordinator.hpp"

#include <utility>

#include "StillowCore/Invariant.hpp"

namespace stillow::authority {

using concurrency::Cancellation;
using concurrency::SleepOutcome;
using concurrency::Task;
using core::DegradedReason;

std::shared_ptr<EnforcementHealthCoordinator> EnforcementHealthCoordinator::make(
    const concurrency::Executor& executor, Collaborators collaborators) {
  return std::shared_ptr<EnforcementHealthCoordinator>(
      new EnforcementHealthCoordinator(executor, std::move(collaborators)));
}

EnforcementHealthCoordinator::EnforcementHealthCoordinator(const concurrency::Executor& executor,
                                                           Collaborators collaborators)
    : serial_(executor), with_(std::move(collaborators)) {}

EnforcementHealthCoordinator::~EnforcementHealthCoordinator() {
  // Nobody else has the coordinator any more; its loops are asleep and must not wait for ever.
  if (pathChannel_) pathChannel_->finish();
  if (recovery_) {
    recovery_->task.cancel();
    recovery_->nap.cancel();
  }
}

Task<void> EnforcementHealthCoordinator::reconcileWithRecovery() {
  return serial_.run(reconcile(shared_from_this()));
}

Task<void> EnforcementHealthCoordinator::start() { return serial_.run(begin(shared_from_this())); }

Task<void> EnforcementHealthCoordinator::stop() { return serial_.run(end(shared_from_this())); }

Task<void> EnforcementHealthCoordinator::reportFault(DegradedReason reason) {
  return serial_.run(degrade(shared_from_this(), reason));
}

Task<void> EnforcementHealthCoordinator::expediteRecovery() {
  return serial_.run(expedite(shared_from_this()));
}

Task<void> EnforcementHealthCoordinator::reconcile(Self self) {
  using Source = CommitmentStateRecovery::Source;
  const Source source = co_await self->with_.authority->recoverySource();
  switch (source) {
    case Source::current:
      self->machine_.settleRestored();
      co_await publish(self);
      break;
    case Source::lastKnownGood:
      co_await degrade(self, DegradedReason::recoveringFromCorruption);
      break;
    case Source::failedOpen:
      co_await degrade(self, DegradedReason::failedOpen);
      break;
  }
}

Task<void> EnforcementHealthCoordinator::degrade(Self self, DegradedReason reason) {
  co_await change(self, EnforcementVerification::unverified{reason});
  self->startRecovery();
}

// Changes

Task<void> EnforcementHealthCoordinator::change(Self self, EnforcementVerification verification) {
  self->verdictEpoch_ = core::successor(self->verdictEpoch_);
  const auto event = self->machine_.apply(verification);
  if (event && self->with_.onEvent) self->with_.onEvent(*event);
  co_await publish(self);
}

Task<void> EnforcementHealthCoordinator::publish(Self self) {
  // The status is taken inside, so the last to get through tells the newest one.
  const auto turn = co_await self->publishing_.take();
  (void)co_await self->with_.authority->recordEnforcement(self->machine_.status());
}

Task<void> EnforcementHealthCoordinator::applyVerdict(Self self, EnforcementVerification verdict,
                                                      std::int64_t epochBefore) {
  const bool isStale = self->verdictEpoch_ != epochBefore;
  if (!(isStale && core::is<EnforcementVerification::verified>(verdict))) {
    co_await change(self, verdict);
  }
  if (!self->machine_.isHealthy()) self->startRecovery();
}

Task<EnforcementVerification> EnforcementHealthCoordinator::verify(Self self,
                                                                   ipc::DaemonStatus status) {
  const auto* const active = status.active();
  const std::int64_t generation = active == nullptr ? 0 : active->scopeGeneration;
  core::DomainSet scope;
  if (active != nullptr) scope = active->scope;
  return self->with_.verifier->verify(generation, std::move(scope));
}

// The network

Task<void> EnforcementHealthCoordinator::begin(Self self) {
  if (self->pathChannel_) co_return;
  self->pathChannel_ = self->with_.paths->paths();
  concurrency::spawn(self->serial_.executor(), followPaths(self, *self->pathChannel_));
}

Task<void> EnforcementHealthCoordinator::end(Self self) {
  if (self->pathChannel_) {
    self->pathChannel_->finish();
    self->pathChannel_.reset();
  }
  if (const auto recovery = std::exchange(self->recovery_, nullptr)) {
    recovery->task.cancel();
    recovery->nap.cancel();
  }
  co_return;
}

Task<void> EnforcementHealthCoordinator::followPaths(WeakSelf weak, PathChannel channel) {
  for (;;) {
    std::optional<NetworkPathSnapshot> snapshot = co_await channel.next();
    if (!snapshot || channel.isFinished()) co_return;
    const Self self = weak.lock();
    if (!self) co_return;
    co_await handlePath(self, std::move(*snapshot), channel);
  }
}

Task<void> EnforcementHealthCoordinator::handlePath(Self self, NetworkPathSnapshot snapshot,
                                                    PathChannel channel) {
  const auto previous = std::exchange(self->lastPath_, snapshot);
  if (!previous || *previous == snapshot) co_return;
  auto status = co_await self->with_.authority->status();
  if (status.active() == nullptr) co_return;
  const std::int64_t epochBefore = self->verdictEpoch_;
  const EnforcementVerification verdict = co_await verify(self, std::move(status));
  if (channel.isFinished()) co_return;  // stopped meanwhile
  co_await applyVerdict(self, verdict, epochBefore);
}

// Recovery

void EnforcementHealthCoordinator::startRecovery() {
  if (recovery_) return;
  recovery_ = std::make_shared<Recovery>();
  concurrency::spawn(serial_.executor(),
                     recover(weak_from_this(), recovery_, with_.sleeper, with_.backoff));
}

Task<void> EnforcementHealthCoordinator::expedite(Self self) {
  const auto recovery = self->recovery_;
  // The first nap is as short as it gets; cut short, it could be made to last for ever by somebody
  // who asks often enough.
  if (!recovery || !recovery->isNapping || recovery->attempt == 1) co_return;
  recovery->nap.cancel();
}

Task<void> EnforcementHealthCoordinator::recover(WeakSelf weak, std::shared_ptr<Recovery> recovery,
                                                 std::shared_ptr<concurrency::Sleeper> sleeper,
                                                 RecoveryBackoff backoff) {
  while (!recovery->task.isCancelled()) {
    recovery->nap = Cancellation();
    recovery->isNapping = true;
    const auto delay = concurrency::nanoseconds(backoff.delay(recovery->attempt));
    const SleepOutcome slept = co_await sleeper->sleep(delay, recovery->nap);
    recovery->isNapping = false;
    if (recovery->task.isCancelled()) co_return;
    if (slept == SleepOutcome::cancelled) {
      recovery->attempt = 1;
      continue;
    }
    const Self self = weak.lock();
    if (!self) co_return;
    const Attempt attempt = co_await attemptRecovery(self, recovery);
    if (attempt == Attempt::finished) break;
    recovery->attempt = core::successor(recovery->attempt);
  }
  const Self self = weak.lock();
  if (!self || self->recovery_ != recovery) co_return;
  self->recovery_ = nullptr;
  // A fault that came after the last look found this loop still there and started none.
  if (!recovery->task.isCancelled() && self->machine_.isDegraded()) self->startRecovery();
}

Task<EnforcementHealthCoordinator::Attempt> EnforcementHealthCoordinator::attemptRecovery(
    Self self, std::shared_ptr<Recovery> recovery) {
  if (!self->machine_.isDegraded()) co_return Attempt::finished;
  const std::int64_t epochBefore = self->verdictEpoch_;
  const bool isDurable = co_await self->with_.authority->retryRecovery();
  if (recovery->task.isCancelled()) co_return Attempt::finished;
  if (!isDurable) {
    (void)co_await self->with_.authority->publishStatus();
    co_return Attempt::failed;
  }
  auto status = co_await self->with_.authority->status();
  const EnforcementVerification verdict = co_await verify(self, std::move(status));
  if (recovery->task.isCancelled()) co_return Attempt::finished;
  co_await applyVerdict(self, verdict, epochBefore);
  co_return self->machine_.isHealthy() ? Attempt::finished : Attempt::failed;
}

}  // namespace stillow::authority
