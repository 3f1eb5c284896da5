#include "StillowAuthority/CommitmentCheckpointStore.hpp"

#include <limits>

#include "StillowCore/SHA256.hpp"

namespace stillow::authority {

namespace {

using LoadResult = std::expected<std::optional<CommitmentCheckpoint>, CheckpointError>;
using SaveResult = std::expected<void, CheckpointError>;

constexpr std::int64_t counterMax = std::numeric_limits<std::int64_t>::max();

bool holdsExhaustedCounter(const CommitmentCheckpoint& checkpoint) noexcept {
  const core::Commitment* const commitment = checkpoint.state.commitment();
  return checkpoint.sequence == counterMax ||
         (commitment != nullptr && commitment->scope.generation == counterMax);
}

std::string checksum(std::string_view payload) { return core::hexadecimal(core::sha256(payload)); }

}  // namespace

std::string describe(const CheckpointError& error) {
  struct Describer {
    std::string operator()(const DurableStateError& fault) const {
      const auto* const version = core::getIf<DurableStateError::unsupportedSchemaVersion>(fault);
      if (version == nullptr) return "the checksum does not match the payload";
      return "schema version " + std::to_string(version->found) + " is not supported";
    }
    std::string operator()(const filtering::FileError& fault) const {
      return filtering::describe(fault);
    }
    std::string operator()(const core::DecodingError& fault) const { return core::describe(fault); }
    std::string operator()(const core::EncodingError& fault) const { return fault.description; }
  };
  return std::visit(Describer{}, error);
}

bool mayPass(const CheckpointError& error) noexcept {
  const auto* const file = std::get_if<filtering::FileError>(&error);
  return file != nullptr && file->code != std::errc::file_too_large &&
         file->code != std::errc::too_many_symbolic_link_levels;
}

SaveResult CommitmentCheckpointStore::saveCopy(CommitmentCheckpointStore& source) {
  auto loaded = source.load();
  if (!loaded) return std::unexpected(std::move(loaded.error()));
  if (!*loaded) return {};
  return save(**loaded);
}

FileCommitmentCheckpointStore::FileCommitmentCheckpointStore(filtering::FileSystem& fileSystem,
                                                             std::string path,
                                                             std::int64_t schemaVersion)
    : file_(fileSystem, std::move(path)), schemaVersion_(schemaVersion) {}

std::expected<std::string, core::EncodingError> FileCommitmentCheckpointStore::seal(
    const CommitmentCheckpoint& checkpoint, std::int64_t schemaVersion) {
  auto payload = core::encode(checkpoint);
  if (!payload) return std::unexpected(std::move(payload.error()));
  Envelope envelope{.schemaVersion = schemaVersion, .checksum = checksum(*payload), .payload = {}};
  envelope.payload.bytes = std::move(*payload);
  return core::encode(envelope);
}

std::expected<CommitmentCheckpoint, CheckpointError> FileCommitmentCheckpointStore::open(
    std::string_view fileBytes, std::int64_t schemaVersion) {
  auto envelope = core::decode<Envelope>(fileBytes);
  if (!envelope) return std::unexpected(std::move(envelope.error()));
  if (envelope->schemaVersion != schemaVersion) {
    return std::unexpected(
        DurableStateError(DurableStateError::unsupportedSchemaVersion{envelope->schemaVersion}));
  }
  if (checksum(envelope->payload.bytes) != envelope->checksum) {
    return std::unexpected(DurableStateError(DurableStateError::checksumMismatch{}));
  }
  auto checkpoint = core::decode<CommitmentCheckpoint>(envelope->payload.bytes);
  if (!checkpoint) return std::unexpected(std::move(checkpoint.error()));
  if (holdsExhaustedCounter(*checkpoint)) {
    return std::unexpected(core::coding::corrupted("A counter stands at its maximum."));
  }
  return std::move(*checkpoint);
}

LoadResult FileCommitmentCheckpointStore::load() {
  const auto bytes = file_.read(fileBytesMax);
  if (!bytes) return std::unexpected(bytes.error());
  if (!*bytes) return std::nullopt;
  auto checkpoint = open(**bytes, schemaVersion_);
  if (!checkpoint) return std::unexpected(std::move(checkpoint.error()));
  soundContent_ = core::contentTag(**bytes);
  return std::move(*checkpoint);
}

SaveResult FileCommitmentCheckpointStore::save(const CommitmentCheckpoint& checkpoint) {
  const auto bytes = seal(checkpoint, schemaVersion_);
  if (!bytes) return std::unexpected(bytes.error());
  if (auto replaced = file_.replace(*bytes); !replaced) return std::unexpected(replaced.error());
  soundContent_ = core::contentTag(*bytes);
  return {};
}

SaveResult FileCommitmentCheckpointStore::saveCopy(CommitmentCheckpointStore& source) {
  auto* const other = dynamic_cast<FileCommitmentCheckpointStore*>(&source);
  if (other == nullptr || other->schemaVersion_ != schemaVersion_) {
    return CommitmentCheckpointStore::saveCopy(source);
  }
  const auto bytes = other->readVerified();
  if (!bytes) return std::unexpected(bytes.error());
  if (!*bytes) return {};
  if (auto replaced = file_.replace(**bytes); !replaced) return std::unexpected(replaced.error());
  return {};
}

std::expected<std::optional<std::string>, CheckpointError>
FileCommitmentCheckpointStore::readVerified() {
  auto bytes = file_.read(fileBytesMax);
  if (!bytes) return std::unexpected(std::move(bytes.error()));
  if (!*bytes) return std::nullopt;
  const core::ContentTag tag = core::contentTag(**bytes);
  if (tag != soundContent_) {
    const auto opened = open(**bytes, schemaVersion_);
    if (!opened) return std::unexpected(opened.error());
    soundContent_ = tag;
  }
  return std::move(*bytes);
}

LoadResult InMemoryCommitmentCheckpointStore::load() {
  const std::lock_guard guard(lock_);
  return checkpoint_;
}

SaveResult InMemoryCommitmentCheckpointStore::save(const CommitmentCheckpoint& checkpoint) {
  const std::lock_guard guard(lock_);
  checkpoint_ = checkpoint;
  return {};
}

}  // namespace stillow::authority
