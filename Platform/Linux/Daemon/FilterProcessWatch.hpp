#pragma once

#include <functional>
#include <memory>

#include "PlatformLinuxPeer/PinnedProcess.hpp"
#include "StillowConcurrency/Task.hpp"

namespace stillow::platform {

/// Waits for the end of the filter's process, which the kernel tells by its pidfd: no polling, and
/// no confusion with a later process of the same id.
///
/// Follows one process at a time, the last one that it was given. Any thread.
class FilterProcessWatch {
 public:
  /// `executor` belongs to an execution context that can wait for descriptors. `ended` is called
  /// once for each process that came to its end while it was followed, one call at a time.
  FilterProcessWatch(const concurrency::Executor& executor, std::function<void()> ended);
  ~FilterProcessWatch();
  FilterProcessWatch(const FilterProcessWatch&) = delete;
  FilterProcessWatch& operator=(const FilterProcessWatch&) = delete;

  /// Follows `process` from now on. The end of one that has ended already, or that was followed
  /// until now and has ended unnoticed, is told all the same.
  void follow(PinnedProcess process);

  /// Whether a process is followed that has not ended, as far as is known.
  [[nodiscard]] bool isFollowing() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace stillow::platform
