#pragma once

#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

namespace stillow::client {

/// The result of `work`, or none if it is not there within `limit`. Work that does not end is left
/// to itself on a thread of its own, so everything it touches must be its own; a file system that
/// hangs then costs a person `limit` and no more.
template <class Work>
[[nodiscard]] auto withinLimit(std::chrono::nanoseconds limit, Work work)
    -> std::optional<decltype(work())> {
  using Result = decltype(work());
  auto promise = std::make_shared<std::promise<Result>>();
  auto future = promise->get_future();
  try {
    std::thread([promise, work = std::move(work)]() mutable {
      promise->set_value(work());
    }).detach();
  } catch (const std::system_error&) {
    return std::nullopt;  // no thread to be had
  }
  if (future.wait_for(limit) != std::future_status::ready) return std::nullopt;
  return future.get();
}

}  // namespace stillow::client
