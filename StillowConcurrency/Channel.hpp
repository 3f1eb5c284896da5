#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "StillowConcurrency/OneShot.hpp"
#include "StillowConcurrency/Task.hpp"

namespace stillow::concurrency {

/// A stream of values for one reader that keeps only the newest `capacity` undelivered ones: a slow
/// reader loses the oldest, never the newest. Copies share the stream; any thread may give and
/// finish.
template <class T>
class Channel {
 public:
  explicit Channel(std::size_t capacity) : state_(std::make_shared<State>(capacity)) {}

  /// False once finished: the value is dropped.
  bool give(T value) const {
    std::optional<OneShot<std::optional<T>>> reader;
    {
      const std::lock_guard lock(state_->mutex);
      if (state_->isFinished) return false;
      if (!state_->reader) {
        if (state_->values.size() == state_->capacity) state_->values.pop_front();
        state_->values.push_back(std::move(value));
        return true;
      }
      reader = std::exchange(state_->reader, std::nullopt);
    }
    reader->settle(std::optional<T>(std::move(value)));
    return true;
  }

  /// No further values; those undelivered are still read.
  void finish() const {
    std::optional<OneShot<std::optional<T>>> reader;
    {
      const std::lock_guard lock(state_->mutex);
      state_->isFinished = true;
      reader = std::exchange(state_->reader, std::nullopt);
    }
    if (reader) reader->settle(std::nullopt);
  }

  [[nodiscard]] bool isFinished() const {
    const std::lock_guard lock(state_->mutex);
    return state_->isFinished;
  }

  /// The next value if it is there already. For the reader.
  [[nodiscard]] std::optional<T> takeReady() const {
    const std::lock_guard lock(state_->mutex);
    if (state_->values.empty()) return std::nullopt;
    std::optional<T> value(std::move(state_->values.front()));
    state_->values.pop_front();
    return value;
  }

  /// The next value; none at the end. One reader at a time.
  [[nodiscard]] Task<std::optional<T>> next() const { return nextFrom(state_); }

 private:
  struct State {
    explicit State(std::size_t most) : capacity(most) {}
    std::mutex mutex;
    std::size_t capacity;
    std::deque<T> values;
    std::optional<OneShot<std::optional<T>>> reader;
    bool isFinished = false;
  };

  static Task<std::optional<T>> nextFrom(std::shared_ptr<State> state) {
    OneShot<std::optional<T>> arrival;
    {
      const std::lock_guard lock(state->mutex);
      if (!state->values.empty()) {
        std::optional<T> value(std::move(state->values.front()));
        state->values.pop_front();
        co_return value;
      }
      if (state->isFinished) co_return std::nullopt;
      state->reader = arrival;
    }
    std::optional<T> value = co_await arrival.wait();
    co_return value;
  }

  std::shared_ptr<State> state_;
};

}  // namespace stillow::concurrency
