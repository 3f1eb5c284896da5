// Saving a checkpoint, with the one before it kept as the good copy, against the bare system calls
// that this consists of: read the current file, write its bytes aside, fsync, rename, fsync the
// directory, and the same for the new bytes. Encoding and checksums are our side's alone. The
// argument is the number of domains in the Scope. Wall time, because most of it is waiting for the
// disk; run it on the disk that matters (TMPDIR chooses the directory).

#include <cstddef>
#include <string>

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include "ActiveCommitment.hpp"
#include "Alternating.hpp"
#include "BareFile.hpp"
#include "StillowAuthority/DurableCommitmentStore.hpp"
#include "StillowCore/SHA256.hpp"
#include "StillowFiltering/Storage/PosixFileSystem.hpp"
#include "TemporaryDirectory.hpp"

namespace stillow::benchmarks {
namespace {

using authority::CommitmentCheckpoint;
using authority::DurableCommitmentStore;
using authority::FileCommitmentCheckpointStore;

void save(benchmark::State& state) {
  const TemporaryDirectory ourDirectory;
  const TemporaryDirectory bareDirectory;
  const CommitmentCheckpoint checkpoint =
      activeCommitment(static_cast<std::size_t>(state.range(0)));
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

/// Against what a save has to compute and to hand to the system once: our encoder, OpenSSL's digest
/// and Base64, the envelope around it and one write. The reference flushes nothing, keeps no good
/// copy and looks at no file that was there before: that is our side's alone.
void saveLarge(benchmark::State& state) {
  const TemporaryDirectory ourDirectory;
  const TemporaryDirectory bareDirectory;
  const CommitmentCheckpoint checkpoint =
      activeCommitment(static_cast<std::size_t>(state.range(0)));
  filtering::PosixFileSystem fileSystem;
  const DurableCommitmentStore store(fileSystem, ourDirectory.path());
  EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  const std::string path = bareDirectory.path() + "/bare";

  bool hasFailed = false;
  const auto ours = [&](std::size_t count) {
    for (; count > 0; --count) hasFailed = !store.save(checkpoint).has_value() || hasFailed;
  };
  const auto reference = [&](std::size_t count) {
    for (; count > 0; --count) {
      const std::string payload = core::encode(checkpoint).value();
      core::SHA256Digest digest{};
      (void)EVP_Digest(payload.data(), payload.size(), digest.data(), nullptr, algorithm, nullptr);
      std::string file =
          R"({"schemaVersion":1,"checksum":")" + core::hexadecimal(digest) + R"(","payload":")";
      const std::size_t head = file.size();
      // Its Base64 has no "/", because the payload is plain ASCII; equality is checked below.
      file.resize(head + (payload.size() + 2) / 3 * 4 + 1);
      (void)EVP_EncodeBlock(reinterpret_cast<unsigned char*>(file.data() + head),
                            reinterpret_cast<const unsigned char*>(payload.data()),
                            static_cast<int>(payload.size()));
      file.back() = '"';  // in the place of the zero that marks the end
      file += '}';
      hasFailed = !writeBarely(path, file) || hasFailed;
    }
  };
  ours(1);
  reference(1);
  std::string ourFile;
  std::string referenceFile;
  const bool isRead =
      readBarely(ourDirectory.path() + "/" + DurableCommitmentStore::currentFileName, ourFile) &&
      readBarely(path, referenceFile);
  if (!isRead || ourFile != referenceFile) state.SkipWithError("the files differ");
  compareAlternating(state, Measure::wallTime, ours, reference);
  if (hasFailed) state.SkipWithError("a checkpoint could not be saved");
  EVP_MD_free(algorithm);
  state.counters["file_bytes"] = static_cast<double>(ourFile.size());
}

// Half a second each: fewer of them, and still enough for a median.
BENCHMARK(saveLarge)->Arg(1'000'000)->Apply(batches)->Iterations(15);

}  // namespace
}  // namespace stillow::benchmarks
