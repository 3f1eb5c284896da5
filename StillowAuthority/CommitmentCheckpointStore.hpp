#pragma once

#include <cstdint>
#include <expected>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "StillowAuthority/CommitmentCheckpoint.hpp"
#include "StillowCore/Coding.hpp"
#include "StillowCore/ContentTag.hpp"
#include "StillowCore/Scope.hpp"
#include "StillowCore/SumType.hpp"
#include "StillowFiltering/Storage/DurableFile.hpp"

namespace stillow::authority {

/// What is wrong with a checkpoint file that could be read.
struct DurableStateError {
  /// Written by another version of the system; the payload says which.
  struct unsupportedSchemaVersion {
    std::int64_t found;
    friend bool operator==(const unsupportedSchemaVersion&,
                           const unsupportedSchemaVersion&) = default;
  };
  /// The payload is not what was written.
  struct checksumMismatch {
    friend bool operator==(const checksumMismatch&, const checksumMismatch&) = default;
  };

  using Cases = std::variant<unsupportedSchemaVersion, checksumMismatch>;
  Cases cases;

  template <core::CaseOf<Cases> Case>
  DurableStateError(Case error) : cases(std::move(error)) {}
  friend bool operator==(const DurableStateError&, const DurableStateError&) = default;
};

/// Why a checkpoint could not be loaded or saved.
using CheckpointError =
    std::variant<DurableStateError, filtering::FileError, core::DecodingError, core::EncodingError>;

/// One sentence without a final stop.
[[nodiscard]] std::string describe(const CheckpointError& error);

/// Whether a load that failed like this says nothing about the file: the system did not hand it
/// over (an input/output error, no descriptor left) and may do so later. What was read and is no
/// checkpoint of ours stays that for good.
[[nodiscard]] bool mayPass(const CheckpointError& error) noexcept;

/// One place where a checkpoint can live. Blocks; one call at a time.
class CommitmentCheckpointStore {
 public:
  virtual ~CommitmentCheckpointStore() = default;

  /// None: nothing was ever saved here. An error: something is there that cannot be trusted.
  [[nodiscard]] virtual std::expected<std::optional<CommitmentCheckpoint>, CheckpointError>
  load() = 0;
  /// On an error this place holds what it held before, or the new checkpoint; never less.
  [[nodiscard]] virtual std::expected<void, CheckpointError> save(
      const CommitmentCheckpoint& checkpoint) = 0;
  /// Takes over what `source` holds, if it loads there; else nothing happens here and that is the
  /// error, if there was one.
  [[nodiscard]] virtual std::expected<void, CheckpointError> saveCopy(
      CommitmentCheckpointStore& source);

 protected:
  CommitmentCheckpointStore() = default;
  CommitmentCheckpointStore(const CommitmentCheckpointStore&) = default;
  CommitmentCheckpointStore& operator=(const CommitmentCheckpointStore&) = default;
};

/// A checkpoint in a file of its own. docs/checkpoint-format.md has the bytes.
class FileCommitmentCheckpointStore final : public CommitmentCheckpointStore {
 public:
  static constexpr std::int64_t currentSchemaVersion = 1;
  /// What a file can take at most: the largest Scope, every byte of every name escaped as \u0001
  /// is, each name in quotes with a comma, all of it in Base64 with every digit escaped. A larger
  /// file is not ours and is not read into memory; a smaller bound would refuse on load what could
  /// be saved.
  static constexpr std::size_t fileBytesMax =
      2 * 4 * (2 * core::ScopeCapacity::nameBytesMax + core::ScopeCapacity::domainsMax + 1'024);

  /// The file's top-level record.
  struct Envelope {
    std::int64_t schemaVersion;
    std::string checksum;  ///< SHA-256 of the payload's bytes, 64 lower-case hexadecimal digits
    core::Data payload;    ///< the encoded CommitmentCheckpoint

    friend bool operator==(const Envelope&, const Envelope&) = default;
  };

  /// `path` is absolute. `fileSystem` has to outlive the store.
  FileCommitmentCheckpointStore(filtering::FileSystem& fileSystem, std::string path,
                                std::int64_t schemaVersion = currentSchemaVersion);

  [[nodiscard]] std::expected<std::optional<CommitmentCheckpoint>, CheckpointError> load() override;
  [[nodiscard]] std::expected<void, CheckpointError> save(
      const CommitmentCheckpoint& checkpoint) override;
  /// From another file of the same schema version the verified bytes are copied as they are.
  [[nodiscard]] std::expected<void, CheckpointError> saveCopy(
      CommitmentCheckpointStore& source) override;

  /// The bytes of a file that holds `checkpoint`.
  [[nodiscard]] static std::expected<std::string, core::EncodingError> seal(
      const CommitmentCheckpoint& checkpoint, std::int64_t schemaVersion = currentSchemaVersion);
  /// The checkpoint in the bytes of a file, after every check. A counter at its maximum is refused
  /// as corrupt data, because the next change would have to stop the process.
  [[nodiscard]] static std::expected<CommitmentCheckpoint, CheckpointError> open(
      std::string_view fileBytes, std::int64_t schemaVersion = currentSchemaVersion);

 private:
  /// The bytes of the file once they are known to hold a checkpoint; none if there is no file.
  std::expected<std::optional<std::string>, CheckpointError> readVerified();

  filtering::DurableFile file_;
  std::int64_t schemaVersion_;
  /// Of the last file content that this object sealed or opened. Whatever has this tag is those
  /// very bytes, so it needs no second look, whoever put it there.
  std::optional<core::ContentTag> soundContent_;
};

/// A checkpoint in memory, for tests and tools. Any thread may call any operation, and none fails.
class InMemoryCommitmentCheckpointStore final : public CommitmentCheckpointStore {
 public:
  explicit InMemoryCommitmentCheckpointStore(
      std::optional<CommitmentCheckpoint> checkpoint = std::nullopt)
      : checkpoint_(std::move(checkpoint)) {}

  [[nodiscard]] std::expected<std::optional<CommitmentCheckpoint>, CheckpointError> load() override;
  [[nodiscard]] std::expected<void, CheckpointError> save(
      const CommitmentCheckpoint& checkpoint) override;

 private:
  std::mutex lock_;
  std::optional<CommitmentCheckpoint> checkpoint_;  // guarded by lock_
};

}  // namespace stillow::authority

template <>
struct stillow::core::Coding<stillow::authority::FileCommitmentCheckpointStore::Envelope> {
  using Envelope = authority::FileCommitmentCheckpointStore::Envelope;
  static constexpr auto fields = coding::fieldsOf(
      coding::field("schemaVersion", &Envelope::schemaVersion),
      coding::field("checksum", &Envelope::checksum), coding::field("payload", &Envelope::payload));
};
