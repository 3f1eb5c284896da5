#pragma once

#include <optional>
#include <type_traits>
#include <utility>

#include "StillowConcurrency/Task.hpp"

namespace stillow::concurrency {

/// A strand of its own on `executor`: what it runs comes one at a time, in order.
///
/// Better than Asio's `make_strand`, whose strand on an `Executor` looks up its executor at run
/// time at each step and does not fit into an `Executor` itself, so that each copy is an
/// allocation. Here the strand on an io_context, which is the daemon's executor, is of that
/// context's own type.
[[nodiscard]] Executor makeStrand(const Executor& executor);

/// The strand of a serialised object. Each public operation of such an object is
/// `co_return co_await serial_.run(body(...))`: the body runs on the strand, so the object's state
/// needs no lock. While a body is suspended other operations of the object may run; look again
/// after each `co_await`.
class Strand {
 public:
  explicit Strand(const Executor& executor) : strand_(makeStrand(executor)) {}

  /// Runs `body` on the strand and comes back to the caller's executor with its result. The caller
  /// keeps the object alive until then.
  template <class T>
  [[nodiscard]] Task<T> run(Task<T> body) const {
    if constexpr (std::is_void_v<T> || std::is_default_constructible_v<T>) {
      return boost::asio::co_spawn(strand_, std::move(body), boost::asio::use_awaitable);
    } else {
      return runWrapped(strand_, std::move(body));
    }
  }

  [[nodiscard]] Executor executor() const { return strand_; }

 private:
  // Asio makes an empty result to go with an exception, so a type that has none is wrapped.
  template <class T>
  static Task<std::optional<T>> wrapping(Task<T> body) {
    T result = co_await std::move(body);
    co_return std::optional<T>(std::move(result));
  }
  template <class T>
  static Task<T> runWrapped(Executor strand, Task<T> body) {
    std::optional<T> result = co_await boost::asio::co_spawn(strand, wrapping(std::move(body)),
                                                             boost::asio::use_awaitable);
    co_return std::move(*result);
  }

  Executor strand_;
};

}  // namespace stillow::concurrency
