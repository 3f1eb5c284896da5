#pragma once

#include <array>
#include <cstddef>
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
/// Every operation may be called from any thread and is one step. The lock has lanes: what a flow's
/// name alone decides takes that of its thread, so that threads do not wait for each other; what
/// the remembered pairs have a part in takes the lane of these; what changes the rules takes every
/// lane. None is held while a directive's names are being indexed. Stops the process where a
/// counter would overflow.
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

  /// Processors that write into one cache line take turns with it. Twice the usual size of one:
  /// some have lines of this size, some fetch two at a time.
  static constexpr std::size_t apartBytes = 128;
  static constexpr std::size_t laneCount = 8;

  struct alignas(apartBytes) Lane {
    std::mutex lock;
    // Of the flows that were judged by their names alone.
    std::int64_t flowsDropped = 0;
    std::int64_t flowsReleased = 0;
  };
  struct alignas(apartBytes) PairLane {
    explicit PairLane(NameAddressAssociations::Limits limits) : associations(limits) {}

    std::mutex lock;
    NameAddressAssociations associations;
    FilterCounters counters;  ///< without what the other lanes have counted
  };
  /// Holds every lane.
  class WholeLock;

  [[nodiscard]] Lane& laneOfThisThread() const noexcept;
  /// Calls `judge` in a lane, or under the whole lock if a probe has ended, which `dropEndedProbe`
  /// then drops.
  template <class Judge>
  auto inLane(core::Date now, Judge judge);
  template <class Judge>
  auto inPairLane(core::Date now, Judge judge);

  [[nodiscard]] FlowClassification classifyInPairLane(const FlowEvidence& evidence, core::Date now);

  // Under any lane.
  [[nodiscard]] bool hasProbeEnded(core::Date now) const noexcept;
  [[nodiscard]] bool matches(std::string_view hostname) const;
  // Under the lane of the pairs.
  [[nodiscard]] FlowClassification decide(const FlowEvidence& evidence, core::Date now) const;
  // Within `judge`.
  void dropEndedProbe(core::Date now) noexcept;
  // Under the whole lock.
  void forgetPairs() noexcept;

  std::shared_ptr<const ScopeIndex> scope_;
  std::unique_ptr<HeldProbe> probe_;
  mutable std::array<Lane, laneCount> lanes_;
  mutable PairLane pairs_;
};

}  // namespace stillow::filtering
