#pragma once

#include <memory>

#include "StillowConcurrency/Sleeper.hpp"

namespace stillow::platform {

/// Sleeps by Mach's continuous time, so a sleep that the machine slept through is over when it
/// wakes. One kernel queue and one thread serve every sleep.
class ContinuousSleeper final : public concurrency::Sleeper {
 public:
  ContinuousSleeper();
  /// Ends the thread. Sleeps that still run are over then, as cancelled.
  ~ContinuousSleeper() override;
  ContinuousSleeper(const ContinuousSleeper&) = delete;
  ContinuousSleeper& operator=(const ContinuousSleeper&) = delete;

  [[nodiscard]] concurrency::Task<concurrency::SleepOutcome> sleep(
      std::chrono::nanoseconds duration, concurrency::Cancellation cancellation) override;

 private:
  class Timers;
  std::shared_ptr<Timers> timers_;
};

}  // namespace stillow::platform
