#include "StillowAuthority/EnforcementValidator.hpp"

#include <utility>

namespace stillow::authority {

using concurrency::Task;
using core::DegradedReason;
using core::EnforcementValidation;
using core::EnforcementValidationFailure;
using filtering::ValidationProbe;

std::shared_ptr<EnforcementValidator> EnforcementValidator::make(
    const concurrency::Executor& executor, Collaborators collaborators) {
  return std::shared_ptr<EnforcementValidator>(
      new EnforcementValidator(executor, std::move(collaborators)));
}

EnforcementValidator::EnforcementValidator(const concurrency::Executor& executor,
                                           Collaborators collaborators)
    : serial_(executor), with_(std::move(collaborators)) {}

Task<EnforcementValidation> EnforcementValidator::validate() {
  return serial_.run(waitForRun(shared_from_this()));
}

Task<EnforcementVerification> EnforcementValidator::verify(std::int64_t /*scopeGeneration*/,
                                                           core::DomainSet /*scope*/) {
  return verifyByValidating(shared_from_this());
}

Task<EnforcementVerification> EnforcementValidator::verifyByValidating(Self self) {
  const EnforcementValidation result = co_await self->validate();
  co_return verification(result);
}

Task<EnforcementValidation> EnforcementValidator::waitForRun(Self self) {
  const Waiter mine;
  self->waitingForNextRun_.push_back(mine);
  if (!self->isRunning_) {
    self->isRunning_ = true;
    // Not in the caller's own task: others may come to share the runs, and it may stop waiting.
    concurrency::spawn(self->serial_.executor(), runWhileWanted(self));
  }
  const EnforcementValidation result = co_await mine.wait();
  co_return result;
}

Task<void> EnforcementValidator::runWhileWanted(Self self) {
  while (!self->waitingForNextRun_.empty()) {
    const std::vector<Waiter> waiters = std::exchange(self->waitingForNextRun_, {});
    const EnforcementValidation result = co_await run(self);
    if (self->with_.recorder) {
      co_await self->with_.recorder->record(result, self->with_.clock());
    }
    for (const auto& waiter : waiters) waiter.settle(result);
  }
  self->isRunning_ = false;
}

Task<EnforcementValidation> EnforcementValidator::run(Self self) {
  using Failure = EnforcementValidationFailure;
  const auto before = co_await self->with_.path->readiness();
  if (!before.extensionIsApproved) {
    co_return EnforcementValidation::failed{Failure::extensionNotApproved};
  }
  auto probe = ValidationProbe::issued(self->with_.domains.probed, self->with_.clock(),
                                       probeLifetimeSeconds);
  const bool isLent = co_await self->with_.lender->lend(std::move(probe));
  if (!isLent) co_return EnforcementValidation::failed{Failure::inconclusive};

  // From here on every way out takes the probe back.
  EnforcementValidation result = EnforcementValidation::failed{Failure::filterNotArmed};
  const auto armed = co_await self->with_.path->readiness();
  if (armed.filterConfigurationIsEnabled) result = co_await connectBoth(self);
  co_await self->with_.lender->reclaim();
  co_return result;
}

Task<EnforcementValidation> EnforcementValidator::connectBoth(Self self) {
  const auto& domains = self->with_.domains;
  // One after the other: in parallel, a network that fails for a moment could fail just one of
  // them.
  const auto probed = co_await self->with_.connector->connect(std::string(domains.probed.name()),
                                                              self->with_.timeout);
  const auto control = co_await self->with_.connector->connect(std::string(domains.control.name()),
                                                               self->with_.timeout);
  co_return judgement(probed, control);
}

EnforcementValidation judgement(DiagnosticConnectionOutcome probed,
                                DiagnosticConnectionOutcome control) noexcept {
  using enum DiagnosticConnectionOutcome;
  using Failure = EnforcementValidationFailure;
  switch (probed) {
    case answered:
      return EnforcementValidation::failed{Failure::connectionNotDropped};
    case answeredByAnotherHost:
      return EnforcementValidation::failed{Failure::inconclusive};
    case connectionFailed:
      break;
  }
  switch (control) {
    case answered:
      return EnforcementValidation::passed{};
    case answeredByAnotherHost:
      return EnforcementValidation::failed{Failure::inconclusive};
    case connectionFailed:
      break;
  }
  return EnforcementValidation::failed{Failure::networkUnavailable};
}

EnforcementVerification verification(EnforcementValidation validation) noexcept {
  const auto* const failed = core::getIf<EnforcementValidation::failed>(validation);
  if (failed == nullptr) return EnforcementVerification::verified{};
  switch (failed->failure) {
    case EnforcementValidationFailure::extensionNotApproved:
    case EnforcementValidationFailure::filterNotArmed:
      return EnforcementVerification::unverified{DegradedReason::failedOpen};
    case EnforcementValidationFailure::connectionNotDropped:
    case EnforcementValidationFailure::networkUnavailable:
    case EnforcementValidationFailure::inconclusive:
      break;
  }
  return EnforcementVerification::unverified{DegradedReason::pathUnverified};
}

}  // namespace stillow::authority
