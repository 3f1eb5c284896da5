#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include "StillowConcurrency/OneShot.hpp"
#include "StillowConcurrency/Task.hpp"

namespace stillow::test {

/// Where a fake can be stopped in the middle of a call. Open until `hold`.
class Gate {
 public:
  void hold() { isHeld_ = true; }
  /// Lets everybody who waits through, and everybody who comes.
  void open() {
    isHeld_ = false;
    for (const auto& waiter : std::exchange(waiting_, {})) waiter.settle(true);
  }
  [[nodiscard]] std::size_t waiting() const { return waiting_.size(); }

  [[nodiscard]] concurrency::Task<void> pass() {
    if (!isHeld_) co_return;
    const concurrency::OneShot<bool> opened;
    waiting_.push_back(opened);
    (void)co_await opened.wait();
  }

 private:
  bool isHeld_ = false;
  std::vector<concurrency::OneShot<bool>> waiting_;
};

}  // namespace stillow::test
