#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>

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
  ~CommitmentClock();
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

 private:
  struct Reading;
  class Run;

  CommitmentClock(concurrency::Executor executor, std::shared_ptr<CommitmentAuthority> authority,
                  Time time, Cadence cadence);

  concurrency::Executor executor_;
  concurrency::Strand serial_;
  concurrency::Turn sampling_;
  std::shared_ptr<CommitmentAuthority> authority_;
  Time time_;
  Cadence cadence_;

  double unrecordedConsumption_ = 0;
  std::optional<double> lastReading_;
  std::optional<double> lastClockOffset_;
  bool wasActiveAtLastSample_ = false;
  std::int64_t generation_ = 0;
};

}  // namespace stillow::authority
