#include "StillowConcurrency/Turn.hpp"

#include <optional>

namespace stillow::concurrency {

struct TurnQueue {
  std::mutex mutex;
  bool isTaken = false;
  std::deque<OneShot<bool>> waiting;
};

Turn::Turn() : queue_(std::make_shared<TurnQueue>()) {}

Task<Turn::Holder> Turn::takeFrom(std::shared_ptr<TurnQueue> queue) {
  std::optional<OneShot<bool>> mine;
  {
    const std::lock_guard lock(queue->mutex);
    if (queue->isTaken) mine = queue->waiting.emplace_back();
    queue->isTaken = true;
  }
  if (mine) (void)co_await mine->wait();
  co_return Holder(std::move(queue));
}

void Turn::passOn(TurnQueue& queue) {
  std::optional<OneShot<bool>> next;
  {
    const std::lock_guard lock(queue.mutex);
    if (queue.waiting.empty()) {
      queue.isTaken = false;
      return;
    }
    next = std::move(queue.waiting.front());
    queue.waiting.pop_front();
  }
  next->settle(true);
}

}  // namespace stillow::concurrency
