#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace stillow::concurrency {

/// Says once, to everybody who shares it, that work is no longer wanted. Copies share the state.
/// Any thread may call any operation.
class Cancellation {
  struct State {
    std::mutex mutex;
    bool isCancelled = false;
    std::uint64_t lastID = 0;
    std::map<std::uint64_t, std::function<void()>> callbacks;
  };

 public:
  Cancellation() : state_(std::make_shared<State>()) {}

  [[nodiscard]] bool isCancelled() const {
    const std::lock_guard lock(state_->mutex);
    return state_->isCancelled;
  }

  /// Runs what was registered, on this thread. A second call does nothing.
  void cancel() const {
    std::map<std::uint64_t, std::function<void()>> callbacks;
    {
      const std::lock_guard lock(state_->mutex);
      if (std::exchange(state_->isCancelled, true)) return;
      callbacks.swap(state_->callbacks);
    }
    for (const auto& [id, callback] : callbacks) callback();
  }

  /// Undone when it goes out of scope; the callback may then still be running on another thread, so
  /// it owns what it touches.
  class [[nodiscard]] Registration {
   public:
    Registration(Registration&&) noexcept = default;
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;
    Registration& operator=(Registration&&) = delete;
    ~Registration() {
      if (!state_) return;
      std::function<void()> dropped;
      const std::lock_guard lock(state_->mutex);
      if (const auto found = state_->callbacks.find(id_); found != state_->callbacks.end()) {
        dropped.swap(found->second);
        state_->callbacks.erase(found);
      }
    }

   private:
    friend class Cancellation;
    Registration(std::shared_ptr<State> state, std::uint64_t id)
        : state_(std::move(state)), id_(id) {}
    std::shared_ptr<State> state_;
    std::uint64_t id_;
  };

  /// Calls `callback` once when cancelled; at once, on this thread, if that has happened.
  Registration onCancel(std::function<void()> callback) const {
    {
      const std::lock_guard lock(state_->mutex);
      if (!state_->isCancelled) {
        const std::uint64_t id = ++state_->lastID;
        state_->callbacks.emplace(id, std::move(callback));
        return {state_, id};
      }
    }
    callback();
    return {nullptr, 0};
  }

 private:
  std::shared_ptr<State> state_;
};

}  // namespace stillow::concurrency
