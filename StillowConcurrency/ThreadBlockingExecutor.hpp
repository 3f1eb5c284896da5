#pragma once

#include <cstddef>

#include <boost/asio/thread_pool.hpp>

#include "StillowConcurrency/BlockingExecutor.hpp"

namespace stillow::concurrency {

/// Real threads. Destruction waits for work that has begun and drops the rest.
class ThreadBlockingExecutor final : public BlockingExecutor {
 public:
  explicit ThreadBlockingExecutor(std::size_t threads) : pool_(threads) {}
  ~ThreadBlockingExecutor() override;
  ThreadBlockingExecutor(const ThreadBlockingExecutor&) = delete;
  ThreadBlockingExecutor& operator=(const ThreadBlockingExecutor&) = delete;

  void submit(std::function<void()> work) override;

 private:
  boost::asio::thread_pool pool_;
};

}  // namespace stillow::concurrency
