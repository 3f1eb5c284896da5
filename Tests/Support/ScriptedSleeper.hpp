#pragma once

#include <chrono>
#include <memory>
#include <utility>
#include <vector>

#include "StillowConcurrency/OneShot.hpp"
#include "StillowConcurrency/Sleeper.hpp"

namespace stillow::test {

/// A sleeper whose every sleep the test ends.
class ScriptedSleeper final : public concurrency::Sleeper {
 public:
  struct Sleep {
    std::chrono::nanoseconds duration;
    concurrency::OneShot<concurrency::SleepOutcome> end;
    bool isCancelled = false;
  };

  concurrency::Task<concurrency::SleepOutcome> sleep(
      std::chrono::nanoseconds duration, concurrency::Cancellation cancellation) override {
    auto sleep = std::make_shared<Sleep>(Sleep{duration, {}});
    sleeps.push_back(sleep);
    if (returnsAtOnce) sleep->end.settle(concurrency::SleepOutcome::elapsed);
    return wait(std::move(sleep), std::move(cancellation), ignoresCancellation);
  }

  /// Lets the time of the sleep that began as number `index` pass.
  void elapse(std::size_t index) {
    sleeps.at(index)->end.settle(concurrency::SleepOutcome::elapsed);
  }

  bool returnsAtOnce = false;
  /// As if every sleep were over just before it is cancelled, and the news came later.
  bool ignoresCancellation = false;
  std::vector<std::shared_ptr<Sleep>> sleeps;

 private:
  static concurrency::Task<concurrency::SleepOutcome> wait(std::shared_ptr<Sleep> sleep,
                                                           concurrency::Cancellation cancellation,
                                                           bool ignoresCancellation) {
    const auto registration = cancellation.onCancel([sleep, ignoresCancellation] {
      sleep->isCancelled = true;
      if (!ignoresCancellation) sleep->end.settle(concurrency::SleepOutcome::cancelled);
    });
    const auto outcome = co_await sleep->end.wait();
    co_return outcome;
  }
};

}  // namespace stillow::test
