#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>

#include "StillowCore/Date.hpp"
#include "StillowFiltering/EnforcementDirective.hpp"
#include "StillowFiltering/FilterCounters.hpp"
#include "StillowFiltering/FlowClassification.hpp"
#include "StillowFiltering/FlowEvidence.hpp"
#include "StillowFiltering/NameAddressAssociations.hpp"

namespace stillow::filtering {

/// Decides for each flow whether it is dropped, released or looked at further.
///
/// A name on the flow decides alone. Without one the names lately seen at its address decide, and
/// only if they agree: a missed block is better than a wrong drop. Without either the flow is
/// looked at for EvidenceBoundedPolicy::inspectionBytesMax bytes while anything is blocked, then
/// released.
///
/// Every operation may be called from any thread. Each is one step under one lock, which is never
/// held while a directive's names are being indexed. Stops the process where a counter would
/// overflow.
class FlowClassifier {
 public:
  FlowClassifier(const std::optional<EnforcementDirective>& directive, core::Date now,
                 NameAddressAssociations::Limits limits);
  ~FlowClassifier();

  /// Judges a new flow and counts it. If it shows both name and address, the pair is remembered
  /// first. Allocates nothing for a flow with a name whose pair with the address is already on
  /// record.
  [[nodiscard]] FlowClassification classify(const FlowEvidence& evidence, core::Date now);

  /// Judges a flow that `classify` left under inspection again, `inspectedByteCount` bytes into it.
  /// With inspectionBytesMax bytes or more the answer is never inspection: a caller that knows no
  /// name can follow passes that number. Remembers no pair.
  [[nodiscard]] FlowClassification reclassify(const FlowEvidence& evidence,
                                              std::int64_t inspectedByteCount, core::Date now);

  /// Whether a flow to `hostname` would be dropped now. Counts and remembers nothing.
  [[nodiscard]] bool blocks(std::string_view hostname, core::Date now);

  /// Puts `directive` in force: every decision that begins after the return is made by it. Counters
  /// and remembered pairs stay; the latter go when nothing is blocked any more. If the domains are
  /// the same as before, their index is kept. Of two calls at once either may be the last.
  void adopt(const std::optional<EnforcementDirective>& directive, core::Date now);

  [[nodiscard]] FilterCounters counters() const;

 private:
  /// The blocked names with their index: shared, so that an adoption can look at it without the
  /// lock.
  struct ScopeIndex;
  /// A probe with an index of its own, so that lending one does not touch that of the Scope.
  struct HeldProbe;

  // The caller of these holds `lock_`.
  void dropExpiredProbe(core::Date now);
  /// Forgets the remembered pairs when nothing is blocked any more.
  void updateIsEnforcing(core::Date now);
  [[nodiscard]] bool matches(std::string_view hostname) const;
  [[nodiscard]] FlowClassification decide(const FlowEvidence& evidence, core::Date now);

  mutable std::mutex lock_;
  std::shared_ptr<const ScopeIndex> scope_;
  std::unique_ptr<HeldProbe> probe_;
  bool isEnforcing_ = false;
  NameAddressAssociations associations_;
  FilterCounters counters_;
};

}  // namespace stillow::filtering
