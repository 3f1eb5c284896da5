#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/query.hpp>

#include "StillowConcurrency/PendingWaits.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowCore/Invariant.hpp"

namespace stillow::concurrency {

/// One value that is waited for by at most one task. The first `settle` wins; later ones are
/// ignored.
///
/// Copies share the value. `settle` may be called from any thread, before or after the wait began;
/// the waiter is resumed through its own executor, never inside `settle`. A wait that nobody
/// settles ends with its execution context.
template <class T>
class OneShot {
 public:
  OneShot() : state_(std::make_shared<State>()) {}

  /// False if a value was settled before: then `value` is dropped.
  bool settle(T value) const {
    std::optional<Waiter> waiter;
    {
      const std::lock_guard lock(state_->mutex);
      if (state_->isFinished) return false;
      state_->isFinished = true;
      if (!state_->waiter) {
        state_->settled.emplace(std::move(value));
        return true;
      }
      waiter = std::exchange(state_->waiter, std::nullopt);
    }
    waiter->pending->remove(waiter->position);
    waiter->resume(std::move(value));
    return true;
  }

  [[nodiscard]] bool isFinished() const {
    const std::lock_guard lock(state_->mutex);
    return state_->isFinished;
  }

  /// The value, now or later. At most one call.
  [[nodiscard]] Task<T> wait() const { return waitFor(state_); }

 private:
  struct Waiter {
    std::function<void(T)> resume;
    PendingWaits* pending;
    PendingWaits::Position position;
  };

  struct State final : AbandonableWait {
    std::mutex mutex;
    std::optional<Waiter> waiter;  // the waiting task, if any
    std::optional<T> settled;      // a value that came before the wait
    bool isFinished = false;

    void abandon() override {
      std::optional<Waiter> abandoned;  // destroyed behind the lock: it may own this state
      const std::lock_guard lock(mutex);
      isFinished = true;
      abandoned.swap(waiter);
    }
  };

  // A static coroutine: it keeps the state alive whatever becomes of the object.
  static Task<T> waitFor(std::shared_ptr<State> state) {
    // Named, and no aggregate: GCC 12 destroys an aggregate temporary of a co_await expression
    // twice.
    const Initiate initiate(std::move(state));
    T value = co_await boost::asio::async_initiate<const boost::asio::use_awaitable_t<>, void(T)>(
        initiate, boost::asio::use_awaitable);
    co_return value;
  }

  struct Initiate {
    explicit Initiate(std::shared_ptr<State> shared) : state(std::move(shared)) {}
    std::shared_ptr<State> state;

    template <class Handler>
    void operator()(Handler&& handler) const {
      // std::function wants copies, a completion handler is movable only.
      auto shared = std::make_shared<std::decay_t<Handler>>(std::forward<Handler>(handler));
      auto& context = boost::asio::query(boost::asio::get_associated_executor(*shared),
                                         boost::asio::execution::context);
      const auto resume = [shared](T value) {
        const auto executor = boost::asio::get_associated_executor(*shared);
        boost::asio::post(executor,
                          [handler = std::move(*shared), value = std::move(value)]() mutable {
                            std::move(handler)(std::move(value));
                          });
      };
      std::optional<T> settled;
      {
        const std::lock_guard lock(state->mutex);
        core::require(!state->waiter, "a OneShot has one waiter");
        if (!state->settled) {
          auto& pending = boost::asio::use_service<PendingWaits>(context);
          state->waiter.emplace(Waiter{resume, &pending, pending.add(state)});
          return;
        }
        settled = std::exchange(state->settled, std::nullopt);
      }
      resume(std::move(*settled));
    }
  };

  std::shared_ptr<State> state_;
};

}  // namespace stillow::concurrency
