// A durable replacement of a file against the bare system calls that it consists of: create aside,
// write, fsync, rename, fsync the directory. The argument is the size of the content. Wall time,
// because nearly all of it is waiting for the disk; run it on the disk that matters (TMPDIR chooses
// the directory).

#include <cstddef>
#include <string>

#include <benchmark/benchmark.h>

#include "Alternating.hpp"
#include "BareFile.hpp"
#include "StillowFiltering/Storage/DurableFile.hpp"
#include "StillowFiltering/Storage/PosixFileSystem.hpp"
#include "TemporaryDirectory.hpp"

namespace stillow::benchmarks {
namespace {

void replaceDurably(benchmark::State& state) {
  const TemporaryDirectory directory;
  const std::string content(static_cast<std::size_t>(state.range(0)), 'x');
  filtering::PosixFileSystem fileSystem;
  filtering::DurableFile durable(fileSystem, directory.path() + "/durable");
  bool hasFailed = false;
  const auto ours = [&](std::size_t count) {
    for (; count > 0; --count) hasFailed = !durable.replace(content) || hasFailed;
  };
  const auto reference = [&](std::size_t count) {
    for (; count > 0; --count) {
      hasFailed =
          !replaceBarely(directory.path(), directory.path() + "/bare", content) || hasFailed;
    }
  };
  compareAlternating(state, Measure::wallTime, ours, reference);
  if (hasFailed) state.SkipWithError("a file could not be replaced");
}

BENCHMARK(replaceDurably)->Arg(1'000)->Arg(1'000'000)->Apply(batches);

}  // namespace
}  // namespace stillow::benchmarks
