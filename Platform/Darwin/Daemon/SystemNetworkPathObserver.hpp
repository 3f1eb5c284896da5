#pragma once

#include <memory>

#include "StillowAuthority/NetworkPathObserving.hpp"

namespace stillow::platform {

/// The network path as the system's own monitor sees it, told on a serial queue of the daemon's.
class SystemNetworkPathObserver final : public authority::NetworkPathObserving {
 public:
  static constexpr const char* queueLabel = "com.larchmoor.Stillow.daemon.path";

  SystemNetworkPathObserver();
  /// Ends every stream.
  ~SystemNetworkPathObserver() override;
  SystemNetworkPathObserver(const SystemNetworkPathObserver&) = delete;
  SystemNetworkPathObserver& operator=(const SystemNetworkPathObserver&) = delete;

  [[nodiscard]] concurrency::Channel<authority::NetworkPathSnapshot> paths() override;

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace stillow::platform
