#pragma once

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "StillowAuthority/CommitmentAuthority.hpp"
#include "StillowAuthority/DurableCommitmentStore.hpp"
#include "StillowAuthority/SupervisionRoles.hpp"
#include "TestSupport/DeterministicExecutor.hpp"

/// What the tests of state, authority, checkpoints and clock have in common.
namespace stillow::authority::testing {

inline constexpr core::Date start{816'458'820};
inline constexpr std::uint64_t seedCount = 20;

inline core::DomainSet domains(std::initializer_list<std::string_view> names) {
  std::vector<core::Domain> all;
  for (const auto name : names) all.push_back(*core::Domain::make(name));
  return core::DomainSet::of(std::move(all));
}

/// `count` different domains in ascending order.
inline core::DomainSet manyDomains(std::size_t count) {
  std::vector<core::Domain> all;
  all.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    all.push_back(*core::Domain::make(std::to_string(1'000'000'000 + i) + ".x"));
  }
  return core::DomainSet::of(std::move(all));
}

inline core::Commitment commitment(double remainingSeconds = 3'600,
                                   core::Date activatedAt = start) {
  return {.activatedAt = activatedAt,
          .scope = {.generation = 1, .domains = domains({"a.example"})},
          .remainingDuration = remainingSeconds,
          .health = core::CommitmentHealth::healthy};
}

inline CommitmentCheckpoint checkpoint(AuthorityState state, std::int64_t sequence = 1) {
  return {.state = std::move(state), .writtenAt = start, .sequence = sequence};
}

inline core::EnforcementHealthStatus degraded(core::DegradedReason reason) {
  return core::EnforcementHealthStatus::degraded{reason};
}

inline ipc::ActivationRequest activationRequest(const core::DomainSet& websites,
                                                double seconds = 3'600) {
  std::vector<core::Website> collection;
  for (const core::Domain& domain : websites) collection.push_back({domain, {}});
  return {.selection = core::CommitmentSelection::allWebsites{},
          .collectionSnapshot = std::move(collection),
          .duration = *core::CommitmentDuration::fromSeconds(seconds)};
}

/// A store that fails on request and remembers what was saved.
class ScriptedCheckpointStore final : public CommitmentCheckpointStore {
 public:
  explicit ScriptedCheckpointStore(std::optional<CommitmentCheckpoint> held = std::nullopt)
      : content(std::move(held)) {}

  static CheckpointError corrupt() {
    return DurableStateError(DurableStateError::checksumMismatch{});
  }
  static CheckpointError inputError() {
    return filtering::FileError{filtering::FileError::Operation::read, "/state/file",
                                std::make_error_code(std::errc::io_error)};
  }

  std::expected<std::optional<CommitmentCheckpoint>, CheckpointError> load() override {
    ++loads;
    if (isUnreadable) return std::unexpected(corrupt());
    if (isOutOfReach) return std::unexpected(inputError());
    return content;
  }
  std::expected<void, CheckpointError> save(const CommitmentCheckpoint& saved) override {
    if (refusesSaves) {
      return std::unexpected(
          filtering::FileError{filtering::FileError::Operation::write, "/state/file",
                               std::make_error_code(std::errc::no_space_on_device)});
    }
    content = saved;
    isUnreadable = false;
    isOutOfReach = false;
    all.push_back(saved);
    return {};
  }

  std::optional<CommitmentCheckpoint> content;
  bool isUnreadable = false;  ///< what is there is damaged
  bool isOutOfReach = false;  ///< what is there cannot be read now
  bool refusesSaves = false;
  int loads = 0;
  std::vector<CommitmentCheckpoint> all;  ///< what was saved, in order
};

class RecordingFaultReporter final : public EnforcementFaultReporting {
 public:
  concurrency::Task<void> reportFault(core::DegradedReason reason) override {
    reasons.push_back(reason);
    // A real reporter answers a fault by recording the new health.
    if (const auto called = authority.lock()) {
      (void)co_await called->recordEnforcement(degraded(reason));
    }
  }

  std::vector<core::DegradedReason> reasons;
  std::weak_ptr<CommitmentAuthority> authority;  ///< called back if set
};

/// An authority over scripted stores, on one thread with a seeded order and a clock set by hand.
struct AuthorityWorld {
  explicit AuthorityWorld(std::uint64_t seed = 0,
                          std::optional<CommitmentCheckpoint> current = std::nullopt,
                          std::optional<CommitmentCheckpoint> lastKnownGood = std::nullopt)
      : executor(seed),
        currentStore(std::make_shared<ScriptedCheckpointStore>(std::move(current))),
        goodStore(std::make_shared<ScriptedCheckpointStore>(std::move(lastKnownGood))) {}

  /// Recovers; so set the stores up first.
  void begin() {
    authority =
        CommitmentAuthority::make(executor.executor(), executor.blockingExecutor(),
                                  DurableCommitmentStore(currentStore, goodStore), wallClock);
  }
  void setTime(core::Date date) { *now = date; }
  void passTime(double seconds) { *now = *now + seconds; }

  template <class T>
  T run(concurrency::Task<T> task) {
    return executor.run(std::move(task));
  }
  void run(concurrency::Task<void> task) { executor.run(std::move(task)); }

  ipc::DaemonStatus status() { return run(authority->status()); }
  void passValidation() {
    run(authority->record(core::EnforcementValidation::passed{}, wallClock()));
  }
  CommitmentAuthority::StatusResult activate(
      const core::DomainSet& websites = domains({"a.example"}), double seconds = 3'600) {
    passValidation();
    return run(authority->activate(activationRequest(websites, seconds)));
  }
  CommitmentAuthority::StatusResult strengthen(const core::DomainSet& websites) {
    return run(authority->strengthen(ipc::ScopeAddition::websites{websites}));
  }
  /// Keeps every status that is published from now on.
  core::UUID observe() {
    return run(authority->subscribe([this](CommitmentAuthority::StatusPointer status) {
             return keep(&told, std::move(status));
           }))
        .token;
  }
  static concurrency::Task<void> keep(std::vector<ipc::DaemonStatus>* into,
                                      CommitmentAuthority::StatusPointer status) {
    into->push_back(*status);
    co_return;
  }

  std::shared_ptr<core::Date> now = std::make_shared<core::Date>(start);
  core::WallClock wallClock = [time = now] { return *time; };
  test::DeterministicExecutor executor;
  std::shared_ptr<ScriptedCheckpointStore> currentStore;
  std::shared_ptr<ScriptedCheckpointStore> goodStore;
  std::shared_ptr<CommitmentAuthority> authority;
  std::vector<ipc::DaemonStatus> told;
};

}  // namespace stillow::authority::testing
