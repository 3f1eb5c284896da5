#include "StillowFiltering/FlowClassifier.hpp"

#include <atomic>
#include <bit>
#include <utility>

#include "StillowCore/DomainMatcher.hpp"
#include "StillowCore/DomainSet.hpp"
#include "StillowCore/Invariant.hpp"

namespace stillow::filtering {

struct FlowClassifier::ScopeIndex {
  explicit ScopeIndex(core::DomainSet blocked) : domains(std::move(blocked)), matcher(domains) {}

  core::DomainSet domains;
  core::DomainMatcher matcher;
};

struct FlowClassifier::HeldProbe {
  explicit HeldProbe(const ValidationProbe& probe)
      : expiresAt(probe.expiresAt), matcher(core::DomainSet::of({probe.domain})) {}

  /// Written so that a date that is not a number ends the probe too.
  [[nodiscard]] bool isLive(core::Date now) const noexcept { return now < expiresAt; }

  core::Date expiresAt;
  core::DomainMatcher matcher;
};

class FlowClassifier::WholeLock {
 public:
  explicit WholeLock(const FlowClassifier& classifier) : classifier_(classifier) {
    for (Lane& lane : classifier_.lanes_) lane.lock.lock();
    classifier_.pairs_.lock.lock();
  }
  ~WholeLock() {
    classifier_.pairs_.lock.unlock();
    for (Lane& lane : classifier_.lanes_) lane.lock.unlock();
  }
  WholeLock(const WholeLock&) = delete;
  WholeLock& operator=(const WholeLock&) = delete;

 private:
  const FlowClassifier& classifier_;
};

namespace {

using Disposition = FlowDisposition;

core::DomainSet scopeDomains(const std::optional<EnforcementDirective>& directive) {
  return directive && directive->scope ? directive->scope->domains : core::DomainSet();
}

FlowClassification byName(bool isBlocked) {
  if (isBlocked) return {FlowAttribution::scoped, Disposition::drop{}};
  return {FlowAttribution::unscoped, Disposition::allowAndRelease{}};
}

/// The lowest number that no other living thread has, so that few threads never share a lane
/// however many there were before. Beyond 64 threads at once some have the same one.
class LaneNumber {
 public:
  LaneNumber() noexcept {
    std::uint64_t before = taken_.load(std::memory_order_relaxed);
    do {
      bit_ = ~before & (before + 1);
    } while (!taken_.compare_exchange_weak(before, before | bit_, std::memory_order_relaxed));
    value_ = static_cast<std::size_t>(std::countr_zero(bit_));
  }
  ~LaneNumber() { taken_.fetch_and(~bit_, std::memory_order_relaxed); }
  LaneNumber(const LaneNumber&) = delete;
  LaneNumber& operator=(const LaneNumber&) = delete;

  [[nodiscard]] std::size_t value() const noexcept { return value_; }

 private:
  static inline std::atomic<std::uint64_t> taken_{0};
  std::uint64_t bit_ = 0;
  std::size_t value_ = 0;
};

void add(std::int64_t& counter, std::int64_t count) {
  core::require(counter <= INT64_MAX - count, "counter overflow");
  counter += count;
}

}  // namespace

FlowClassifier::FlowClassifier(const std::optional<EnforcementDirective>& directive, core::Date now,
                               NameAddressAssociations::Limits limits)
    : scope_(std::make_shared<const ScopeIndex>(core::DomainSet())), pairs_(limits) {
  adopt(directive, now);
}

FlowClassifier::~FlowClassifier() = default;

void FlowClassifier::adopt(const std::optional<EnforcementDirective>& directive, core::Date now) {
  std::shared_ptr<const ScopeIndex> scope;
  {
    const std::scoped_lock guard(laneOfThisThread().lock);
    scope = scope_;
  }
  // Indexing a large Scope takes long, and so does freeing the index of the one before.
  if (auto domains = scopeDomains(directive); scope->domains != domains) {
    scope = std::make_shared<const ScopeIndex>(std::move(domains));
  }
  std::unique_ptr<HeldProbe> probe;
  if (directive && directive->validation) {
    probe = std::make_unique<HeldProbe>(*directive->validation);
  }

  const WholeLock guard(*this);
  scope_.swap(scope);
  probe_.swap(probe);
  pairs_.counters.scopeGeneration =
      directive && directive->scope ? directive->scope->generation : 0;
  const bool isEnforcing = !scope_->domains.empty() || (probe_ && probe_->isLive(now));
  if (!isEnforcing) forgetPairs();
}

inline FlowClassifier::Lane& FlowClassifier::laneOfThisThread() const noexcept {
  thread_local const LaneNumber number;
  return lanes_[number.value() % laneCount];
}

inline bool FlowClassifier::hasProbeEnded(core::Date now) const noexcept {
  return probe_ && !probe_->isLive(now);
}

inline void FlowClassifier::dropEndedProbe(core::Date now) noexcept {
  if (!hasProbeEnded(now)) return;
  probe_.reset();
  if (scope_->domains.empty()) forgetPairs();
}

inline bool FlowClassifier::matches(std::string_view hostname) const {
  return scope_->matcher.matches(hostname) || (probe_ && probe_->matcher.matches(hostname));
}

template <class Judge>
auto FlowClassifier::inLane(core::Date now, Judge judge) {
  {
    Lane& lane = laneOfThisThread();
    const std::scoped_lock guard(lane.lock);
    if (!hasProbeEnded(now)) [[likely]]
      return judge(lane);
  }
  const WholeLock guard(*this);
  return judge(lanes_.front());
}

template <class Judge>
auto FlowClassifier::inPairLane(core::Date now, Judge judge) {
  {
    const std::scoped_lock guard(pairs_.lock);
    if (!hasProbeEnded(now)) [[likely]]
      return judge();
  }
  const WholeLock guard(*this);
  return judge();
}

FlowClassification FlowClassifier::classify(const FlowEvidence& evidence, core::Date now) {
  if (!evidence.remoteHostname || evidence.remoteAddress) return classifyInPairLane(evidence, now);
  return inLane(now, [&](Lane& lane) {
    dropEndedProbe(now);
    const bool isBlocked = matches(*evidence.remoteHostname);
    add(isBlocked ? lane.flowsDropped : lane.flowsReleased, 1);
    return byName(isBlocked);
  });
}

FlowClassification FlowClassifier::classifyInPairLane(const FlowEvidence& evidence,
                                                      core::Date now) {
  return inPairLane(now, [&] {
    if (evidence.remoteHostname) {
      pairs_.associations.record(*evidence.remoteHostname, *evidence.remoteAddress, now);
      pairs_.counters.countAssociation(pairs_.associations.count());
    }
    dropEndedProbe(now);
    const FlowClassification classification = decide(evidence, now);
    pairs_.counters.countClassified(classification);
    return classification;
  });
}

FlowClassification FlowClassifier::reclassify(const FlowEvidence& evidence,
                                              std::int64_t inspectedByteCount, core::Date now) {
  return inPairLane(now, [&] {
    dropEndedProbe(now);
    FlowClassification classification = decide(evidence, now);
    if (core::is<Disposition::allowUnderInspection>(classification.disposition)) {
      if (inspectedByteCount < EvidenceBoundedPolicy::inspectionBytesMax) return classification;
      classification.disposition = Disposition::allowAndRelease{};
    }
    pairs_.counters.countEndOfInspection(classification.disposition);
    return classification;
  });
}

bool FlowClassifier::blocks(std::string_view hostname, core::Date now) {
  return inLane(now, [&](Lane&) {
    dropEndedProbe(now);
    return matches(hostname);
  });
}

FilterCounters FlowClassifier::counters() const {
  const WholeLock guard(*this);
  FilterCounters counters = pairs_.counters;
  for (const Lane& lane : lanes_) {
    add(counters.flowsDropped, lane.flowsDropped);
    add(counters.flowsReleased, lane.flowsReleased);
    add(counters.flowsClassified, lane.flowsDropped);
    add(counters.flowsClassified, lane.flowsReleased);
  }
  return counters;
}

void FlowClassifier::forgetPairs() noexcept {
  pairs_.associations.removeAll();
  pairs_.counters.associatedAddressCount = 0;
}

FlowClassification FlowClassifier::decide(const FlowEvidence& evidence, core::Date now) const {
  if (evidence.remoteHostname) return byName(matches(*evidence.remoteHostname));
  bool hasBlockedName = false;
  bool hasOtherName = false;
  if (evidence.remoteAddress) {
    pairs_.associations.visitNames(*evidence.remoteAddress, now, [&](std::string_view name) {
      (matches(name) ? hasBlockedName : hasOtherName) = true;
    });
  }
  if (hasBlockedName && hasOtherName) {
    return {FlowAttribution::ambiguous, Disposition::allowAndRelease{}};
  }
  if (hasBlockedName || hasOtherName) return byName(hasBlockedName);
  // A probe that is held is live.
  const bool isEnforcing = !scope_->domains.empty() || probe_ != nullptr;
  if (!isEnforcing) return {FlowAttribution::unattributed, Disposition::allowAndRelease{}};
  return {FlowAttribution::unattributed,
          Disposition::allowUnderInspection{EvidenceBoundedPolicy::inspectionBytesMax}};
}

}  // namespace stillow::filtering
