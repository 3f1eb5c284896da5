#include "PlatformDarwinDaemon/SystemNetworkPathObserver.hpp"

#import <Network/Network.h>

#include <utility>
#include <vector>

namespace stillow::platform {

using authority::NetworkPathSnapshot;
using PathChannel = concurrency::Channel<NetworkPathSnapshot>;

namespace {

NetworkPathSnapshot snapshotOf(nw_path_t path) {
  // Filled by the block, which is done when the call returns.
  const auto interfaces = std::make_shared<std::set<std::string>>();
  nw_path_enumerate_interfaces(path, ^bool(nw_interface_t interface) {
    interfaces->insert(nw_interface_get_name(interface));
    return true;
  });
  return {.isSatisfied = nw_path_get_status(path) == nw_path_status_satisfied,
          .usesVPN = nw_path_uses_interface_type(path, nw_interface_type_other),
          .interfaces = std::move(*interfaces)};
}

/// One stream and the monitor that feeds it.
struct Observation {
  explicit Observation(PathChannel reader) : channel(std::move(reader)) {}
  Observation(const Observation&) = delete;
  Observation& operator=(const Observation&) = delete;
  ~Observation() {
    nw_path_monitor_cancel(monitor);
    channel.finish();
  }

  PathChannel channel;
  nw_path_monitor_t monitor = nw_path_monitor_create();
};

}  // namespace

struct SystemNetworkPathObserver::Implementation {
  dispatch_queue_t queue = dispatch_queue_create(queueLabel, DISPATCH_QUEUE_SERIAL);
  std::vector<std::shared_ptr<Observation>> observations;
};

SystemNetworkPathObserver::SystemNetworkPathObserver()
    : implementation_(std::make_unique<Implementation>()) {}
SystemNetworkPathObserver::~SystemNetworkPathObserver() = default;

PathChannel SystemNetworkPathObserver::paths() {
  auto& observations = implementation_->observations;
  std::erase_if(observations, [](const auto& old) { return old->channel.isFinished(); });
  const auto observation = std::make_shared<Observation>(PathChannel(1));
  const std::weak_ptr<Observation> weak = observation;
  nw_path_monitor_set_update_handler(observation->monitor, ^(nw_path_t path) {
    const auto live = weak.lock();
    if (!live) return;
    if (!live->channel.give(snapshotOf(path))) nw_path_monitor_cancel(live->monitor);
  });
  nw_path_monitor_set_queue(observation->monitor, implementation_->queue);
  nw_path_monitor_start(observation->monitor);
  observations.push_back(observation);
  return observation->channel;
}

}  // namespace stillow::platform
