#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "StillowAuthority/CommitmentAuthority.hpp"
#include "StillowAuthority/MonotonicTimeSource.hpp"
#include "StillowAuthority/ProjectionInvalidationSource.hpp"
#include "StillowAuthority/SupervisionRoles.hpp"
#include "StillowConcurrency/Cancellation.hpp"
#include "StillowConcurrency/Channel.hpp"
#include "StillowConcurrency/Sleeper.hpp"
#include "StillowConcurrency/Strand.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowConcurrency/Turn.hpp"
#include "StillowCore/Date.hpp"

namespace stillow::authority {

/// Measures running time and charges it to the authority; tells clients when the projected end
/// moved because the wall clock did.
///
/// Running time is what the monotonic source counts: time asleep counts, time shut down does not,
/// because the last reading lives in memory only. An interval is charged if a Commitment was active
/// when it began. At most `checkpointInterval` charged seconds are not on disk at any time; a crash
/// gives them back to the Commitment.
///
/// Samples (ticks, `sampleNow`, handling of an invalidation) never interleave. All operations may
/// be called from any executor, but not from inside a turn of the authority.
class CommitmentClock final : public RunningTimeSampling,
                              public std::enable_shared_from_this<CommitmentClock> {
 public:
  struct Cadence {
    std::chrono::nanoseconds tickInterval = std::chrono::seconds(1);
    double checkpointInterval = 60;     ///< seconds charged in memory before they are written
    double sleepGapThreshold = 10;      ///< seconds from which an interval is written at once
    double wallClockJumpTolerance = 2;  ///< seconds that the wall clock may stray between samples

    friend bool operator==(const Cadence&, const Cadence&) = default;
  };

  /// What the clock reads and waits on.
  struct Time {
    std::shared_ptr<const MonotonicTimeSource> monotonic;
    core::WallClock wallClock;
    std::shared_ptr<concurrency::Sleeper> sleeper;
    std::shared_ptr<ProjectionInvalidationSource> invalidations;
  };

  [[nodiscard]] static std::shared_ptr<CommitmentClock> make(
      concurrency::Executor executor, std::shared_ptr<CommitmentAuthority> authority, Time time,
      Cadence cadence);
  [[nodiscard]] static std::shared_ptr<CommitmentClock> make(
      concurrency::Executor executor, std::shared_ptr<CommitmentAuthority> authority, Time time) {
    return make(std::move(executor), std::move(authority), std::move(time), Cadence{});
  }
  ~CommitmentClock() override;
  CommitmentClock(const CommitmentClock&) = delete;
  CommitmentClock& operator=(const CommitmentClock&) = delete;

  /// Begins to tick and to follow invalidations; nothing happens if it has begun.
  [[nodiscard]] concurrency::Task<void> start();
  /// Ends both promptly. A sample under way is discarded, and the next start begins with a
  /// baseline: the time in between is charged to nobody.
  [[nodiscard]] concurrency::Task<void> stop();

  /// Takes a sample now, besides the ticks; when it returns, the running time up to now is charged.
  /// Stopped, it does nothing.
  [[nodiscard]] concurrency::Task<void> sampleNow() override;
  [[nodiscard]] double unchargedSeconds() const override;

 private:
  using Self = std::shared_ptr<CommitmentClock>;
  /// What ends when the clock stops.
  struct Loops {
    concurrency::Cancellation ticking;
    concurrency::Channel<ProjectionInvalidation> invalidations;
  };
  struct Reading {
    double seconds;      ///< monotonic
    double clockOffset;  ///< seconds by which the wall clock is ahead of that
  };

  CommitmentClock(const concurrency::Executor& executor,
                  std::shared_ptr<CommitmentAuthority> authority, Time time, Cadence cadence);

  static concurrency::Task<void> begin(Self self);
  static concurrency::Task<void> end(Self self);
  static concurrency::Task<void> tick(std::weak_ptr<CommitmentClock> weak,
                                      std::shared_ptr<concurrency::Sleeper> sleeper,
                                      std::chrono::nanoseconds interval,
                                      concurrency::Cancellation cancellation,
                                      std::int64_t generation);
  static concurrency::Task<void> follow(std::weak_ptr<CommitmentClock> weak,
                                        concurrency::Channel<ProjectionInvalidation> invalidations,
                                        std::int64_t generation);
  static concurrency::Task<void> sample(Self self, std::optional<std::int64_t> generation);
  static concurrency::Task<void> acceptClockChange(Self self, std::int64_t generation);

  [[nodiscard]] Reading read() const;
  concurrency::Task<void> charge(double elapsed, bool isPublishing, std::int64_t generation);

  concurrency::Executor executor_;
  concurrency::Strand serial_;
  concurrency::Turn sampling_;
  std::shared_ptr<CommitmentAuthority> authority_;
  Time time_;
  Cadence cadence_;

  /// The reading up to which everything is charged; not a number: nothing is counted yet.
  std::atomic<double> chargedUntil_;

  // Touched on the strand only.
  double unrecordedConsumption_ = 0;
  std::optional<double> lastReading_;
  std::optional<double> lastClockOffset_;
  bool wasActiveAtLastSample_ = false;
  std::optional<Loops> loops_;  ///< absent: stopped
  /// Raised by each stop; whoever was suspended across one finds that its sample no longer counts.
  std::int64_t generation_ = 0;
};

}  // namespace stillow::authority
