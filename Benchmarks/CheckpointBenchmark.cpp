// Saving a checkpoint, with the one before it kept as the good copy, against the bare system calls
// that this consists of: read the current file, write its bytes aside, fsync, rename, fsync the
// directory, and the same for the new bytes. Encoding and checksums are our side's alone. The
// argument is the number of domains in the Scope. Wall time, because most of it is waiting for the
// disk; run it on the disk that matters (TMPDIR chooses the directory).

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "Alternating.hpp"
#include "BareFile.hpp"
#include "StillowAuthority/DurableCommitmentStore.hpp"
#include "StillowFiltering/Storage/PosixFileSystem.hpp"
#include "TemporaryDirectory.hpp"

namespace stillow::benchmarks {
namespace {

using authority::AuthorityState;
using authority::CommitmentCheckpoint;
using authority::DurableCommitmentStore;
using authority::FileCommitmentCheckpointStore;

CommitmentCheckpoint checkpointOf(std::size_t domainCount) {
  std::vector<core::Domain> domains;
  domains.reserve(domainCount);
  for (std::size_t i = 0; i < domainCount; ++i) {
    domains.push_back(*core::Domain::make("site" + std::to_string(10'000'000 + i) + ".example"));
  }
  return {.state = AuthorityState::active{core::Commitment{
              .activatedAt = {816'458'820},
              .scope = {.generation = 1, .domains = core::DomainSet::of(std::move(domains))},
              .remainingDuration = 3'600}},
          .writtenAt = {816'458'820},
          .sequence = 1};
}

void save(benchmark::State& state) {
  const TemporaryDirectory ourDirectory;
  const TemporaryDirectory bareDirectory;
  const CommitmentCheckpoint checkpoint = checkpointOf(static_cast<std::size_t>(state.range(0)));
  const std::string bytes = *FileCommitmentCheckpointStore::seal(checkpoint);
  filtering::PosixFileSystem fileSystem;
  const DurableCommitmentStore store(fileSystem, ourDirectory.path());
  bool hasFailed = !store.save(checkpoint).has_value();

  const std::string current = bareDirectory.path() + "/current";
  hasFailed = !replaceBarely(bareDirectory.path(), current, bytes) || hasFailed;
  std::string held;
  const auto ours = [&](std::size_t count) {
    for (; count > 0; --count) hasFailed = !store.save(checkpoint).has_value() || hasFailed;
  };
  const auto reference = [&](std::size_t count) {
    for (; count > 0; --count) {
      hasFailed = !readBarely(current, held) ||
                  !replaceBarely(bareDirectory.path(), bareDirectory.path() + "/good", held) ||
                  !replaceBarely(bareDirectory.path(), current, bytes) || hasFailed;
    }
  };
  compareAlternating(state, Measure::wallTime, ours, reference);
  if (hasFailed) state.SkipWithError("a checkpoint could not be saved");
  state.counters["file_bytes"] = static_cast<double>(bytes.size());
}

BENCHMARK(save)->Arg(10)->Arg(1'000)->Apply(batches);
// A second each: fewer of them, and still enough for a median.
BENCHMARK(save)->Arg(1'000'000)->Apply(batches)->Iterations(15);

}  // namespace
}  // namespace stillow::benchmarks
