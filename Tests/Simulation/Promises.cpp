#include "Promises.hpp"

#include <algorithm>
#include <limits>

#include <gtest/gtest.h>

#include "StillowDaemon/Daemon.hpp"

namespace stillow::simulation {

namespace {

using core::EnforcementHealthStatus;

/// Rounding of seconds that are added up.
constexpr double epsilon = 1e-3;
/// A sample is taken each second, and what happens between two of them is charged with the second.
constexpr double tick = 1.01;
/// Seconds that a crash gives back at most: those not saved yet, those not sampled yet, the first
/// sample of the new process, which is a baseline, and the interval under way.
const double crashAllowance = daemon::Daemon::cadence.checkpointInterval + 3 * tick;
/// How long a fault of the path that was told may stay unnoticed: looks are a second apart.
constexpr double noticeSeconds = 2.5;
constexpr double forever = std::numeric_limits<double>::infinity();

bool contains(const core::DomainSet& larger, const core::DomainSet& smaller) {
  return larger.united(smaller) == larger;
}

bool isHealthy(const ipc::DaemonStatus& status) {
  return core::is<EnforcementHealthStatus::healthy>(status.enforcement);
}

std::optional<core::Date> expiryIn(const ipc::DaemonStatus& status) {
  const auto* const expired = core::getIf<ipc::CommitmentStatus::expired>(status.commitment);
  if (expired == nullptr) return std::nullopt;
  return expired->endedAt;
}

}  // namespace

// ---- what clients do and hear

Promises::Request Promises::request() const {
  return {.countedSeconds = machine_.countedNow(),
          .diskFailures = machine_.disk.failures,
          .sentAt = machine_.now(),
          .clockSettings = machine_.clockSettings()};
}

void Promises::changeIsSent() {
  expiry_.reset();
  // What a client does where the state cannot be read is the truth from then on.
  if (std::exchange(durableIsHidden_, false)) durable_.reset();
}

void Promises::sendsExtension() {
  changeIsSent();
  extensionIsOpen_ = true;
}

void Promises::sendsAcknowledgement() { changeIsSent(); }

void Promises::acknowledgedActivation(const Exchange& exchange, const ipc::DaemonStatus& status) {
  const auto* const active = status.active();
  ASSERT_NE(active, nullptr) << "an activation was answered without a Commitment";
  ASSERT_TRUE(machine_.lastProof) << "activated although nothing was ever proven";
  // Where the clock was set meanwhile nobody can say how old the proof looked.
  if (machine_.lastProof->clockSettings == machine_.clockSettings()) {
    EXPECT_LE(exchange.request.sentAt - machine_.lastProof->seenAt,
              ipc::EnforcementReadinessReport::validationAgeMaxSeconds + epsilon)
        << "activated although the proof is old";
  }
  EXPECT_EQ(active->scopeGeneration, 1);
  Known known = knownFrom(*active);
  // All of the duration is served, and up to a second that began without the Commitment besides.
  known.endsNotBefore = exchange.request.countedSeconds + active->remainingDuration;
  known.endsNotAfter += tick;
  running_ = known;
  saved(exchange, known);
}

void Promises::acknowledgedStrengthening(const Exchange& exchange,
                                         const ipc::DaemonStatus& status) {
  const auto* const active = status.active();
  ASSERT_NE(active, nullptr) << "a strengthening was answered without a Commitment";
  Known known = knownFrom(*active);
  // The remainder may not have been charged with a sleep that has just ended.
  known.endsNotBefore = 0;
  if (running_ && running_->activatedAt == active->activatedAt) {
    known.endsNotBefore = running_->endsNotBefore;
    if (active->scopeGeneration > running_->generation) {
      EXPECT_TRUE(contains(active->scope, running_->scope)) << "a domain was lost by strengthening";
      running_->generation = active->scopeGeneration;
      running_->scope = active->scope;
    }
  }
  saved(exchange, known);
}

void Promises::acknowledgedExtension(const Exchange& exchange, const ipc::DaemonStatus& status) {
  const auto* const active = status.active();
  ASSERT_NE(active, nullptr) << "an extension was answered without a Commitment";
  EXPECT_LE(active->projectedEndTime.date - active->activatedAt, 86'400 + epsilon)
      << "an extension went past its limit";
  Known known = knownFrom(*active);
  // From the moment of sending: it cannot have been ruled on earlier. Everything until the ruling
  // was charged before it, but for a tenth of a second.
  known.endsNotBefore = exchange.request.countedSeconds + active->remainingDuration - 0.1;
  if (running_ && running_->activatedAt == active->activatedAt) {
    running_->endsNotBefore = std::max(running_->endsNotBefore, known.endsNotBefore);
    running_->endsNotAfter = std::max(running_->endsNotAfter, known.endsNotAfter);
  }
  saved(exchange, known);
}

/// What is known as of now from a status: nothing about when it ends at the earliest.
Promises::Known Promises::knownFrom(const ipc::ActiveCommitmentStatus& active) const {
  const double end = machine_.countedNow() + active.remainingDuration;
  return {.activatedAt = active.activatedAt,
          .generation = active.scopeGeneration,
          .scope = active.scope,
          .endsNotBefore = end - tick,
          .endsNotAfter = end + tick,
          .since = machine_.countedNow()};
}

void Promises::saved(const Exchange& exchange, const Known& known) {
  // A failure behind the answer is no excuse: by then everything had to be on the disk.
  if (exchange.diskFailures != exchange.request.diskFailures) return;
  if (!durable_ || durable_->activatedAt != known.activatedAt) {
    durable_ = known;
    return;
  }
  // Answers need not come in the order of the rulings.
  durable_->endsNotBefore = std::max(durable_->endsNotBefore, known.endsNotBefore);
  if (known.generation < durable_->generation) return;
  durable_->generation = known.generation;
  durable_->scope = known.scope;
}

// ---- time and processes

void Promises::machineSleeps(double seconds) {
  // An interval counts only if it began under a Commitment: the one from the sample before the
  // activation to the one after it does not, and there may be a sleep in it.
  if (running_ && machine_.countedNow() - running_->since < tick) running_->endsNotAfter += seconds;
  awakeSince_ = machine_.countedNow() + seconds;
  // A run that a sleep interrupts is as old as its end, which is when its result is dated.
  auto& proof = machine_.lastProof;
  const bool mayBeUnderWay =
      proof && (!machine_.isQuiet() || machine_.now() - proof->seenAt < tick);
  if (mayBeUnderWay) proof->seenAt = proof->seenAt + seconds;
}

void Promises::processEnds() {
  announced_ = {};
  // What was told but not saved may be gone.
  const bool isAllSaved = machine_.disk.failures == failuresAtStart_;
  const bool mayBeExtended = std::exchange(extensionIsOpen_, false);
  if (!isAllSaved) expiry_.reset();
  if (!running_) return;
  // Time asleep that no sample has seen goes with the process, too.
  const double unseen = machine_.countedNow() - lastCountAt_;
  running_->endsNotAfter += isAllSaved && !mayBeExtended ? crashAllowance + unseen : forever;
}

void Promises::processBegan() {
  failuresAtStart_ = machine_.disk.failures;
  lastCheckAt_ = lastCountAt_ = machine_.countedNow();
  awakeSince_ = lastCheckAt_;
  const ipc::DaemonStatus status = machine_.status();
  const auto* const active = status.active();
  const auto before = std::exchange(running_, std::nullopt);
  if (active != nullptr) {
    if (before && before->activatedAt == active->activatedAt) {
      EXPECT_LE(machine_.countedNow() + active->remainingDuration, before->endsNotAfter + epsilon)
          << "more time was lost than a crash may cost";
    }
    running_ = knownFrom(*active);
  }
  if (machine_.disk.isUnreadable) {
    durableIsHidden_ =
        durable_ && active == nullptr && machine_.countedNow() < durable_->endsNotBefore - epsilon;
    expiry_.reset();
    return;
  }
  if (expiry_) {
    EXPECT_EQ(expiryIn(status), expiry_) << "an end that nobody acknowledged was forgotten";
  }
  if (!durable_) return;
  const bool mayHaveEnded = machine_.countedNow() >= durable_->endsNotBefore - epsilon;
  if (active == nullptr) {
    EXPECT_TRUE(mayHaveEnded) << "a saved Commitment did not survive the end of a process";
  } else if (active->activatedAt == durable_->activatedAt) {
    compare(*durable_, *active, "after a restart");
  } else {
    EXPECT_TRUE(mayHaveEnded) << "another Commitment stands in place of a saved one";
  }
}

// ---- looks

void Promises::compare(const Known& promised, const ipc::ActiveCommitmentStatus& found,
                       const std::string& what) const {
  EXPECT_GE(found.scopeGeneration, promised.generation) << what << ": the generation fell";
  EXPECT_TRUE(contains(found.scope, promised.scope)) << what << ": a domain was lost";
  EXPECT_GE(machine_.countedNow() + found.remainingDuration, promised.endsNotBefore - epsilon)
      << what << ": the Commitment would end before its counted seconds have run";
}

void Promises::check() {
  const ipc::DaemonStatus status = machine_.status();
  EXPECT_FALSE(machine_.hasToldTooEarly()) << "told before it was saved";
  checkHiddenCommitment(status);
  checkCommitment(status);
  checkExpiry(status);
  checkDirective(status);
  checkHealth(status);
  checkAnnounced(status);
  lastCheckAt_ = machine_.countedNow();
  machine_.disk.medium.forgetCalls();
}

void Promises::checkCommitment(const ipc::DaemonStatus& status) {
  const auto* const active = status.active();
  const bool mayBeExtended = std::exchange(extensionIsOpen_, false);
  if (running_ && active != nullptr && active->activatedAt == running_->activatedAt) {
    compare(*running_, *active, "while running");
    const Known found = knownFrom(*active);
    if (mayBeExtended)
      running_->endsNotAfter = std::max(running_->endsNotAfter, found.endsNotAfter);
    // A sample that was under way when the machine fell asleep ends without having seen the sleep;
    // the next one comes a second later.
    if (machine_.countedNow() - awakeSince_ >= tick) {
      EXPECT_LE(machine_.countedNow() + active->remainingDuration, running_->endsNotAfter + epsilon)
          << "running time was not counted";
      running_->endsNotBefore = std::max(running_->endsNotBefore, found.endsNotBefore);
      lastCountAt_ = machine_.countedNow();
    }
    running_->generation = found.generation;
    running_->scope = found.scope;
    return;
  }
  if (running_) {
    EXPECT_GE(machine_.countedNow(), running_->endsNotBefore - epsilon)
        << "the Commitment ended before its counted seconds have run";
    running_.reset();
  }
  if (active == nullptr) return;
  // Somebody's activation whose answer got lost, or a checkpoint that can be read again.
  running_ = knownFrom(*active);
  running_->endsNotAfter += tick;
  if (machine_.countedNow() - awakeSince_ < tick) running_->endsNotBefore = 0;
}

void Promises::checkHiddenCommitment(const ipc::DaemonStatus& status) {
  if (!durableIsHidden_) return;
  if (const auto* const active = status.active()) {
    EXPECT_EQ(active->activatedAt, durable_->activatedAt);
    compare(*durable_, *active, "once it could be read");
    durableIsHidden_ = false;
    return;
  }
  // Nobody counts while it is hidden.
  durable_->endsNotBefore += machine_.countedNow() - lastCheckAt_;
}

void Promises::checkExpiry(const ipc::DaemonStatus& status) {
  const auto found = expiryIn(status);
  if (expiry_) {
    EXPECT_EQ(found, expiry_) << "an end that nobody acknowledged was forgotten";
  }
  expiry_ = found;
}

void Promises::checkDirective(const ipc::DaemonStatus& status) const {
  const auto& adopted = machine_.kernel.adopted;
  const auto* const active = status.active();
  // A directive that cannot be written cannot be in force.
  if (!machine_.kernel.filterIsPresent || machine_.directiveIsUncertain()) return;
  // It was written in the turn that made the status, so there is no moment at which they differ.
  const bool blocks = adopted && adopted->scope;
  ASSERT_EQ(blocks, active != nullptr)
      << (blocks ? "blocked without a Commitment" : "the filter does not know of the Commitment");
  if (active != nullptr) {
    EXPECT_EQ(adopted->scope->generation, active->scopeGeneration);
    EXPECT_EQ(adopted->scope->domains, active->scope) << "the filter has another Scope";
  }
  if (machine_.isQuiet() && adopted) {
    EXPECT_FALSE(adopted->validation) << "a probe was left behind";
  }
}

void Promises::checkHealth(const ipc::DaemonStatus& status) const {
  if (!isHealthy(status)) return;
  EXPECT_FALSE(machine_.scopeIsUncertain()) << "healthy although the filter may not know the Scope";
  if (!machine_.isQuiet() || machine_.secondsSincePathChanged() < noticeSeconds) return;
  EXPECT_TRUE(machine_.kernel.filterIsPresent) << "healthy without a filter";
  if (status.active() == nullptr || machine_.kernel.lostRulesInSilence) return;
  EXPECT_TRUE(machine_.kernel.isArmed) << "healthy although nothing sends traffic to the filter";
}

void Promises::checkAnnounced(const ipc::DaemonStatus& status) {
  for (const auto& announced : machine_.takeAnnounced()) announced_.tell(announced);
  const auto& last = machine_.lastAnnounced();
  ASSERT_TRUE(last);
  compareTold(*last, status, "the observers");
}

void Promises::checkAtRest() {
  check();
  const ipc::DaemonStatus status = machine_.status();
  const auto* const active = status.active();
  EXPECT_TRUE(isHealthy(status)) << "health does not recover although nothing is wrong";
  EXPECT_EQ(status.readiness.filterConfigurationIsEnabled, machine_.kernel.isArmed)
      << "clients are told another configuration than there is";
  if (active != nullptr) {
    EXPECT_TRUE(machine_.kernel.isArmed) << "a Commitment without the filter";
  }
  // A directive that lent or took back a probe may have failed without being written again; then
  // the probe expires by itself.
  core::DomainSet blocked;
  if (machine_.kernel.adopted) blocked = machine_.kernel.adopted->effectiveDomains(machine_.now());
  EXPECT_EQ(blocked, active != nullptr ? active->scope : core::DomainSet())
      << "the filter has another Scope";
  EXPECT_FALSE(durableIsHidden_) << "a checkpoint that could not be read for a while was buried";
}

// ---- what others are told

void Promises::Order::tell(const ipc::DaemonStatus& status) {
  const auto* const now = status.active();
  const auto* const before = last_ ? last_->active() : nullptr;
  if (before != nullptr && (now == nullptr || now->activatedAt != before->activatedAt)) {
    ended_.push_back(before->activatedAt);
  }
  if (now != nullptr) {
    EXPECT_EQ(std::ranges::find(ended_, now->activatedAt), ended_.end())
        << "a Commitment that was over is told again";
    if (before != nullptr && now->activatedAt == before->activatedAt) {
      EXPECT_GE(now->scopeGeneration, before->scopeGeneration) << "told out of order";
    }
  }
  last_ = status;
}

void Promises::compareTold(const ipc::DaemonStatus& told, const ipc::DaemonStatus& present,
                           const char* whom) {
  SCOPED_TRACE(whom);
  const auto* const toldOf = told.active();
  const auto* const active = present.active();
  ASSERT_EQ(toldOf != nullptr, active != nullptr) << "the last status told is not the present one";
  if (active != nullptr) {
    EXPECT_EQ(toldOf->activatedAt, active->activatedAt);
    EXPECT_EQ(toldOf->scopeGeneration, active->scopeGeneration);
    EXPECT_EQ(toldOf->scope, active->scope);
    EXPECT_EQ(toldOf->health, active->health);
  } else {
    EXPECT_EQ(expiryIn(told), expiryIn(present));
  }
  EXPECT_EQ(told.enforcement, present.enforcement);
  EXPECT_EQ(told.readiness.filterConfigurationIsEnabled,
            present.readiness.filterConfigurationIsEnabled);
}

}  // namespace stillow::simulation
