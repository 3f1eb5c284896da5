#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <utility>

#include "StillowConcurrency/OneShot.hpp"
#include "StillowConcurrency/Sleeper.hpp"
#include "StillowConcurrency/Task.hpp"

namespace stillow::concurrency {

namespace deadline {

template <class T>
Task<void> settleWithResult(Task<T> task, OneShot<std::optional<T>> first, Cancellation timer) {
  T result = co_await std::move(task);
  first.settle(std::optional<T>(std::move(result)));
  timer.cancel();
}

template <class T>
Task<void> settleWhenElapsed(std::shared_ptr<Sleeper> sleeper, std::chrono::nanoseconds limit,
                             OneShot<std::optional<T>> first, Cancellation timer) {
  const SleepOutcome outcome = co_await sleeper->sleep(limit, timer);
  if (outcome == SleepOutcome::elapsed) first.settle(std::nullopt);
}

}  // namespace deadline

/// The result of `task`, or none if it is not there within `limit`. The task is not stopped: it
/// runs to its own end and its result is dropped, so everything it touches must be its own.
template <class T>
[[nodiscard]] Task<std::optional<T>> within(std::chrono::nanoseconds limit,
                                            std::shared_ptr<Sleeper> sleeper, Task<T> task) {
  const Executor executor = co_await boost::asio::this_coro::executor;
  const OneShot<std::optional<T>> first;
  const Cancellation timer;
  spawn(executor, deadline::settleWithResult<T>(std::move(task), first, timer));
  spawn(executor, deadline::settleWhenElapsed<T>(std::move(sleeper), limit, first, timer));
  std::optional<T> result = co_await first.wait();
  co_return result;
}

}  // namespace stillow::concurrency
