#pragma once

#include <chrono>
#include <expected>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "StillowAuthority/CommitmentAuthority.hpp"
#include "TestSupport/DeterministicExecutor.hpp"

namespace stillow::test {

/// A checkpoint store in memory that fails on request.
class ScriptedCheckpointStore final : public authority::CommitmentCheckpointStore {
 public:
  int saveFailuresLeft = 0;
  int loadFailuresLeft = 0;
  std::optional<authority::CommitmentCheckpoint> checkpoint;

  std::expected<std::optional<authority::CommitmentCheckpoint>, authority::CheckpointError> load()
      override {
    if (loadFailuresLeft > 0) {
      --loadFailuresLeft;
      return std::unexpected(
          authority::DurableStateError(authority::DurableStateError::checksumMismatch{}));
    }
    return checkpoint;
  }
  std::expected<void, authority::CheckpointError> save(
      const authority::CommitmentCheckpoint& saved) override {
    if (saveFailuresLeft > 0) {
      --saveFailuresLeft;
      return std::unexpected(filtering::FileError{
          filtering::FileError::Operation::write, "/state/commitment-checkpoint.json",
          std::make_error_code(std::errc::no_space_on_device)});
    }
    checkpoint = saved;
    return {};
  }
};

[[nodiscard]] inline core::DomainSet domains(std::initializer_list<std::string_view> names) {
  std::vector<core::Domain> made;
  for (const auto name : names) made.push_back(*core::Domain::make(name));
  return core::DomainSet::of(std::move(made));
}

[[nodiscard]] inline ipc::ActivationRequest activationOf(
    std::initializer_list<std::string_view> names, double seconds = 3600) {
  std::vector<core::Website> websites;
  for (const auto name : names) websites.push_back({*core::Domain::make(name), {}});
  return {core::CommitmentSelection::allWebsites{}, std::move(websites),
          *core::CommitmentDuration::fromSeconds(seconds)};
}

/// The real authority over a deterministic executor, stores in memory and a wall clock that follows
/// virtual time.
struct SimulatedAuthority {
  explicit SimulatedAuthority(std::uint64_t seed = 0) : executor(seed) {
    current = std::make_shared<ScriptedCheckpointStore>();
    lastKnownGood = std::make_shared<ScriptedCheckpointStore>();
    begin();
  }

  /// A new authority, as after a restart of the daemon.
  void begin() {
    authority = authority::CommitmentAuthority::make(
        executor.executor(), executor.blockingExecutor(),
        authority::DurableCommitmentStore(current, lastKnownGood), clock());
  }

  [[nodiscard]] core::Date now() const {
    return start + std::chrono::duration<double>(executor.now()).count();
  }
  [[nodiscard]] core::WallClock clock() {
    return [this] { return now(); };
  }

  [[nodiscard]] ipc::DaemonStatus status() { return executor.run(authority->status()); }
  /// Activates behind a validation that has just passed.
  void activate(std::initializer_list<std::string_view> names, double seconds = 3600) {
    executor.run(authority->record(core::EnforcementValidation::passed{}, now()));
    const auto answered = executor.run(authority->activate(activationOf(names, seconds)));
    core::require(answered.has_value(), "a prepared activation is not refused");
  }

  static constexpr core::Date start{800'000'000};

  DeterministicExecutor executor;
  std::shared_ptr<ScriptedCheckpointStore> current;
  std::shared_ptr<ScriptedCheckpointStore> lastKnownGood;
  std::shared_ptr<authority::CommitmentAuthority> authority;
};

}  // namespace stillow::test
