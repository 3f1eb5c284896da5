#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "StillowAuthority/CommitmentAuthorityMachine.hpp"
#include "StillowAuthority/DurableCommitmentStore.hpp"
#include "StillowAuthority/SupervisionRoles.hpp"
#include "StillowConcurrency/BlockingExecutor.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowConcurrency/Turn.hpp"
#include "StillowCore/Date.hpp"
#include "StillowCore/EnforcementHealth.hpp"
#include "StillowCore/ProjectedEndTime.hpp"
#include "StillowCore/UUID.hpp"
#include "StillowIPC/DaemonError.hpp"
#include "StillowIPC/DaemonStatus.hpp"
#include "StillowIPC/Requests.hpp"

namespace stillow::authority {

/// Whether charged running time is written to disk at once.
enum class RunningTimeRecording : std::uint8_t { inMemory, durable };

/// The single owner of the Commitment: applies the machine's rules, writes checkpoints, tells
/// observers.
///
/// A rule, its save, the new last checkpoint and the telling of the observers are one unit (a
/// "turn") that no other operation enters; turns come in order of arrival. All operations may be
/// called from any executor. A failed save does not fail the operation: the change holds in memory,
/// the fault reporter hears of it and the next write tries again.
class CommitmentAuthority final : public ValidationRecording,
                                  public std::enable_shared_from_this<CommitmentAuthority> {
 public:
  /// One status, shared by everybody it goes to.
  using StatusPointer = std::shared_ptr<const ipc::DaemonStatus>;
  using StatusResult = std::expected<ipc::DaemonStatus, ipc::DaemonError>;
  /// Awaited inside the turn that made the status, so statuses reach every observer in order. It
  /// must not call the authority, which would wait for itself, and should be quick.
  using Observer = std::function<concurrency::Task<void>(StatusPointer)>;

  /// What decides whether an operation changed anything worth saving or telling.
  struct Snapshot {
    AuthorityState state;
    core::EnforcementHealthStatus enforcement;

    friend bool operator==(const Snapshot&, const Snapshot&) = default;
  };

  /// Recovers the state from disk before it returns.
  static std::shared_ptr<CommitmentAuthority> make(
      concurrency::Executor executor, std::shared_ptr<concurrency::BlockingExecutor> blocking,
      DurableCommitmentStore durableState, core::WallClock clock);
  CommitmentAuthority(const CommitmentAuthority&) = delete;
  CommitmentAuthority& operator=(const CommitmentAuthority&) = delete;

  concurrency::Task<ipc::DaemonStatus> status();
  /// Judges the freshness of the last validation once more, in the turn that activates.
  concurrency::Task<StatusResult> activate(ipc::ActivationRequest request);
  concurrency::Task<StatusResult> strengthen(ipc::ScopeAddition addition);
  /// `mayRule` is asked inside the turn; if it says no, nothing is ruled and the error is
  /// `internalFailure`. It must not call the authority.
  concurrency::Task<StatusResult> extend(core::ProjectedEndTime newEndTime,
                                         std::function<bool()> mayRule = {});
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

  /// Runs `body` inside a turn, with the status as of then, so that what it publishes is in order
  /// with what observers publish. `body` obeys the rule for observers.
  template <class T>
  concurrency::Task<T> inTurn(std::function<concurrency::Task<T>(StatusPointer)> body);

  /// How the state at start was obtained; refreshed after successful writes.
  concurrency::Task<CommitmentStateRecovery::Source> recoverySource();
  /// Tries to stand on a sound current checkpoint again: adopts it if it has become readable and no
  /// client changed the state since the start, else writes the present state afresh. True: it does.
  /// While it cannot be read for a reason that may pass, nothing is written over it.
  concurrency::Task<bool> retryRecovery();

 private:
  using Self = std::shared_ptr<CommitmentAuthority>;
  /// One of the machine's operations with its arguments. Applied once more if the state is replaced
  /// under it, so it gives its arguments away to nobody.
  using Rule =
      std::function<CommitmentAuthorityMachine::Ruling(CommitmentAuthorityMachine&, core::Date)>;
  enum class Origin : std::uint8_t { client, daemon };

  CommitmentAuthority(const concurrency::Executor& executor,
                      std::shared_ptr<concurrency::BlockingExecutor> blocking,
                      DurableCommitmentStore durableState, core::WallClock clock,
                      CommitmentStateRecovery recovery);

  // Whole turns. Static, so that whoever waits for one keeps the authority alive.
  static concurrency::Task<StatusResult> apply(Self self, Rule rule, Origin origin,
                                               RunningTimeRecording recording);
  static concurrency::Task<ipc::DaemonStatus> applyAlwaysPermitted(Self self, Rule rule,
                                                                   Origin origin,
                                                                   RunningTimeRecording recording);
  static concurrency::Task<StatusResult> resolveAndActivate(Self self,
                                                            ipc::ActivationRequest request);
  static concurrency::Task<StatusResult> resolveAndStrengthen(Self self,
                                                              ipc::ScopeAddition addition);
  static concurrency::Task<ipc::DaemonStatus> answerStatus(Self self, bool publishing);
  static concurrency::Task<ipc::DaemonStatus> applyFilterConfiguration(Self self, bool isEnabled,
                                                                       bool publishing);
  static concurrency::Task<Subscription> addObserver(Self self, Observer observer);
  static concurrency::Task<bool> recoverAgain(Self self);
  /// For what waits for nothing. `work` is called with the authority.
  template <class Work>
  static concurrency::Task<std::invoke_result_t<Work&, CommitmentAuthority&>> briefTurn(Self self,
                                                                                        Work work);
  template <class T>
  static concurrency::Task<T> runInTurn(Self self,
                                        std::function<concurrency::Task<T>(StatusPointer)> body);

  // Steps of a turn.
  [[nodiscard]] Snapshot snapshot() const { return {machine_.state(), machine_.enforcement()}; }
  [[nodiscard]] StatusPointer currentStatus() const;
  concurrency::Task<CommitmentStateRecovery> recover();
  enum class Adoption : std::uint8_t {
    adopted,
    notYet,  ///< the file cannot be read now; it may hold more than is known here
    never,   ///< it holds nothing: what is known here is all there is
  };
  concurrency::Task<Adoption> adoptCurrentIfReadable();
  concurrency::Task<bool> writeCheckpoint(core::Date now);
  concurrency::Task<void> save(core::Date now);
  concurrency::Task<void> tellObservers(StatusPointer status);

  concurrency::Executor executor_;
  concurrency::Turn turn_;
  std::shared_ptr<concurrency::BlockingExecutor> blocking_;
  DurableCommitmentStore durableState_;
  core::WallClock clock_;

  // Touched only by the holder of the turn.
  CommitmentAuthorityMachine machine_;
  std::map<core::UUID, Observer> observers_;
  std::uint64_t lastToken_ = 0;
  /// The last one saved or recovered. A failed save does not count: the next one takes its number.
  std::optional<CommitmentCheckpoint> lastCheckpoint_;
  CommitmentStateRecovery::Source recoverySource_;
  /// The state was not read from the current file, and neither a client nor a save has made it the
  /// truth since: should that file become readable, it is newer.
  bool currentFileIsNewer_;
  /// The last save failed: memory is ahead of the disk by more than running time.
  bool hasUnsavedChange_ = false;
  std::weak_ptr<EnforcementFaultReporting> faults_;
};

template <class T>
concurrency::Task<T> CommitmentAuthority::inTurn(
    std::function<concurrency::Task<T>(StatusPointer)> body) {
  return runInTurn<T>(shared_from_this(), std::move(body));
}

template <class T>
concurrency::Task<T> CommitmentAuthority::runInTurn(
    Self self, std::function<concurrency::Task<T>(StatusPointer)> body) {
  const concurrency::Turn::Holder turn = co_await self->turn_.take();
  concurrency::Task<T> running = body(self->currentStatus());
  if constexpr (std::is_void_v<T>) {
    co_await std::move(running);
  } else {
    T result = co_await std::move(running);
    co_return result;
  }
}

}  // namespace stillow::authority
