#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "StillowAuthority/CommitmentAuthority.hpp"
#include "StillowAuthority/EnforcementHealthMachine.hpp"
#include "StillowAuthority/NetworkPathObserving.hpp"
#include "StillowAuthority/RecoveryBackoff.hpp"
#include "StillowAuthority/SupervisionRoles.hpp"
#include "StillowConcurrency/Channel.hpp"
#include "StillowConcurrency/Sleeper.hpp"
#include "StillowConcurrency/Strand.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowConcurrency/Turn.hpp"

namespace stillow::authority {

/// Owns enforcement health: hears of faults, has enforcement verified when the network changes,
/// tells the authority, and while degraded tries to recover, at growing intervals.
///
/// A test takes time, and a fault may come in meanwhile. Every change of the machine raises an
/// epoch, and a success that began in an earlier epoch is discarded.
///
/// All operations may be called from any executor, but not from inside a turn of the authority.
class EnforcementHealthCoordinator final
    : public EnforcementFaultReporting,
      public EnforcementRecoveryExpediting,
      public std::enable_shared_from_this<EnforcementHealthCoordinator> {
 public:
  /// Called on the coordinator's own strand; must be quick and must not call back.
  using EventHandler = std::function<void(EnforcementHealthEvent)>;

  struct Collaborators {
    std::shared_ptr<CommitmentAuthority> authority;
    std::shared_ptr<EnforcementVerifying> verifier;
    std::shared_ptr<NetworkPathObserving> paths;
    std::shared_ptr<concurrency::Sleeper> sleeper;  ///< the naps between attempts
    RecoveryBackoff backoff = {};
    EventHandler onEvent = {};
  };

  [[nodiscard]] static std::shared_ptr<EnforcementHealthCoordinator> make(
      const concurrency::Executor& executor, Collaborators collaborators);
  EnforcementHealthCoordinator(const EnforcementHealthCoordinator&) = delete;
  EnforcementHealthCoordinator& operator=(const EnforcementHealthCoordinator&) = delete;
  ~EnforcementHealthCoordinator() override;

  /// Once, after the authority has recovered its state: takes over how that went.
  [[nodiscard]] concurrency::Task<void> reconcileWithRecovery();

  /// Begins to follow the network; nothing happens if it has begun.
  [[nodiscard]] concurrency::Task<void> start();
  /// Ends following the network and trying to recover. What a test under way finds no longer
  /// counts.
  [[nodiscard]] concurrency::Task<void> stop();

  [[nodiscard]] concurrency::Task<void> reportFault(core::DegradedReason reason) override;
  [[nodiscard]] concurrency::Task<void> expediteRecovery() override;

 private:
  using Self = std::shared_ptr<EnforcementHealthCoordinator>;
  using WeakSelf = std::weak_ptr<EnforcementHealthCoordinator>;
  using PathChannel = concurrency::Channel<NetworkPathSnapshot>;

  /// One run of the recovery loop.
  struct Recovery {
    concurrency::Cancellation task;
    concurrency::Cancellation nap;  ///< of the present nap; cancelled alone, the loop starts anew
    std::int64_t attempt = 1;
    bool isNapping = false;
  };
  enum class Attempt : std::uint8_t { finished, failed };

  EnforcementHealthCoordinator(const concurrency::Executor& executor, Collaborators collaborators);

  // Static, so that whoever waits for one keeps the coordinator alive.
  static concurrency::Task<void> reconcile(Self self);
  static concurrency::Task<void> begin(Self self);
  static concurrency::Task<void> end(Self self);
  static concurrency::Task<void> expedite(Self self);
  static concurrency::Task<void> degrade(Self self, core::DegradedReason reason);

  static concurrency::Task<void> change(Self self, EnforcementVerification verification);
  static concurrency::Task<void> applyVerdict(Self self, EnforcementVerification verdict,
                                              std::int64_t epochBefore);
  static concurrency::Task<void> publish(Self self);
  static concurrency::Task<EnforcementVerification> verify(Self self, ipc::DaemonStatus status);

  // Loops. They own nothing between two rounds.
  static concurrency::Task<void> followPaths(WeakSelf weak, PathChannel channel);
  static concurrency::Task<void> handlePath(Self self, NetworkPathSnapshot snapshot,
                                            PathChannel channel);
  void startRecovery();
  static concurrency::Task<void> recover(WeakSelf weak, std::shared_ptr<Recovery> recovery,
                                         std::shared_ptr<concurrency::Sleeper> sleeper,
                                         RecoveryBackoff backoff);
  static concurrency::Task<Attempt> attemptRecovery(Self self, std::shared_ptr<Recovery> recovery);

  concurrency::Strand serial_;
  concurrency::Turn publishing_;
  const Collaborators with_;

  // Touched on the strand only.
  EnforcementHealthMachine machine_;
  std::optional<NetworkPathSnapshot> lastPath_;
  std::optional<PathChannel> pathChannel_;
  std::shared_ptr<Recovery> recovery_;
  std::int64_t verdictEpoch_ = 0;
};

}  // namespace stillow::authority
