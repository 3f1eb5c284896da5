#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "StillowConcurrency/Sleeper.hpp"
#include "StillowConcurrency/Task.hpp"

namespace stillow::platform {

/// Takes one line for the log. Any thread.
using LogSink = std::function<void(std::string)>;

/// Lines that strangers cause. Each of them is worth one, but a stranger that connects a thousand
/// times a second must not push everything else out of the journal: past so many in a while they
/// are counted, and the number is logged at the while's end.
class RefusalLog final : public std::enable_shared_from_this<RefusalLog> {
 public:
  RefusalLog(concurrency::Executor executor, std::shared_ptr<concurrency::Sleeper> sleeper,
             LogSink sink, std::size_t linesMax, std::chrono::nanoseconds window)
      : executor_(std::move(executor)),
        sleeper_(std::move(sleeper)),
        sink_(std::move(sink)),
        linesMax_(linesMax),
        window_(window) {}

  void write(std::string line);

 private:
  static concurrency::Task<void> endWindow(std::weak_ptr<RefusalLog> weak,
                                           std::shared_ptr<concurrency::Sleeper> sleeper,
                                           std::chrono::nanoseconds window);

  const concurrency::Executor executor_;
  const std::shared_ptr<concurrency::Sleeper> sleeper_;
  const LogSink sink_;
  const std::size_t linesMax_;
  const std::chrono::nanoseconds window_;

  std::mutex mutex_;
  std::size_t linesInWindow_ = 0;  ///< 0: no window is open
};

}  // namespace stillow::platform
