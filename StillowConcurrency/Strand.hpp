#pragma once

#include <utility>

#include <boost/asio/strand.hpp>

#include "StillowConcurrency/Task.hpp"

namespace stillow::concurrency {

/// The strand of a serialised object. Each public operation of such an object is
/// `co_return co_await serial_.run(body(...))`: the body runs on the strand, so the object's state
/// needs no lock. While a body is suspended other operations of the object may run; look again
/// after each `co_await`.
class Strand {
 public:
  explicit Strand(const Executor& executor) : strand_(boost::asio::make_strand(executor)) {}

  /// Runs `body` on the strand and comes back to the caller's executor with its result. The caller
  /// keeps the object alive until then.
  template <class T>
  [[nodiscard]] Task<T> run(Task<T> body) const {
    return boost::asio::co_spawn(strand_, std::move(body), boost::asio::use_awaitable);
  }

  [[nodiscard]] Executor executor() const { return strand_; }

 private:
  boost::asio::strand<Executor> strand_;
};

}  // namespace stillow::concurrency
