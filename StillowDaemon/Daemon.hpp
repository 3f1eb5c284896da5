#pragma once

#include <chrono>
#include <expected>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "StillowAuthority/CommitmentAuthority.hpp"
#include "StillowAuthority/CommitmentClock.hpp"
#include "StillowAuthority/DaemonXPCService.hpp"
#include "StillowAuthority/DiagnosticConnecting.hpp"
#include "StillowAuthority/EnforcementHealthCoordinator.hpp"
#include "StillowAuthority/EnforcementValidator.hpp"
#include "StillowAuthority/FilterArmingCoordinator.hpp"
#include "StillowAuthority/FilterConfiguring.hpp"
#include "StillowAuthority/FilterPathObserving.hpp"
#include "StillowAuthority/FilterPathSupervisor.hpp"
#include "StillowAuthority/MonotonicTimeSource.hpp"
#include "StillowAuthority/NetworkPathObserving.hpp"
#include "StillowAuthority/ProjectionInvalidationSource.hpp"
#include "StillowAuthority/RecoveryBackoff.hpp"
#include "StillowAuthority/UserInterfacePresence.hpp"
#include "StillowConcurrency/BlockingExecutor.hpp"
#include "StillowConcurrency/OneShot.hpp"
#include "StillowConcurrency/Sleeper.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowFiltering/EnforcementDirectiveStore.hpp"
#include "StillowIPC/CodeSigningRequirement.hpp"
#include "StillowIPC/DaemonConnection.hpp"

namespace stillow::daemon {

/// Takes one line for the log. Any thread.
using LogLine = std::function<void(std::string_view)>;

/// Every long-lived object of the daemon, built and linked in a fixed order. They live until the
/// process ends: there is no orderly shutdown, and none is needed, since what is on disk is always
/// sound.
class Daemon : public std::enable_shared_from_this<Daemon> {
 public:
  /// What the daemon takes from the system that it runs on.
  struct Adapters {
    concurrency::Executor executor;
    /// One thread, on which checkpoints and directives are written in turn.
    std::shared_ptr<concurrency::BlockingExecutor> storage;
    std::shared_ptr<concurrency::Sleeper> sleeper;
    core::WallClock wallClock;
    std::shared_ptr<const authority::MonotonicTimeSource> monotonic;
    std::shared_ptr<authority::ProjectionInvalidationSource> invalidations;
    std::shared_ptr<authority::FilterConfiguring> filterConfiguration;
    std::shared_ptr<authority::FilterPathObserving> filterPath;
    std::shared_ptr<authority::DiagnosticConnecting> connector;
    std::shared_ptr<authority::NetworkPathObserving> networkPaths;
    std::shared_ptr<filtering::EnforcementDirectivePublishing> directives;
    authority::DurableCommitmentStore checkpoints;
    std::shared_ptr<ipc::DaemonListening> listener;
    ipc::CodeSigningRequirement requirement;
    LogLine log;
  };

  static constexpr authority::CommitmentClock::Cadence cadence{
      .tickInterval = std::chrono::seconds(1),
      .checkpointInterval = 60.0,
      .sleepGapThreshold = 10.0,
      .wallClockJumpTolerance = 2.0};
  static constexpr authority::RecoveryBackoff backoff{5.0, 2.0, 300.0};
  static constexpr std::chrono::nanoseconds probeTimeout = std::chrono::seconds(5);
  static constexpr std::chrono::nanoseconds userInterfaceGrace = std::chrono::seconds(5);
  /// How long the first arming and health pass may keep the door closed. A slow or hung pass must
  /// not keep clients out for longer.
  static constexpr std::chrono::nanoseconds startUpGateMax = std::chrono::seconds(10);

  /// Builds everything but the door; the state is recovered from disk before this returns. Blocks.
  [[nodiscard]] static std::shared_ptr<Daemon> build(Adapters adapters);

  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  /// Starts the background work, waits for the first pass, at most `startUpGateMax`, and opens the
  /// door. The error, one sentence, means that nobody can connect; everything else goes on. Once.
  [[nodiscard]] concurrency::Task<std::expected<void, std::string>> start();

  [[nodiscard]] const std::shared_ptr<authority::CommitmentAuthority>& authority() const noexcept {
    return authority_;
  }

 private:
  explicit Daemon(Adapters adapters);

  static concurrency::Task<std::expected<void, std::string>> startUp(std::shared_ptr<Daemon> self);
  static concurrency::Task<void> superviseHealth(std::shared_ptr<Daemon> self,
                                                 concurrency::OneShot<bool> reporterIsSet);
  static concurrency::Task<void> startClock(std::shared_ptr<Daemon> self);
  static concurrency::Task<bool> firstPass(std::shared_ptr<Daemon> self,
                                           concurrency::OneShot<bool> reporterIsSet);

  Adapters adapters_;
  std::shared_ptr<authority::CommitmentAuthority> authority_;
  std::shared_ptr<authority::FilterArmingCoordinator> filterArming_;
  std::shared_ptr<authority::EnforcementValidator> validator_;
  std::shared_ptr<authority::EnforcementHealthCoordinator> health_;
  std::shared_ptr<authority::FilterPathSupervisor> filterPath_;
  std::shared_ptr<authority::CommitmentClock> clock_;
  std::shared_ptr<authority::UserInterfacePresence> presence_;
  std::shared_ptr<authority::DaemonXPCService> service_;
};

}  // namespace stillow::daemon
