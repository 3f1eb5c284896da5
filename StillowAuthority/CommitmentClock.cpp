#include "StillowAuthority/CommitmentClock.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "StillowCore/Invariant.hpp"

namespace stillow::authority {

namespace {

using concurrency::Cancellation;
using concurrency::Channel;
using concurrency::SleepOutcome;
using concurrency::Task;
using concurrency::Turn;
using ipc::DaemonStatus;

}  // namespace

std::shared_ptr<CommitmentClock> CommitmentClock::make(
    concurrency::Executor executor, std::shared_ptr<CommitmentAuthority> authority, Time time,
    Cadence cadence) {
  return std::shared_ptr<CommitmentClock>(
      new CommitmentClock(executor, std::move(authority), std::move(time), cadence));
}

CommitmentClock::CommitmentClock(const concurrency::Executor& executor,
                                 std::shared_ptr<CommitmentAuthority> authority, Time time,
                                 Cadence cadence)
    : executor_(executor),
      serial_(executor),
      authority_(std::move(authority)),
      time_(std::move(time)),
      cadence_(cadence),
      chargedUntil_(std::numeric_limits<double>::quiet_NaN()) {}

CommitmentClock::~CommitmentClock() {
  if (!loops_) return;
  loops_->ticking.cancel();
  loops_->invalidations.finish();
}

Task<void> CommitmentClock::start() { return serial_.run(begin(shared_from_this())); }

Task<void> CommitmentClock::stop() { return serial_.run(end(shared_from_this())); }

Task<void> CommitmentClock::sampleNow() {
  return serial_.run(sample(shared_from_this(), std::nullopt));
}

double CommitmentClock::unchargedSeconds() const {
  const double chargedUntil = chargedUntil_.load();
  if (std::isnan(chargedUntil)) return 0;
  return std::max(0.0, time_.monotonic->seconds() - chargedUntil);
}

Task<void> CommitmentClock::begin(Self self) {
  if (self->loops_) co_return;
  self->loops_.emplace(
      Loops{.ticking = {}, .invalidations = self->time_.invalidations->invalidations()});
  concurrency::spawn(self->executor_, tick(self, self->time_.sleeper, self->cadence_.tickInterval,
                                           self->loops_->ticking, self->generation_));
  concurrency::spawn(self->executor_, follow(self, self->loops_->invalidations, self->generation_));
}

Task<void> CommitmentClock::end(Self self) {
  if (self->loops_) {
    self->loops_->ticking.cancel();
    self->loops_->invalidations.finish();
    self->loops_.reset();
  }
  self->generation_ = core::successor(self->generation_);
  self->lastReading_.reset();
  self->lastClockOffset_.reset();
  self->wasActiveAtLastSample_ = false;
  self->chargedUntil_ = std::numeric_limits<double>::quiet_NaN();
  co_return;
}

// ---- the loops; they hold the clock only while they use it

Task<void> CommitmentClock::tick(std::weak_ptr<CommitmentClock> weak,
                                 std::shared_ptr<concurrency::Sleeper> sleeper,
                                 std::chrono::nanoseconds interval, Cancellation cancellation,
                                 std::int64_t generation) {
  while (true) {
    const SleepOutcome outcome = co_await sleeper->sleep(interval, cancellation);
    if (outcome == SleepOutcome::cancelled) co_return;
    const Self self = weak.lock();
    if (!self) co_return;
    Task<void> sampling = self->serial_.run(sample(self, generation));
    co_await std::move(sampling);
  }
}

Task<void> CommitmentClock::follow(std::weak_ptr<CommitmentClock> weak,
                                   Channel<ProjectionInvalidation> invalidations,
                                   std::int64_t generation) {
  while (true) {
    // A clock that was set and a zone that changed ask for the same.
    const std::optional<ProjectionInvalidation> invalidation = co_await invalidations.next();
    if (!invalidation) co_return;
    const Self self = weak.lock();
    if (!self) co_return;
    Task<void> accepting = self->serial_.run(acceptClockChange(self, generation));
    co_await std::move(accepting);
  }
}

// ---- on the strand

CommitmentClock::Reading CommitmentClock::read() const {
  const double seconds = time_.monotonic->seconds();
  return {.seconds = seconds, .clockOffset = time_.wallClock().secondsSinceReferenceDate - seconds};
}

Task<void> CommitmentClock::sample(Self self, std::optional<std::int64_t> generation) {
  const Turn::Holder turn = co_await self->sampling_.take();
  // The stop that this sample's loop ended with may have come while it waited.
  if (!self->loops_ || (generation && *generation != self->generation_)) co_return;
  const std::int64_t begunIn = self->generation_;
  const Reading reading = self->read();
  const DaemonStatus status = co_await self->authority_->status();
  if (self->generation_ != begunIn) co_return;

  const bool isActive = status.active() != nullptr;
  const auto previousReading = std::exchange(self->lastReading_, reading.seconds);
  const auto previousOffset = std::exchange(self->lastClockOffset_, reading.clockOffset);
  const bool wasActive = std::exchange(self->wasActiveAtLastSample_, isActive);
  // The first sample is a baseline: what went before it is not known to be running time.
  if (!previousReading) {
    self->chargedUntil_ = reading.seconds;
    co_return;
  }

  const double elapsed = reading.seconds - *previousReading;
  const bool hasJumped = previousOffset && std::abs(reading.clockOffset - *previousOffset) >
                                               self->cadence_.wallClockJumpTolerance;
  if (!(elapsed > 0)) {
    if (isActive) co_await self->authority_->publishStatus();
  } else if (wasActive) {
    co_await self->charge(elapsed, isActive && hasJumped, begunIn);
  } else if (isActive && (elapsed >= self->cadence_.sleepGapThreshold || hasJumped)) {
    co_await self->authority_->publishStatus();
  }
  if (self->generation_ == begunIn) self->chargedUntil_ = reading.seconds;
}

Task<void> CommitmentClock::charge(double elapsed, bool isPublishing, std::int64_t generation) {
  unrecordedConsumption_ += elapsed;
  const bool isDurable = elapsed >= cadence_.sleepGapThreshold ||
                         unrecordedConsumption_ >= cadence_.checkpointInterval;
  const DaemonStatus charged = co_await authority_->recordRunningTime(
      elapsed, isDurable ? RunningTimeRecording::durable : RunningTimeRecording::inMemory);
  const bool isStillActive = charged.active() != nullptr;
  // A Commitment that begins after the one that has just ended did not begin this interval.
  if (generation_ == generation) wasActiveAtLastSample_ = isStillActive;
  if (isDurable || !isStillActive) {
    unrecordedConsumption_ = 0;
  } else if (isPublishing) {
    co_await authority_->publishStatus();
  }
}

Task<void> CommitmentClock::acceptClockChange(Self self, std::int64_t generation) {
  const Turn::Holder turn = co_await self->sampling_.take();
  if (self->generation_ != generation) co_return;
  // What was done on purpose is no jump at the next tick.
  self->lastClockOffset_ = self->read().clockOffset;
  const DaemonStatus status = co_await self->authority_->status();
  if (status.active() != nullptr) co_await self->authority_->publishStatus();
}

}  // namespace stillow::authority
