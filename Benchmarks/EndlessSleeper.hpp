#pragma once

#include <chrono>

#include "StillowConcurrency/OneShot.hpp"
#include "StillowConcurrency/Sleeper.hpp"

namespace stillow::benchmarks {

/// Where no time limit is to strike and whatever comes at intervals is asked for instead.
struct EndlessSleeper final : concurrency::Sleeper {
  concurrency::Task<concurrency::SleepOutcome> sleep(
      std::chrono::nanoseconds, concurrency::Cancellation cancellation) override {
    const concurrency::OneShot<concurrency::SleepOutcome> end;
    const auto registration =
        cancellation.onCancel([end] { end.settle(concurrency::SleepOutcome::cancelled); });
    const concurrency::SleepOutcome outcome = co_await end.wait();
    co_return outcome;
  }
};

}  // namespace stillow::benchmarks
