// One tick of the daemon's clock, which charges running time in memory, with a Scope of many
// domains against one of ten: the real clock, authority and state machine, with an active
// Commitment. What is shared and compared by identity costs the same however large it is.

#include <chrono>
#include <cstddef>
#include <memory>

#include <benchmark/benchmark.h>
#include <boost/asio/io_context.hpp>

#include "ActiveCommitment.hpp"
#include "Alternating.hpp"
#include "EndlessSleeper.hpp"
#include "StillowAuthority/CommitmentClock.hpp"
#include "StillowConcurrency/ThreadBlockingExecutor.hpp"

namespace stillow::benchmarks {
namespace {

using authority::CommitmentAuthority;
using authority::CommitmentClock;
using authority::InMemoryCommitmentCheckpointStore;
using concurrency::Task;

/// Moves a microsecond at each reading, so that no tick comes near the minute that is written.
struct SteppingTime final : authority::MonotonicTimeSource {
  [[nodiscard]] double seconds() const override { return now += 1e-6; }
  mutable double now = 1'000;
};
struct NoInvalidations final : authority::ProjectionInvalidationSource {
  concurrency::Channel<authority::ProjectionInvalidation> invalidations() override {
    return concurrency::Channel<authority::ProjectionInvalidation>(1);
  }
};

/// A daemon's authority and clock with an active Commitment over `domainCount` domains.
class Ticking {
 public:
  explicit Ticking(std::size_t domainCount) {
    const auto wallClock = [] { return activationDate; };
    authority_ = CommitmentAuthority::make(
        context_.get_executor(), std::make_shared<concurrency::ThreadBlockingExecutor>(1),
        {std::make_shared<InMemoryCommitmentCheckpointStore>(activeCommitment(domainCount)),
         std::make_shared<InMemoryCommitmentCheckpointStore>()},
        wallClock);
    clock_ = CommitmentClock::make(
        context_.get_executor(), authority_,
        {std::make_shared<SteppingTime>(), wallClock, std::make_shared<EndlessSleeper>(),
         std::make_shared<NoInvalidations>()});
    run(clock_->start());
    tick(1);  // the baseline
  }
  Ticking(const Ticking&) = delete;
  Ticking& operator=(const Ticking&) = delete;
  ~Ticking() {
    clock_.reset();
    context_.poll();
  }

  void tick(std::size_t count) {
    for (; count > 0; --count) run(clock_->sampleNow());
  }
  /// Of the Commitment, in seconds; none if it is not active.
  [[nodiscard]] double remaining() {
    double seconds = 0;
    run(ask(authority_, seconds));
    return seconds;
  }

 private:
  static Task<void> ask(std::shared_ptr<CommitmentAuthority> authority, double& remaining) {
    const ipc::DaemonStatus status = co_await authority->status();
    if (const auto* active = status.active()) remaining = active->remainingDuration;
  }
  static Task<void> finish(Task<void> task, bool& isFinished) {
    co_await std::move(task);
    isFinished = true;
  }
  void run(Task<void> task) {
    bool isFinished = false;
    concurrency::spawn(context_.get_executor(), finish(std::move(task), isFinished));
    // The first one waits for the recovery, which is on a thread of its own.
    while (!isFinished) {
      context_.restart();
      context_.poll();
    }
  }

  boost::asio::io_context context_{1};
  std::shared_ptr<CommitmentAuthority> authority_;
  std::shared_ptr<CommitmentClock> clock_;
};

void tick(benchmark::State& state) {
  Ticking many(static_cast<std::size_t>(state.range(0)));
  Ticking few(10);
  const double before = many.remaining();
  compareAlternating(
      state, Measure::processorTime, [&](std::size_t count) { many.tick(count); },
      [&](std::size_t count) { few.tick(count); });
  if (!(0 < many.remaining() && many.remaining() < before)) {
    state.SkipWithError("the ticks charged nothing");
  }
}

BENCHMARK(tick)->Arg(1'000)->Arg(1'000'000)->Apply(batches);

}  // namespace
}  // namespace stillow::benchmarks
