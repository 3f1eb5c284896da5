#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <utility>

#include "StillowConcurrency/OneShot.hpp"
#include "StillowConcurrency/Task.hpp"

namespace stillow::concurrency {

/// Lets one task at a time into a unit of work that suspends, in order of arrival. A strand alone
/// would let others in at each suspension.
///
/// No task may wait for a turn while it holds one of the same object: it would wait for itself.
class Turn {
 public:
  /// The right to be inside; passes to the next in line when it is destroyed.
  class [[nodiscard]] Holder {
   public:
    Holder(Holder&&) noexcept = default;
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;
    Holder& operator=(Holder&&) = delete;
    ~Holder() {
      if (queue_) passOn(*queue_);
    }

   private:
    friend class Turn;
    explicit Holder(std::shared_ptr<struct TurnQueue> queue) : queue_(std::move(queue)) {}
    std::shared_ptr<struct TurnQueue> queue_;
  };

  Turn();
  [[nodiscard]] Task<Holder> take() { return takeFrom(queue_); }

 private:
  static Task<Holder> takeFrom(std::shared_ptr<struct TurnQueue> queue);
  static void passOn(struct TurnQueue& queue);
  std::shared_ptr<struct TurnQueue> queue_;
};

}  // namespace stillow::concurrency
