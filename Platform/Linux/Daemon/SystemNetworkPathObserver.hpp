#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

#include "StillowAuthority/NetworkPathObserving.hpp"
#include "StillowConcurrency/Sleeper.hpp"
#include "StillowConcurrency/Task.hpp"

namespace stillow::platform {

/// Follows the network through rtnetlink: links, addresses and default routes.
///
/// Notifications only say that it is time to look; a look asks for everything anew. So it makes no
/// difference in what order they come or whether the kernel had to drop some. A burst of them, as
/// when a link comes up, makes one look: `settling` after the first.
class SystemNetworkPathObserver final : public authority::NetworkPathObserving {
 public:
  static constexpr std::chrono::nanoseconds defaultSettling = std::chrono::milliseconds(250);

  /// `executor` belongs to an execution context that can wait for descriptors.
  SystemNetworkPathObserver(concurrency::Executor executor,
                            std::shared_ptr<concurrency::Sleeper> sleeper,
                            std::chrono::nanoseconds settling = defaultSettling);
  /// Ends every observation.
  ~SystemNetworkPathObserver() override;
  SystemNetworkPathObserver(const SystemNetworkPathObserver&) = delete;
  SystemNetworkPathObserver& operator=(const SystemNetworkPathObserver&) = delete;

  /// A reader who finishes the channel is noticed with the network's next change.
  [[nodiscard]] concurrency::Channel<authority::NetworkPathSnapshot> paths() override;

 private:
  struct Observation;

  const concurrency::Executor executor_;
  const std::shared_ptr<concurrency::Sleeper> sleeper_;
  const std::chrono::nanoseconds settling_;
  std::mutex mutex_;
  std::vector<std::weak_ptr<Observation>> observations_;  // guarded by mutex_
};

}  // namespace stillow::platform
