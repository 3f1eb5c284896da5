#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <utility>
#include <vector>

#include <boost/asio/execution.hpp>
#include <boost/asio/execution_context.hpp>

#include "StillowConcurrency/BlockingExecutor.hpp"
#include "StillowConcurrency/Sleeper.hpp"
#include "StillowConcurrency/Task.hpp"

namespace stillow::test {

/// One thread, virtual time, and a seed that decides which ready piece of work runs next. The same
/// seed gives the same run. Nothing here is thread-safe: everything happens on the test's own
/// thread.
class DeterministicExecutor : public boost::asio::execution_context {
 public:
  explicit DeterministicExecutor(std::uint64_t seed = 0) : random_(seed) {}
  ~DeterministicExecutor();

  [[nodiscard]] concurrency::Executor executor();
  [[nodiscard]] std::shared_ptr<concurrency::Sleeper> sleeper();
  /// Runs blocking work in turn with everything else, on the same thread.
  [[nodiscard]] std::shared_ptr<concurrency::BlockingExecutor> blockingExecutor();

  /// Virtual time since the start; moves only in `advance` and `skip`.
  [[nodiscard]] std::chrono::nanoseconds now() const noexcept { return now_; }

  /// Runs one ready piece of work; false if none was ready.
  bool step();
  /// Runs until nothing is ready. Gives up, failing the process, after `stepsMax` steps: a busy
  /// loop.
  void runReady(std::size_t stepsMax = 1'000'000);
  /// Moves time forward, waking each sleeper at its own moment, and runs what becomes ready.
  void advance(std::chrono::nanoseconds duration);
  /// Lets time pass while nobody runs, as when the machine is asleep: what should have woken
  /// meanwhile becomes ready at the end, all of it at once. Runs nothing.
  void skip(std::chrono::nanoseconds duration);
  [[nodiscard]] std::size_t sleeperCount() const noexcept { return sleepers_.size(); }
  [[nodiscard]] std::optional<std::chrono::nanoseconds> nextWakeUp() const;
  std::mt19937_64& random() noexcept { return random_; }

  /// Runs `task` until it is done, without moving time; fails the process if it cannot finish.
  template <class T>
  T run(concurrency::Task<T> task) {
    auto result = std::make_shared<std::optional<T>>();
    concurrency::spawn(executor(), storeResult<T>(std::move(task), result));
    runReady();
    core::require(result->has_value(), "the task waits for something that never comes");
    return std::move(**result);
  }
  void run(concurrency::Task<void> task) {
    auto isDone = std::make_shared<bool>(false);
    concurrency::spawn(executor(), noteEnd(std::move(task), isDone));
    runReady();
    core::require(*isDone, "the task waits for something that never comes");
  }
  /// Starts `task`; its result appears in the returned place once it is there.
  template <class T>
  std::shared_ptr<std::optional<T>> start(concurrency::Task<T> task) {
    auto result = std::make_shared<std::optional<T>>();
    concurrency::spawn(executor(), storeResult<T>(std::move(task), result));
    return result;
  }

 private:
  template <class T>
  static concurrency::Task<void> storeResult(concurrency::Task<T> task,
                                             std::shared_ptr<std::optional<T>> place) {
    T result = co_await std::move(task);
    place->emplace(std::move(result));
  }
  static concurrency::Task<void> noteEnd(concurrency::Task<void> task,
                                         std::shared_ptr<bool> isDone) {
    co_await std::move(task);
    *isDone = true;
  }

  struct Work {
    virtual ~Work() = default;
    virtual void run() = 0;
  };
  template <class Function>
  struct WorkOf final : Work {
    explicit WorkOf(Function f) : function(std::move(f)) {}
    void run() override { std::move(function)(); }
    Function function;
  };

  class Handle {
   public:
    explicit Handle(DeterministicExecutor& owner) noexcept : owner_(&owner) {}

    [[nodiscard]] boost::asio::execution_context& query(
        boost::asio::execution::context_t) const noexcept {
      return *owner_;
    }
    [[nodiscard]] static constexpr boost::asio::execution::blocking_t query(
        boost::asio::execution::blocking_t) noexcept {
      return boost::asio::execution::blocking.never;
    }
    template <class Function>
    void execute(Function&& function) const {
      using Stored = WorkOf<std::decay_t<Function>>;
      owner_->ready_.push_back(std::make_unique<Stored>(std::forward<Function>(function)));
    }
    friend bool operator==(const Handle& left, const Handle& right) noexcept {
      return left.owner_ == right.owner_;
    }
    friend bool operator!=(const Handle& left, const Handle& right) noexcept {
      return !(left == right);
    }

   private:
    DeterministicExecutor* owner_;
  };
  class VirtualSleeper;
  class InlineBlockingExecutor;

  std::mt19937_64 random_;
  std::chrono::nanoseconds now_{0};
  std::vector<std::unique_ptr<Work>> ready_;
  // Woken in order of their moment, then of their arrival.
  std::multimap<std::chrono::nanoseconds, std::function<void()>> sleepers_;
  bool isEnding_ = false;
};

}  // namespace stillow::test
