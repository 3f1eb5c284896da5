#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "StillowAuthority/CommitmentAuthority.hpp"
#include "StillowAuthority/FilterConfiguring.hpp"
#include "StillowAuthority/SupervisionRoles.hpp"
#include "StillowConcurrency/BlockingExecutor.hpp"
#include "StillowConcurrency/OneShot.hpp"
#include "StillowConcurrency/Strand.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowCore/Date.hpp"
#include "StillowCore/Scope.hpp"
#include "StillowCore/UUID.hpp"
#include "StillowFiltering/EnforcementDirective.hpp"
#include "StillowFiltering/EnforcementDirectiveStore.hpp"

namespace stillow::authority {

/// Keeps the system's filter configuration and the filter's directive in step with the authority.
///
/// Directives: every one is made from a status inside the authority's turn that made that status,
/// so an older directive can never replace a newer one. What failed to be written is written again
/// with the next status that is told.
///
/// Configuration: one loop applies what the policy wants; requests that come while it runs lead to
/// one further pass. What was applied is believed only as long as a read-back agrees. A failed pass
/// does not ask for its own successor, neither directly nor through the faults and statuses that it
/// causes: it is repeated at the next request from outside, and health's back-off makes those.
///
/// All operations may be called from any executor, but not from inside a turn of the authority.
class FilterArmingCoordinator final : public FilterArmingReapplying,
                                      public ValidationProbeLending,
                                      public FilterPathReporting,
                                      public UserInterfacePresenceReporting,
                                      public std::enable_shared_from_this<FilterArmingCoordinator> {
 public:
  enum class PublishOutcome : std::uint8_t {
    unchanged,  ///< the filter has this already; nothing was written
    published,
    failed,  ///< the filter has the directive before this one, or this one: nobody knows
  };

  /// What the filter was last given. Any thread.
  class DeliveredScope {
   public:
    [[nodiscard]] std::optional<filtering::ValidationProbe> lentProbe() const;
    void lend(filtering::ValidationProbe probe);
    /// Takes the probe back; false if none was lent.
    bool reclaim();

    /// Whether `directive` has to be written. When it was published does not count.
    [[nodiscard]] bool differs(const filtering::EnforcementDirective& directive) const;
    void noteDelivered(const filtering::EnforcementDirective& directive);
    /// From now on everything differs: a write that failed may still have replaced the file.
    void noteFailure();
    [[nodiscard]] bool hasUnpublishedDirective() const;

   private:
    mutable std::mutex lock_;
    std::optional<core::Scope> scope_;
    std::optional<filtering::ValidationProbe> probe_;
    bool hasDelivered_ = false;
    std::optional<filtering::ValidationProbe> lentProbe_;
    bool hasUnpublishedDirective_ = false;
  };

  /// Takes one sentence for the log, from any thread: the errors behind the faults.
  using ErrorLog = std::function<void(const std::string&)>;

  struct Collaborators {
    std::shared_ptr<CommitmentAuthority> authority;
    std::shared_ptr<FilterConfiguring> configuration;
    std::shared_ptr<filtering::EnforcementDirectivePublishing> directives;
    std::shared_ptr<concurrency::BlockingExecutor> blocking;  ///< where directives are written
    core::WallClock clock;                                    ///< stamps directives
    ErrorLog errorLog = {};
  };

  [[nodiscard]] static std::shared_ptr<FilterArmingCoordinator> make(
      const concurrency::Executor& executor, Collaborators collaborators);
  FilterArmingCoordinator(const FilterArmingCoordinator&) = delete;
  FilterArmingCoordinator& operator=(const FilterArmingCoordinator&) = delete;
  ~FilterArmingCoordinator() override = default;

  /// Who hears of faults from now on; nobody before. Does not keep the reporter alive.
  [[nodiscard]] concurrency::Task<void> setFaults(std::weak_ptr<EnforcementFaultReporting> faults);

  /// Follows the authority from now on and publishes the present directive; a second call does
  /// nothing. Applies nothing: that is `reapply`.
  [[nodiscard]] concurrency::Task<void> start();
  [[nodiscard]] concurrency::Task<void> stop();

  /// Returns at once while a pass is under way: the loop makes one more.
  [[nodiscard]] concurrency::Task<void> reapply() override;

  /// When it returns true, the loop has made a pass that began with the probe lent.
  [[nodiscard]] concurrency::Task<bool> lend(filtering::ValidationProbe probe) override;
  [[nodiscard]] concurrency::Task<void> reclaim() override;

  /// Finds lost rules: where the system is not armed although it was, that is reported, the loop
  /// runs once more, and the answer is what the system says after that.
  [[nodiscard]] concurrency::Task<FilterPathReadiness> readiness() override;

  [[nodiscard]] concurrency::Task<void> setUserInterfaceRunning(bool isRunning) override;

  /// The state last applied and not known to be lost; none forces the next pass to apply.
  [[nodiscard]] concurrency::Task<std::optional<FilterArmingState>> appliedState();
  /// Whether the last directive could not be written. Any thread.
  [[nodiscard]] bool hasUnpublishedDirective() const {
    return delivered_.hasUnpublishedDirective();
  }

 private:
  using Self = std::shared_ptr<FilterArmingCoordinator>;
  using WeakSelf = std::weak_ptr<FilterArmingCoordinator>;
  using StatusPointer = CommitmentAuthority::StatusPointer;

  /// Whether a pass may apply again what failed before. Not so when the request is itself an
  /// outcome of a failure: then the loop would go round without end.
  enum class AfterFailure : std::uint8_t { wait, retry };
  class PassEnd;
  class LoopEnd;

  FilterArmingCoordinator(const concurrency::Executor& executor, Collaborators collaborators);

  // Static, so that whoever waits for one keeps the coordinator alive.
  static concurrency::Task<void> replaceFaults(Self self,
                                               std::weak_ptr<EnforcementFaultReporting> faults);
  static concurrency::Task<void> begin(Self self);
  static concurrency::Task<void> end(Self self);
  static concurrency::Task<bool> lendProbe(Self self, filtering::ValidationProbe probe);
  static concurrency::Task<void> reclaimProbe(Self self);
  static concurrency::Task<FilterPathReadiness> readBack(Self self);
  static concurrency::Task<void> noteUserInterface(Self self, bool isRunning);
  static concurrency::Task<std::optional<FilterArmingState>> answerAppliedState(Self self);

  static concurrency::Task<void> runApplyLoop(Self self, AfterFailure afterFailure);
  /// Like `runApplyLoop`, but returns only after a pass that began after the call.
  static concurrency::Task<void> applyNow(Self self);
  static concurrency::Task<void> pass(Self self, AfterFailure afterFailure);

  // Inside a turn of the authority.
  static concurrency::Task<void> observe(WeakSelf weak, StatusPointer status);
  static concurrency::Task<PublishOutcome> publish(Self self, StatusPointer status);

  static concurrency::Task<PublishOutcome> publishCurrent(Self self);
  static concurrency::Task<void> followUp(WeakSelf weak, PublishOutcome outcome);
  static concurrency::Task<void> report(Self self, core::DegradedReason reason);
  static concurrency::Task<std::optional<FilterPathReadiness>> askSystem(Self self);
  void log(const std::string& sentence) const;

  concurrency::Strand serial_;
  const Collaborators with_;
  DeliveredScope delivered_;

  // Touched on the strand only.
  std::weak_ptr<EnforcementFaultReporting> faults_;
  bool userInterfaceIsRunning_ = false;
  std::optional<FilterArmingState> appliedState_;
  std::optional<FilterArmingState> failedState_;  // of the last pass, if it failed
  bool isStarted_ = false;
  std::optional<core::UUID> observerToken_;
  bool isApplying_ = false;
  bool applyIsPending_ = false;
  bool pendingMayRetry_ = false;
  std::int64_t applications_ = 0;  // system changes begun
  std::vector<concurrency::OneShot<bool>> awaitingPass_;
};

}  // namespace stillow::authority
