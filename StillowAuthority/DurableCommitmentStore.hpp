#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "StillowAuthority/CommitmentCheckpoint.hpp"
#include "StillowAuthority/CommitmentCheckpointStore.hpp"
#include "StillowCore/EnforcementHealth.hpp"

namespace stillow::authority {

/// What recovery found. Without a checkpoint the system starts idle.
struct CommitmentStateRecovery {
  enum class Source : std::uint8_t {
    current,        ///< the state is the last one saved, or nothing was ever saved
    lastKnownGood,  ///< the state is the one before
    failedOpen,     ///< the state cannot be trusted: nothing is enforced rather than for ever
  };

  std::optional<CommitmentCheckpoint> checkpoint;
  Source source = Source::current;

  friend bool operator==(const CommitmentStateRecovery&, const CommitmentStateRecovery&) = default;
};

/// The enforcement health that a start from `source` implies.
[[nodiscard]] core::EnforcementHealthStatus enforcementHealth(
    CommitmentStateRecovery::Source source) noexcept;

/// The pair of checkpoints that the system lives by: the current one and the one before it.
///
/// Copies share both stores. Every operation blocks; one at a time.
class DurableCommitmentStore {
 public:
  static constexpr const char* currentFileName = "commitment-checkpoint.json";
  static constexpr const char* lastKnownGoodFileName = "commitment-checkpoint.last-known-good.json";

  /// Takes one sentence for the log, on the thread that does the work: also errors that the rules
  /// deal with and nobody else hears of, such as a current file that had to be passed over.
  using ErrorLog = std::function<void(const std::string&)>;

  DurableCommitmentStore(std::shared_ptr<CommitmentCheckpointStore> current,
                         std::shared_ptr<CommitmentCheckpointStore> lastKnownGood,
                         ErrorLog errorLog = {});
  /// The two files of that name in `stateDirectory`, an absolute path. `fileSystem` has to outlive
  /// this and its copies.
  DurableCommitmentStore(filtering::FileSystem& fileSystem, const std::string& stateDirectory,
                         ErrorLog errorLog = {});

  /// Never fails: what cannot be read is what the source says.
  [[nodiscard]] CommitmentStateRecovery recover() const;

  /// The current checkpoint alone, for whoever had to pass over it before.
  struct CurrentLook {
    std::optional<CommitmentCheckpoint> checkpoint;
    /// It could not be read, which says nothing about what it holds.
    bool mayBecomeReadable = false;
  };
  [[nodiscard]] CurrentLook lookAtCurrent() const;

  /// The current checkpoint, if it is sound, becomes the last known good one; then `checkpoint`
  /// becomes the current one. At no point is there less than one sound checkpoint if there was one
  /// before. Fails with the current store's error; the last known good one's is only logged.
  [[nodiscard]] std::expected<void, CheckpointError> save(
      const CommitmentCheckpoint& checkpoint) const;

 private:
  void log(const char* what, const CheckpointError& error) const;

  std::shared_ptr<CommitmentCheckpointStore> current_;
  std::shared_ptr<CommitmentCheckpointStore> lastKnownGood_;
  ErrorLog errorLog_;
};

}  // namespace stillow::authority

template <>
struct std::hash<stillow::authority::CommitmentStateRecovery> {
  std::size_t operator()(
      const stillow::authority::CommitmentStateRecovery& recovery) const noexcept {
    auto seed = static_cast<std::size_t>(recovery.source);
    if (recovery.checkpoint) stillow::core::hashInto(seed, *recovery.checkpoint);
    return seed;
  }
};
