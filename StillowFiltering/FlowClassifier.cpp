#include "StillowFiltering/FlowClassifier.hpp"

#include <utility>

#include "StillowCore/DomainMatcher.hpp"
#include "StillowCore/DomainSet.hpp"

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

namespace {

using Disposition = FlowDisposition;

core::DomainSet scopeDomains(const std::optional<EnforcementDirective>& directive) {
  return directive && directive->scope ? directive->scope->domains : core::DomainSet();
}

}  // namespace

FlowClassifier::FlowClassifier(const std::optional<EnforcementDirective>& directive, core::Date now,
                               NameAddressAssociations::Limits limits)
    : scope_(std::make_shared<const ScopeIndex>(core::DomainSet())), associations_(limits) {
  adopt(directive, now);
}

FlowClassifier::~FlowClassifier() = default;

void FlowClassifier::adopt(const std::optional<EnforcementDirective>& directive, core::Date now) {
  std::shared_ptr<const ScopeIndex> scope;
  {
    const std::scoped_lock guard(lock_);
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

  const std::scoped_lock guard(lock_);
  scope_.swap(scope);
  probe_.swap(probe);
  counters_.scopeGeneration = directive && directive->scope ? directive->scope->generation : 0;
  updateIsEnforcing(now);
}

FlowClassification FlowClassifier::classify(const FlowEvidence& evidence, core::Date now) {
  const std::scoped_lock guard(lock_);
  if (evidence.remoteHostname && evidence.remoteAddress) {
    associations_.record(*evidence.remoteHostname, *evidence.remoteAddress, now);
    counters_.countAssociation(associations_.count());
  }
  const FlowClassification classification = decide(evidence, now);
  counters_.countClassified(classification);
  return classification;
}

FlowClassification FlowClassifier::reclassify(const FlowEvidence& evidence,
                                              std::int64_t inspectedByteCount, core::Date now) {
  const std::scoped_lock guard(lock_);
  FlowClassification classification = decide(evidence, now);
  if (core::is<Disposition::allowUnderInspection>(classification.disposition)) {
    if (inspectedByteCount < EvidenceBoundedPolicy::inspectionBytesMax) return classification;
    classification.disposition = Disposition::allowAndRelease{};
  }
  counters_.countEndOfInspection(classification.disposition);
  return classification;
}

bool FlowClassifier::blocks(std::string_view hostname, core::Date now) {
  const std::scoped_lock guard(lock_);
  dropExpiredProbe(now);
  return matches(hostname);
}

FilterCounters FlowClassifier::counters() const {
  const std::scoped_lock guard(lock_);
  return counters_;
}

void FlowClassifier::dropExpiredProbe(core::Date now) {
  if (!probe_) return;
  if (!probe_->isLive(now)) probe_.reset();
  updateIsEnforcing(now);
}

void FlowClassifier::updateIsEnforcing(core::Date now) {
  isEnforcing_ = !scope_->domains.empty() || (probe_ && probe_->isLive(now));
  if (isEnforcing_) return;
  associations_.removeAll();
  counters_.associatedAddressCount = 0;
}

bool FlowClassifier::matches(std::string_view hostname) const {
  return scope_->matcher.matches(hostname) || (probe_ && probe_->matcher.matches(hostname));
}

FlowClassification FlowClassifier::decide(const FlowEvidence& evidence, core::Date now) {
  dropExpiredProbe(now);
  if (evidence.remoteHostname) {
    if (matches(*evidence.remoteHostname)) return {FlowAttribution::scoped, Disposition::drop{}};
    return {FlowAttribution::unscoped, Disposition::allowAndRelease{}};
  }
  bool hasBlockedName = false;
  bool hasOtherName = false;
  if (evidence.remoteAddress) {
    associations_.visitNames(*evidence.remoteAddress, now, [&](std::string_view name) {
      (matches(name) ? hasBlockedName : hasOtherName) = true;
    });
  }
  if (hasBlockedName && hasOtherName) {
    return {FlowAttribution::ambiguous, Disposition::allowAndRelease{}};
  }
  if (hasBlockedName) return {FlowAttribution::scoped, Disposition::drop{}};
  if (hasOtherName) return {FlowAttribution::unscoped, Disposition::allowAndRelease{}};
  if (!isEnforcing_) return {FlowAttribution::unattributed, Disposition::allowAndRelease{}};
  return {FlowAttribution::unattributed,
          Disposition::allowUnderInspection{EvidenceBoundedPolicy::inspectionBytesMax}};
}

}  // namespace stillow::filtering
