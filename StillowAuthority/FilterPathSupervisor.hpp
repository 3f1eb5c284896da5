#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>

#include "StillowAuthority/FilterPathObserving.hpp"
#include "StillowAuthority/SupervisionRoles.hpp"
#include "StillowConcurrency/Cancellation.hpp"
#include "StillowConcurrency/Channel.hpp"
#include "StillowConcurrency/Sleeper.hpp"
#include "StillowConcurrency/Strand.hpp"
#include "StillowConcurrency/Task.hpp"

namespace stillow::authority {

/// Notices that the filter is gone, is not ours, or has come back, and that its rules were touched.
///
/// An observation only says that it is time to look; what counts is the system's own answer. A
/// filter that is absent or a stranger is the fault `failedOpen`. Lost rules are found, reported
/// and put back by whoever answers for the path. When the filter has come back the configuration is
/// applied again and health is asked not to wait any longer.
///
/// Looks are at least `pause` apart, however often something happens, and nothing is asked while
/// nothing happens.
class FilterPathSupervisor final : public std::enable_shared_from_this<FilterPathSupervisor> {
 public:
  struct Collaborators {
    std::shared_ptr<FilterPathReporting> path;
    std::shared_ptr<FilterArmingReapplying> arming;
    std::shared_ptr<EnforcementFaultReporting> faults;
    std::shared_ptr<EnforcementRecoveryExpediting> recovery;
    std::shared_ptr<FilterPathObserving> observer;
    std::shared_ptr<concurrency::Sleeper> sleeper;
    std::chrono::nanoseconds pause = std::chrono::seconds(1);
    /// How often to look again, unasked, after the filter ended or gave a sign of starting: it
    /// takes a moment from there until it is ready.
    int looksAfterBeginning = 3;
  };

  [[nodiscard]] static std::shared_ptr<FilterPathSupervisor> make(
      const concurrency::Executor& executor, Collaborators collaborators);
  FilterPathSupervisor(const FilterPathSupervisor&) = delete;
  FilterPathSupervisor& operator=(const FilterPathSupervisor&) = delete;
  ~FilterPathSupervisor();

  /// Looks once before it returns, so that a filter that is absent from the start is reported by
  /// then; afterwards follows the observations. Once.
  [[nodiscard]] concurrency::Task<void> start();
  [[nodiscard]] concurrency::Task<void> stop();

 private:
  using Self = std::shared_ptr<FilterPathSupervisor>;
  using WeakSelf = std::weak_ptr<FilterPathSupervisor>;
  using ObservationChannel = concurrency::Channel<FilterPathObservation>;

  FilterPathSupervisor(const concurrency::Executor& executor, Collaborators collaborators);

  static concurrency::Task<void> begin(Self self);
  static concurrency::Task<void> end(Self self);
  static concurrency::Task<void> follow(WeakSelf weak, ObservationChannel channel,
                                        std::shared_ptr<concurrency::Sleeper> sleeper,
                                        std::chrono::nanoseconds pause,
                                        concurrency::Cancellation cancellation, bool looksAgain);
  /// True if it should look again soon, without a further observation.
  static concurrency::Task<bool> look(Self self, std::optional<FilterPathObservation> observation);

  concurrency::Strand serial_;
  const Collaborators with_;

  // Touched on the strand only.
  std::optional<ObservationChannel> channel_;
  concurrency::Cancellation cancellation_;
  FilterPathObservation last_;
  bool isPresent_ = true;
  int looksLeft_ = 0;
};

}  // namespace stillow::authority
