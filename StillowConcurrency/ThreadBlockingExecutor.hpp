#pragma once

#include <cstddef>

#include <boost/asio/thread_pool.hpp>

#include "StillowConcurrency/BlockingExecutor.hpp"

namespace stillow::concurrency {

/// Real threads. Destruction stops.
class ThreadBlockingExecutor final : public BlockingExecutor {
 public:
  explicit ThreadBlockingExecutor(std::size_t threads) : pool_(threads) {}
  ~ThreadBlockingExecutor() override;
  ThreadBlockingExecutor(const ThreadBlockingExecutor&) = delete;
  ThreadBlockingExecutor& operator=(const ThreadBlockingExecutor&) = delete;

  void submit(std::function<void()> work) override;

  /// Drops what has not begun and waits for what has, for good. Work that hands its result to an
  /// executor has to be over before that executor's context goes.
  void stop();

 private:
  boost::asio::thread_pool pool_;
};

}  // namespace stillow::concurrency
