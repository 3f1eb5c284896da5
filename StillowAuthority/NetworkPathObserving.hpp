#pragma once

#include <set>
#include <string>

#include "StillowConcurrency/Channel.hpp"

namespace stillow::authority {

/// How the machine reaches the network at one moment.
struct NetworkPathSnapshot {
  bool isSatisfied = false;
  bool usesVPN = false;
  std::set<std::string> interfaces;  ///< names of those that carry traffic out

  friend bool operator==(const NetworkPathSnapshot&, const NetworkPathSnapshot&) = default;
};

class NetworkPathObserving {
 public:
  virtual ~NetworkPathObserving() = default;
  /// The present path at once, then one snapshot per change; only the newest unread one is kept.
  /// Finishing the channel ends the observation.
  [[nodiscard]] virtual concurrency::Channel<NetworkPathSnapshot> paths() = 0;

 protected:
  NetworkPathObserving() = default;
  NetworkPathObserving(const NetworkPathObserving&) = default;
  NetworkPathObserving& operator=(const NetworkPathObserving&) = default;
};

}  // namespace stillow::authority
