#pragma once

#include <list>
#include <memory>
#include <mutex>

#include <boost/asio/execution_context.hpp>

namespace stillow::concurrency {

/// Somebody who waits and can be told that it is in vain.
class AbandonableWait {
 public:
  virtual ~AbandonableWait() = default;
  /// Destroys the waiting task. Called while the context shuts down, by one thread.
  virtual void abandon() = 0;

 protected:
  AbandonableWait() = default;
  AbandonableWait(const AbandonableWait&) = default;
  AbandonableWait& operator=(const AbandonableWait&) = default;
};

/// The tasks of one execution context that wait for a OneShot.
///
/// A waiting task usually owns what it waits for, and that owns the task: nobody else would ever
/// end them. When the context shuts down, which no other thread may use by then, they are
/// destroyed.
class PendingWaits final : public boost::asio::execution_context::service {
 public:
  using key_type = PendingWaits;  // the name that Asio looks for
  inline static boost::asio::execution_context::id id;

  explicit PendingWaits(boost::asio::execution_context& context) : service(context) {}

  using Position = std::list<std::weak_ptr<AbandonableWait>>::iterator;

  [[nodiscard]] Position add(std::weak_ptr<AbandonableWait> wait) {
    const std::lock_guard lock(mutex_);
    return waits_.insert(waits_.end(), std::move(wait));
  }
  void remove(Position position) {
    const std::lock_guard lock(mutex_);
    if (!isShutDown_) waits_.erase(position);
  }

 private:
  void shutdown() override {
    {
      const std::lock_guard lock(mutex_);
      isShutDown_ = true;
    }
    // Destroying one task may settle what another one waits for; the list itself stays as it is.
    for (const auto& wait : waits_) {
      if (const auto pending = wait.lock()) pending->abandon();
    }
  }

  std::mutex mutex_;
  std::list<std::weak_ptr<AbandonableWait>> waits_;
  bool isShutDown_ = false;
};

}  // namespace stillow::concurrency
