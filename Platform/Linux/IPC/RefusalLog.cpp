#include "PlatformLinuxIPC/RefusalLog.hpp"

#include <utility>

namespace stillow::platform {

using concurrency::Task;

void RefusalLog::write(std::string line) {
  bool isFirst = false;
  bool isLogged = false;
  {
    const std::lock_guard lock(mutex_);
    isFirst = linesInWindow_ == 0;
    isLogged = linesInWindow_ < linesMax_;
    ++linesInWindow_;
  }
  if (isFirst) {
    concurrency::spawn(executor_, endWindow(weak_from_this(), sleeper_, window_));
  }
  if (isLogged) sink_(std::move(line));
}

Task<void> RefusalLog::endWindow(std::weak_ptr<RefusalLog> weak,
                                 std::shared_ptr<concurrency::Sleeper> sleeper,
                                 std::chrono::nanoseconds window) {
  const concurrency::Cancellation never;
  (void)co_await sleeper->sleep(window, never);
  const auto self = weak.lock();
  if (!self) co_return;
  std::size_t lines = 0;
  {
    const std::lock_guard lock(self->mutex_);
    lines = std::exchange(self->linesInWindow_, 0);
  }
  if (lines > self->linesMax_) {
    self->sink_(std::to_string(lines - self->linesMax_) +
                " more connections were refused or closed meanwhile");
  }
}

}  // namespace stillow::platform
