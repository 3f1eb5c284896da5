#include "StillowAuthority/FilterPathSupervisor.hpp"

#include <utility>

namespace stillow::authority {

using concurrency::Cancellation;
using concurrency::SleepOutcome;
using concurrency::Task;
using core::DegradedReason;

std::shared_ptr<FilterPathSupervisor> FilterPathSupervisor::make(
    const concurrency::Executor& executor, Collaborators collaborators) {
  return std::shared_ptr<FilterPathSupervisor>(
      new FilterPathSupervisor(executor, std::move(collaborators)));
}

FilterPathSupervisor::FilterPathSupervisor(const concurrency::Executor& executor,
                                           Collaborators collaborators)
    : serial_(executor), with_(std::move(collaborators)) {}

FilterPathSupervisor::~FilterPathSupervisor() {
  if (channel_) channel_->finish();
  cancellation_.cancel();
}

Task<void> FilterPathSupervisor::start() { return serial_.run(begin(shared_from_this())); }

Task<void> FilterPathSupervisor::stop() { return serial_.run(end(shared_from_this())); }

Task<void> FilterPathSupervisor::begin(Self self) {
  if (self->channel_) co_return;
  // Before the first look: what happens during it is then seen by the next.
  self->channel_ = self->with_.observer->observations();
  const ObservationChannel channel = *self->channel_;
  const bool looksAgain = co_await look(self, std::nullopt);
  if (self->cancellation_.isCancelled()) co_return;
  concurrency::spawn(self->serial_.executor(),
                     follow(self, channel, self->with_.sleeper, self->with_.pause,
                            self->cancellation_, looksAgain));
}

Task<void> FilterPathSupervisor::end(Self self) {
  if (self->channel_) self->channel_->finish();
  self->cancellation_.cancel();
  co_return;
}

Task<void> FilterPathSupervisor::follow(WeakSelf weak, ObservationChannel channel,
                                        std::shared_ptr<concurrency::Sleeper> sleeper,
                                        std::chrono::nanoseconds pause, Cancellation cancellation,
                                        bool looksAgain) {
  for (;;) {
    if (looksAgain) {
      const SleepOutcome slept = co_await sleeper->sleep(pause, cancellation);
      if (slept == SleepOutcome::cancelled) co_return;
    }
    std::optional<FilterPathObservation> observation = channel.takeReady();
    if (!observation && !looksAgain) {
      observation = co_await channel.next();
      if (!observation) co_return;
    }
    if (cancellation.isCancelled()) co_return;
    {
      const Self self = weak.lock();
      if (!self) co_return;
      looksAgain = co_await look(self, observation);
    }
    if (looksAgain) continue;
    const SleepOutcome slept = co_await sleeper->sleep(pause, cancellation);
    if (slept == SleepOutcome::cancelled) co_return;
  }
}

Task<bool> FilterPathSupervisor::look(Self self, std::optional<FilterPathObservation> observation) {
  const FilterPathObservation before = self->last_;
  if (observation) self->last_ = *observation;
  const bool hasEnded = self->last_.filterEndings != before.filterEndings;
  const bool hasBegun = self->last_.filterBeginnings != before.filterBeginnings;
  if (hasEnded || hasBegun) self->looksLeft_ = self->with_.looksAfterBeginning;
  if (hasEnded) {
    // Reported even if the next one is there already: the connections that it did not see passed.
    self->isPresent_ = false;
    co_await self->with_.faults->reportFault(DegradedReason::failedOpen);
  }

  const FilterPathReadiness found = co_await self->with_.path->readiness();
  if (found.extensionIsApproved) {
    self->looksLeft_ = 0;
    if (!std::exchange(self->isPresent_, true)) {
      co_await self->with_.arming->reapply();
      co_await self->with_.recovery->expediteRecovery();
    }
    co_return false;
  }
  if (std::exchange(self->isPresent_, false)) {
    self->looksLeft_ = self->with_.looksAfterBeginning;
    co_await self->with_.faults->reportFault(DegradedReason::failedOpen);
  }
  co_return self->looksLeft_-- > 0;
}

}  // namespace stillow::authority
