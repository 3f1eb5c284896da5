#pragma once

#include "StillowConcurrency/Sleeper.hpp"
#include "StillowConcurrency/Task.hpp"

namespace stillow::platform {

/// Sleeps by CLOCK_BOOTTIME, so a sleep that the machine slept through is over when it wakes. Each
/// sleep has a timer descriptor of its own and gives it back however it ends.
///
/// `executor` belongs to an execution context that can wait for descriptors: an io_context or a
/// thread_pool.
class BoottimeSleeper final : public concurrency::Sleeper {
 public:
  explicit BoottimeSleeper(concurrency::Executor executor);

  [[nodiscard]] concurrency::Task<concurrency::SleepOutcome> sleep(
      std::chrono::nanoseconds duration, concurrency::Cancellation cancellation) override;

 private:
  concurrency::Executor executor_;
};

}  // namespace stillow::platform
