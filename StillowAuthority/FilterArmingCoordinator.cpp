#include "StillowAuthority/FilterArmingCoordinator.hpp"

#include <utility>

#include "StillowAuthority/FilterArmingPolicy.hpp"
#include "StillowCore/Invariant.hpp"

namespace stillow::authority {

using concurrency::OneShot;
using concurrency::Task;
using core::DegradedReason;
using filtering::EnforcementDirective;
using filtering::ValidationProbe;

// DeliveredScope

std::optional<ValidationProbe> FilterArmingCoordinator::DeliveredScope::lentProbe() const {
  const std::lock_guard guard(lock_);
  return lentProbe_;
}

void FilterArmingCoordinator::DeliveredScope::lend(ValidationProbe probe) {
  const std::lock_guard guard(lock_);
  lentProbe_ = std::move(probe);
}

bool FilterArmingCoordinator::DeliveredScope::reclaim() {
  const std::lock_guard guard(lock_);
  return std::exchange(lentProbe_, std::nullopt).has_value();
}

bool FilterArmingCoordinator::DeliveredScope::differs(const EnforcementDirective& directive) const {
  const std::lock_guard guard(lock_);
  return !hasDelivered_ || hasUnpublishedDirective_ || scope_ != directive.scope ||
         probe_ != directive.validation;
}

void FilterArmingCoordinator::DeliveredScope::noteDelivered(const EnforcementDirective& directive) {
  const std::lock_guard guard(lock_);
  scope_ = directive.scope;
  probe_ = directive.validation;
  hasDelivered_ = true;
  hasUnpublishedDirective_ = false;
}

void FilterArmingCoordinator::DeliveredScope::noteFailure() {
  const std::lock_guard guard(lock_);
  hasUnpublishedDirective_ = true;
}

bool FilterArmingCoordinator::DeliveredScope::hasUnpublishedDirective() const {
  const std::lock_guard guard(lock_);
  return hasUnpublishedDirective_;
}

// Whatever ends a pass or the loop, the destruction of a suspended task included, nobody is left
// waiting and no flag stays up.

class FilterArmingCoordinator::PassEnd {
 public:
  explicit PassEnd(std::vector<OneShot<bool>> waiting) : waiting_(std::move(waiting)) {}
  PassEnd(const PassEnd&) = delete;
  PassEnd& operator=(const PassEnd&) = delete;
  ~PassEnd() {
    for (const auto& waiter : waiting_) waiter.settle(true);
  }

 private:
  std::vector<OneShot<bool>> waiting_;
};

class FilterArmingCoordinator::LoopEnd {
 public:
  explicit LoopEnd(FilterArmingCoordinator& coordinator) : coordinator_(coordinator) {}
  LoopEnd(const LoopEnd&) = delete;
  LoopEnd& operator=(const LoopEnd&) = delete;
  ~LoopEnd() { coordinator_.isApplying_ = false; }

 private:
  FilterArmingCoordinator& coordinator_;
};

// Operations

std::shared_ptr<FilterArmingCoordinator> FilterArmingCoordinator::make(
    const concurrency::Executor& executor, Collaborators collaborators) {
  return std::shared_ptr<FilterArmingCoordinator>(
      new FilterArmingCoordinator(executor, std::move(collaborators)));
}

FilterArmingCoordinator::FilterArmingCoordinator(const concurrency::Executor& executor,
                                                 Collaborators collaborators)
    : serial_(executor), with_(std::move(collaborators)) {}

Task<void> FilterArmingCoordinator::setFaults(std::weak_ptr<EnforcementFaultReporting> faults) {
  return serial_.run(replaceFaults(shared_from_this(), std::move(faults)));
}

Task<void> FilterArmingCoordinator::start() { return serial_.run(begin(shared_from_this())); }

Task<void> FilterArmingCoordinator::stop() { return serial_.run(end(shared_from_this())); }

Task<void> FilterArmingCoordinator::reapply() {
  return serial_.run(runApplyLoop(shared_from_this(), AfterFailure::retry));
}

Task<bool> FilterArmingCoordinator::lend(ValidationProbe probe) {
  return serial_.run(lendProbe(shared_from_this(), std::move(probe)));
}

Task<void> FilterArmingCoordinator::reclaim() {
  return serial_.run(reclaimProbe(shared_from_this()));
}

Task<FilterPathReadiness> FilterArmingCoordinator::readiness() {
  return serial_.run(readBack(shared_from_this()));
}

Task<void> FilterArmingCoordinator::setUserInterfaceRunning(bool isRunning) {
  return serial_.run(noteUserInterface(shared_from_this(), isRunning));
}

Task<std::optional<FilterArmingState>> FilterArmingCoordinator::appliedState() {
  return serial_.run(answerAppliedState(shared_from_this()));
}

Task<void> FilterArmingCoordinator::replaceFaults(Self self,
                                                  std::weak_ptr<EnforcementFaultReporting> faults) {
  self->faults_ = std::move(faults);
  co_return;
}

Task<void> FilterArmingCoordinator::begin(Self self) {
  if (std::exchange(self->isStarted_, true)) co_return;
  const WeakSelf weak = self;
  CommitmentAuthority::Observer observer = [weak](StatusPointer status) {
    return observe(weak, std::move(status));
  };
  const auto subscription = co_await self->with_.authority->subscribe(std::move(observer));
  if (!self->isStarted_) {  // stopped meanwhile
    co_await self->with_.authority->unsubscribe(subscription.token);
    co_return;
  }
  self->observerToken_ = subscription.token;
  const PublishOutcome outcome = co_await publishCurrent(self);
  if (outcome == PublishOutcome::failed) {
    co_await report(self, DegradedReason::recoveringFromCorruption);
  }
}

Task<void> FilterArmingCoordinator::end(Self self) {
  self->isStarted_ = false;
  const auto token = std::exchange(self->observerToken_, std::nullopt);
  if (token) co_await self->with_.authority->unsubscribe(*token);
}

Task<bool> FilterArmingCoordinator::lendProbe(Self self, ValidationProbe probe) {
  self->delivered_.lend(std::move(probe));
  const PublishOutcome outcome = co_await publishCurrent(self);
  if (outcome == PublishOutcome::failed) {
    (void)self->delivered_.reclaim();
    co_return false;
  }
  co_await applyNow(self);
  co_return true;
}

Task<void> FilterArmingCoordinator::reclaimProbe(Self self) {
  if (!self->delivered_.reclaim()) co_return;
  // If this fails the filter keeps the probe until it expires, and the next status writes again.
  (void)co_await publishCurrent(self);
  co_await runApplyLoop(self, AfterFailure::retry);
}

Task<void> FilterArmingCoordinator::noteUserInterface(Self self, bool isRunning) {
  if (std::exchange(self->userInterfaceIsRunning_, isRunning) == isRunning) co_return;
  co_await runApplyLoop(self, AfterFailure::retry);
}

Task<std::optional<FilterArmingState>> FilterArmingCoordinator::answerAppliedState(Self self) {
  co_return self->appliedState_;
}

Task<FilterPathReadiness> FilterArmingCoordinator::readBack(Self self) {
  const std::int64_t applications = self->applications_;
  const bool wasApplying = self->isApplying_;
  const auto found = co_await askSystem(self);
  // No answer says nothing about the rules, and neither does one that a pass of ours overlapped.
  const bool isTelling =
      found && !wasApplying && !self->isApplying_ && applications == self->applications_;
  const bool isLost = isTelling && !found->filterConfigurationIsEnabled &&
                      self->appliedState_ == FilterArmingState::armed;
  if (!isLost) co_return found.value_or(FilterPathReadiness{});

  self->appliedState_ = std::nullopt;
  self->log("The filter's configuration is no longer in force; applying it again.");
  co_await applyNow(self);
  // Repaired or not, for a while nothing was blocked.
  co_await report(self, DegradedReason::failedOpen);
  const auto repaired = co_await askSystem(self);
  co_return repaired.value_or(FilterPathReadiness{});
}

Task<std::optional<FilterPathReadiness>> FilterArmingCoordinator::askSystem(Self self) {
  const auto answer = co_await self->with_.configuration->readiness();
  if (answer) co_return *answer;
  self->log(answer.error().description);
  co_return std::nullopt;
}

// The apply loop

Task<void> FilterArmingCoordinator::runApplyLoop(Self self, AfterFailure afterFailure) {
  self->applyIsPending_ = true;
  self->pendingMayRetry_ = self->pendingMayRetry_ || afterFailure == AfterFailure::retry;
  if (self->isApplying_) co_return;
  self->isApplying_ = true;
  const LoopEnd loopEnd(*self);
  while (self->applyIsPending_) {
    self->applyIsPending_ = false;
    const bool mayRetry = std::exchange(self->pendingMayRetry_, false);
    const PassEnd passEnd(std::exchange(self->awaitingPass_, {}));
    co_await pass(self, mayRetry ? AfterFailure::retry : AfterFailure::wait);
  }
}

Task<void> FilterArmingCoordinator::applyNow(Self self) {
  const OneShot<bool> passed;
  self->awaitingPass_.push_back(passed);
  co_await runApplyLoop(self, AfterFailure::retry);
  (void)co_await passed.wait();
}

Task<void> FilterArmingCoordinator::pass(Self self, AfterFailure afterFailure) {
  const bool userInterfaceIsRunning = self->userInterfaceIsRunning_;
  const auto status = co_await self->with_.authority->status();
  const FilterArmingState desired = FilterArmingPolicy::state(
      {.userInterfaceIsRunning = userInterfaceIsRunning,
       .commitmentIsActive = status.active() != nullptr,
       .enforcementValidationIsRunning = self->delivered_.lentProbe().has_value()});
  if (self->appliedState_ == desired) co_return;
  if (self->failedState_ == desired && afterFailure == AfterFailure::wait) co_return;

  self->applications_ = core::successor(self->applications_);
  const auto applied = co_await self->with_.configuration->apply(desired);
  bool isEnabled = false;
  bool systemAgrees = false;
  if (applied) {
    const auto found = co_await self->with_.configuration->readiness();
    isEnabled = found && found->filterConfigurationIsEnabled;
    systemAgrees = found && isEnabled == (desired == FilterArmingState::armed);
    if (!found) self->log(found.error().description);
  } else {
    self->log(applied.error().description);
  }
  self->appliedState_ = systemAgrees ? std::optional(desired) : std::nullopt;
  self->failedState_ = systemAgrees ? std::nullopt : std::optional(desired);
  (void)co_await self->with_.authority->recordFilterConfiguration(isEnabled, true);
  if (!systemAgrees && desired == FilterArmingState::armed) {
    co_await report(self, DegradedReason::failedOpen);
  }
}

// Directives

Task<FilterArmingCoordinator::PublishOutcome> FilterArmingCoordinator::publish(
    Self self, StatusPointer status) {
  EnforcementDirective directive{.scope = std::nullopt,
                                 .validation = self->delivered_.lentProbe(),
                                 .publishedAt = self->with_.clock()};
  if (const auto* const active = status->active()) {
    directive.scope = core::Scope{.generation = active->scopeGeneration, .domains = active->scope};
  }
  if (!self->delivered_.differs(directive)) co_return PublishOutcome::unchanged;

  const auto directives = self->with_.directives;
  auto write = [directives, directive] { return directives->publish(directive); };
  const auto written = co_await concurrency::runBlocking(self->with_.blocking, std::move(write));
  if (!written) {
    self->delivered_.noteFailure();
    self->log(written.error().description);
    co_return PublishOutcome::failed;
  }
  self->delivered_.noteDelivered(directive);
  co_return PublishOutcome::published;
}

Task<FilterArmingCoordinator::PublishOutcome> FilterArmingCoordinator::publishCurrent(Self self) {
  std::function<Task<PublishOutcome>(StatusPointer)> body = [self](StatusPointer status) {
    return publish(self, std::move(status));
  };
  return self->with_.authority->inTurn<PublishOutcome>(std::move(body));
}

Task<void> FilterArmingCoordinator::observe(WeakSelf weak, StatusPointer status) {
  const Self self = weak.lock();
  if (!self) co_return;
  const PublishOutcome outcome = co_await publish(self, std::move(status));
  if (outcome == PublishOutcome::unchanged) co_return;
  // In a task of its own: it calls the authority, which waits for this observer.
  concurrency::spawn(self->serial_.executor(), followUp(weak, outcome));
}

Task<void> FilterArmingCoordinator::followUp(WeakSelf weak, PublishOutcome outcome) {
  const Self self = weak.lock();
  if (!self) co_return;
  const bool hasFailed = outcome == PublishOutcome::failed;
  if (hasFailed) co_await report(self, DegradedReason::recoveringFromCorruption);
  // A failed pass tells the status, the status is published, and that has just failed: were the
  // pass repeated for it, the two failures would chase each other.
  co_await runApplyLoop(self, hasFailed ? AfterFailure::wait : AfterFailure::retry);
}

Task<void> FilterArmingCoordinator::report(Self self, DegradedReason reason) {
  const auto faults = self->faults_.lock();
  if (faults) co_await faults->reportFault(reason);
}

void FilterArmingCoordinator::log(const std::string& sentence) const {
  if (with_.errorLog) with_.errorLog(sentence);
}

}  // namespace stillow::authority
