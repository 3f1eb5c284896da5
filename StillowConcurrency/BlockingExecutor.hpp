#pragma once

#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

#include "StillowConcurrency/OneShot.hpp"
#include "StillowConcurrency/Task.hpp"

namespace stillow::concurrency {

/// Threads for system work that blocks: file writes with fsync, reading a peer's executable. Such
/// work never runs on the shared executor, where it would hold up others.
class BlockingExecutor {
 public:
  virtual ~BlockingExecutor() = default;
  /// Runs `work` on a thread of its own, in order of submission for an executor of one thread.
  virtual void submit(std::function<void()> work) = 0;

 protected:
  BlockingExecutor() = default;
  BlockingExecutor(const BlockingExecutor&) = default;
  BlockingExecutor& operator=(const BlockingExecutor&) = default;
};

/// Runs `work` on `executor` and gives its result; the caller's own thread is free meanwhile.
template <class Work>
[[nodiscard]] Task<std::invoke_result_t<Work&>> runBlocking(
    std::shared_ptr<BlockingExecutor> executor, Work work) {
  using Result = std::invoke_result_t<Work&>;
  static_assert(!std::is_void_v<Result>, "let the work say how it went");
  const OneShot<Result> done;
  executor->submit(
      [done, shared = std::make_shared<Work>(std::move(work))] { done.settle((*shared)()); });
  Result result = co_await done.wait();
  co_return result;
}

}  // namespace stillow::concurrency
