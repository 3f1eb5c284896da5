#include "TestSupport/DeterministicExecutor.hpp"

#include "StillowConcurrency/OneShot.hpp"
#include "StillowCore/Invariant.hpp"

namespace stillow::test {

using concurrency::Cancellation;
using concurrency::OneShot;
using concurrency::SleepOutcome;
using concurrency::Task;

class DeterministicExecutor::VirtualSleeper final : public concurrency::Sleeper {
 public:
  explicit VirtualSleeper(DeterministicExecutor& owner) : owner_(&owner) {}

  Task<SleepOutcome> sleep(std::chrono::nanoseconds duration, Cancellation cancellation) override {
    return sleepIn(owner_, duration, std::move(cancellation));
  }

 private:
  static Task<SleepOutcome> sleepIn(DeterministicExecutor* owner, std::chrono::nanoseconds duration,
                                    Cancellation cancellation) {
    const OneShot<SleepOutcome> end;
    const auto limit = std::chrono::nanoseconds::max() - owner->now_;
    const auto wake = owner->sleepers_.emplace(owner->now_ + std::min(duration, limit),
                                               [end] { end.settle(SleepOutcome::elapsed); });
    // Set once the entry has left the table, so that a late cancellation does not erase another's.
    const auto isGone = std::make_shared<bool>(false);
    wake->second = [end, isGone] {
      *isGone = true;
      end.settle(SleepOutcome::elapsed);
    };
    const auto registration = cancellation.onCancel([owner, wake, end, isGone] {
      if (*isGone || owner->isEnding_) return;
      *isGone = true;
      owner->sleepers_.erase(wake);
      end.settle(SleepOutcome::cancelled);
    });
    const SleepOutcome outcome = co_await end.wait();
    co_return outcome;
  }

  DeterministicExecutor* owner_;
};

class DeterministicExecutor::InlineBlockingExecutor final : public concurrency::BlockingExecutor {
 public:
  explicit InlineBlockingExecutor(concurrency::Executor executor)
      : executor_(std::move(executor)) {}
  void submit(std::function<void()> work) override {
    boost::asio::post(executor_, std::move(work));
  }

 private:
  concurrency::Executor executor_;
};

DeterministicExecutor::~DeterministicExecutor() {
  // What never became ready is destroyed here, while the context that it refers to still stands.
  // Destroying a task may make another one ready or put one to sleep.
  // Destroying it may also cancel a sleep, whose place in the table is lost by then.
  isEnding_ = true;
  const auto dropWork = [this] {
    for (int round = 0; round < 1'000 && !(sleepers_.empty() && ready_.empty()); ++round) {
      const auto sleepers = std::exchange(sleepers_, {});
      const auto ready = std::exchange(ready_, {});
    }
  };
  dropWork();
  shutdown();
  dropWork();
}

concurrency::Executor DeterministicExecutor::executor() { return Handle(*this); }

std::shared_ptr<concurrency::Sleeper> DeterministicExecutor::sleeper() {
  return std::make_shared<VirtualSleeper>(*this);
}

std::shared_ptr<concurrency::BlockingExecutor> DeterministicExecutor::blockingExecutor() {
  return std::make_shared<InlineBlockingExecutor>(executor());
}

bool DeterministicExecutor::step() {
  if (ready_.empty()) return false;
  // Seed 0 keeps the order of arrival only by chance; order is never promised between strands.
  const std::size_t chosen = random_() % ready_.size();
  auto work = std::move(ready_[chosen]);
  ready_.erase(ready_.begin() + static_cast<std::ptrdiff_t>(chosen));
  work->run();
  return true;
}

void DeterministicExecutor::runReady(std::size_t stepsMax) {
  for (std::size_t steps = 0; step(); ++steps) {
    core::require(steps < stepsMax, "work that never comes to rest");
  }
}

void DeterministicExecutor::advance(std::chrono::nanoseconds duration) {
  const auto end = now_ + duration;
  runReady();
  while (!sleepers_.empty() && sleepers_.begin()->first <= end) {
    const auto first = sleepers_.begin();
    now_ = std::max(now_, first->first);
    const auto wake = std::move(first->second);
    sleepers_.erase(first);
    wake();
    runReady();
  }
  now_ = end;
}

void DeterministicExecutor::skip(std::chrono::nanoseconds duration) {
  now_ += duration;
  while (!sleepers_.empty() && sleepers_.begin()->first <= now_) {
    const auto wake = std::move(sleepers_.begin()->second);
    sleepers_.erase(sleepers_.begin());
    wake();
  }
}

std::optional<std::chrono::nanoseconds> DeterministicExecutor::nextWakeUp() const {
  if (sleepers_.empty()) return std::nullopt;
  return sleepers_.begin()->first;
}

}  // namespace stillow::test
