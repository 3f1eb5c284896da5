// A durable replacement of a file against the bare system calls that it consists of: create aside,
// write, fsync, rename, fsync the directory. The argument is the size of the content. Wall time,
// because nearly all of it is waiting for the disk; run it on the disk that matters (TMPDIR chooses
// the directory).

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include "Alternating.hpp"
#include "StillowFiltering/Storage/DurableFile.hpp"
#include "StillowFiltering/Storage/PosixFileSystem.hpp"

namespace stillow::benchmarks {
namespace {

bool replaceBarely(const std::string& directory, const std::string& path,
                   const std::string& content) {
  const std::string aside = path + ".aside";
  const int file = ::open(aside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (file < 0) return false;
  std::size_t written = 0;
  while (written < content.size()) {
    const ::ssize_t count = ::write(file, content.data() + written, content.size() - written);
    if (count < 0) break;
    written += static_cast<std::size_t>(count);
  }
  const bool isWritten = written == content.size() && ::fsync(file) == 0;
  (void)::close(file);
  if (!isWritten || ::rename(aside.c_str(), path.c_str()) != 0) return false;
  const int parent = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (parent < 0) return false;
  const bool isFlushed = ::fsync(parent) == 0;
  (void)::close(parent);
  return isFlushed;
}

void replaceDurably(benchmark::State& state) {
  std::string directory =
      (std::filesystem::temp_directory_path() / "stillow-benchmark-XXXXXX").string();
  if (::mkdtemp(directory.data()) == nullptr) {
    state.SkipWithError("no directory");
    return;
  }
  const std::string content(static_cast<std::size_t>(state.range(0)), 'x');
  filtering::PosixFileSystem fileSystem;
  filtering::DurableFile durable(fileSystem, directory + "/durable");
  bool hasFailed = false;
  const auto ours = [&](std::size_t count) {
    for (; count > 0; --count) hasFailed = !durable.replace(content) || hasFailed;
  };
  const auto reference = [&](std::size_t count) {
    for (; count > 0; --count) {
      hasFailed = !replaceBarely(directory, directory + "/bare", content) || hasFailed;
    }
  };
  compareAlternating(state, Measure::wallTime, ours, reference);
  if (hasFailed) state.SkipWithError("a file could not be replaced");
  std::error_code ignored;  // the system cleans its own temporary directory
  std::filesystem::remove_all(directory, ignored);
}

BENCHMARK(replaceDurably)->Arg(1'000)->Arg(1'000'000)->Apply(batches);

}  // namespace
}  // namespace stillow::benchmarks
