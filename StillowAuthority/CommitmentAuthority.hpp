#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <optional>

#include "StillowAuthority/CommitmentAuthorityMachine.hpp"
#include "StillowAuthority/DurableCommitmentStore.hpp"
#include "StillowAuthority/SupervisionRoles.hpp"
#include "StillowConcurrency/BlockingExecutor.hpp"
#include "StillowConcurrency/Strand.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowConcurrency/Turn.hpp"
#include "StillowCore/Date.hpp"
#include "StillowCore/UUID.hpp"
#include "StillowIPC/DaemonError.hpp"
#include "StillowIPC/DaemonStatus.hpp"
#include "StillowIPC/Requests.hpp"

namespace stillow::authority {

/// Whether charged running time is written to disk at once.
enum class RunningTimeRecording : std::uint8_t { inMemory, durable };

/// The single owner of the Commitment: applies the machine's rules, writes checkpoints, tells observers.
///
/// A rule, its save, the new last checkpoint and the telling of the observers are one unit (a "turn")
/// that no other operation enters; turns come in order of arrival. All operations may be called from
/// any executor. A failed save does not fail the operation: the change holds in memory, the fault
/// reporter hears of it and the next write tries again.
class CommitmentAuthority final : public ValidationRecording,
                                  public std::enable_shared_from_this<CommitmentAuthority> {
 public:
  /// One status, shared by everybody it goes to.
  using StatusPointer = std::shared_ptr<const ipc::DaemonStatus>;
  using StatusResult = std::expected<ipc::DaemonStatus, ipc::DaemonError>;
  /// Awaited inside the turn that made the status, so statuses reach every observer in order. It must
  /// not call the authority, which would wait for itself, and should be quick.
  using Observer = std::function<concurrency::Task<void>(StatusPointer)>;

  /// Recovers the state from disk before it returns.
  static std::shared_ptr<CommitmentAuthority> make(
      concurrency::Executor executor, std::shared_ptr<concurrency::BlockingExecutor> blocking,
      DurableCommitmentStore durableState, core::WallClock clock);

  concurrency::Task<ipc::DaemonStatus> status();
  /// Judges the freshness of the last validation once more, in the turn that activates.
  concurrency::Task<StatusResult> activate(ipc::ActivationRequest request);
  concurrency::Task<StatusResult> strengthen(ipc::ScopeAddition addition);
  concurrency::Task<StatusResult> extend(core::ProjectedEndTime newEndTime);
  concurrency::Task<ipc::DaemonStatus> acknowledgeExpiry();

  concurrency::Task<ipc::DaemonStatus> recordEnforcement(core::EnforcementHealthStatus enforcement);
  concurrency::Task<void> record(core::EnforcementValidation validation,
                                 core::Date obtainedAt) override;
  /// Tells nobody. With `publishing` the resulting status goes to all observers in the same turn.
  concurrency::Task<ipc::DaemonStatus> recordFilterConfiguration(bool isEnabled, bool publishing);
  concurrency::Task<ipc::DaemonStatus> recordRunningTime(double seconds,
                                                         RunningTimeRecording recording);
  concurrency::Task<ipc::DaemonStatus> publishStatus();

  /// None: the last validation is fresh enough for an activation now.
  concurrency::Task<std::optional<ipc::ActivationValidationRefusal>> activationRefusal();

  struct Subscription {
    core::UUID token;
    StatusPointer status;  ///< of the turn that registered the observer
  };
  concurrency::Task<Subscription> subscribe(Observer observer);
  concurrency::Task<void> unsubscribe(core::UUID token);
  concurrency::Task<void> setFaultReporter(std::weak_ptr<EnforcementFaultReporting> faults);

  /// Runs `body` inside a turn, with the status as of then, so that what it publishes is in order with
  /// what observers publish. `body` obeys the rule for observers.
  template <class T>
  concurrency::Task<T> inTurn(std::function<concurrency::Task<T>(StatusPointer)> body);

  /// How the state at start was obtained; refreshed after successful writes.
  concurrency::Task<CommitmentStateRecovery::Source> recoverySource();
  /// Tries to stand on a sound current checkpoint again: adopts it if it has become readable and no
  /// client changed the state since the start, else writes the present state afresh. True: it does.
  concurrency::Task<bool> retryRecovery();

 private:
  // Written by the owner of this class.
};

}  // namespace stillow::authority
