#include "StillowConcurrency/ThreadBlockingExecutor.hpp"

#include <boost/asio/post.hpp>

namespace stillow::concurrency {

ThreadBlockingExecutor::~ThreadBlockingExecutor() { stop(); }

void ThreadBlockingExecutor::stop() {
  pool_.stop();
  pool_.join();
}

void ThreadBlockingExecutor::submit(std::function<void()> work) {
  boost::asio::post(pool_, std::move(work));
}

}  // namespace stillow::concurrency
