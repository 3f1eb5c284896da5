#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <ctime>
#include <vector>

#include <benchmark/benchmark.h>

namespace stillow::benchmarks {

/// Batches of each side in a comparison. Odd, so that the median is one of them.
inline constexpr int batchCount = 31;
/// Long enough to drown the clock's own cost, short enough that both sides see the same machine.
inline constexpr std::chrono::duration<double> batchTime{0.010};

/// What counts as time: that of the wall for work that waits for the disk, else the processor's
/// own, which other programs on the machine lengthen less.
enum class Measure { wallTime, processorTime };

/// Seconds that `work(count)` takes.
template <class Work>
double secondsFor(Measure measure, Work& work, std::size_t count) {
  const auto wallStart = std::chrono::steady_clock::now();
  const std::clock_t processorStart = std::clock();
  work(count);
  const std::clock_t processorEnd = std::clock();
  const std::chrono::duration<double> wallTime = std::chrono::steady_clock::now() - wallStart;
  return measure == Measure::wallTime
             ? wallTime.count()
             : static_cast<double>(processorEnd - processorStart) / CLOCKS_PER_SEC;
}

/// How many operations fill a batch. At least one, however long it takes.
template <class Work>
std::size_t operationsPerBatch(Measure measure, Work& work) {
  for (std::size_t count = 1;; count *= 2) {
    const double seconds = secondsFor(measure, work, count);
    if (seconds < batchTime.count() / 4) continue;
    const double fitting = static_cast<double>(count) * batchTime.count() / seconds;
    return std::max<std::size_t>(1, static_cast<std::size_t>(fitting));
  }
}

/// Runs `ours` and `reference` in alternating batches of about 10 ms and reports nanoseconds per
/// operation of each in its best batch, the one that was disturbed least, the ratio of these two
/// and that of the medians: where they are far apart, the machine was busy. Each side is called
/// with a number of operations to do. Register the benchmark with `batches`.
///
/// On a shared machine whole minutes are slower than others. Two runs one after the other compare
/// moments as much as programs; batches that alternate meet the same moments.
template <class Ours, class Reference>
void compareAlternating(benchmark::State& state, Measure measure, Ours ours, Reference reference) {
  const std::size_t ourCount = operationsPerBatch(measure, ours);
  const std::size_t referenceCount = operationsPerBatch(measure, reference);
  std::vector<double> ourTimes;
  std::vector<double> referenceTimes;
  bool isOursFirst = true;
  for ([[maybe_unused]] auto iteration : state) {
    const auto runOurs = [&] {
      ourTimes.push_back(secondsFor(measure, ours, ourCount) / static_cast<double>(ourCount));
    };
    if (isOursFirst) runOurs();
    referenceTimes.push_back(secondsFor(measure, reference, referenceCount) /
                             static_cast<double>(referenceCount));
    if (!isOursFirst) runOurs();
    isOursFirst = !isOursFirst;
    state.SetIterationTime(ourTimes.back());
  }
  std::ranges::sort(ourTimes);
  std::ranges::sort(referenceTimes);
  const std::size_t middle = ourTimes.size() / 2;
  state.counters["ours_ns"] = ourTimes.front() * 1e9;
  state.counters["reference_ns"] = referenceTimes.front() * 1e9;
  state.counters["ratio"] = ourTimes.front() / referenceTimes.front();
  state.counters["ratio_median"] = ourTimes[middle] / referenceTimes[middle];
}

/// For BENCHMARK(...)->Apply(batches).
inline void batches(benchmark::internal::Benchmark* benchmark) {
  benchmark->UseManualTime()->Iterations(batchCount)->Unit(benchmark::kNanosecond);
}

}  // namespace stillow::benchmarks
