#include "PlatformDarwinDaemon/NEFilterPathObserver.hpp"

#import <NetworkExtension/NetworkExtension.h>

#include <atomic>

#import "PlatformDarwinDaemon/NotificationTokens.h"

namespace stillow::platform {

struct NEFilterPathObserver::Implementation {
  NotificationTokens tokens{NSNotificationCenter.defaultCenter};
};

NEFilterPathObserver::NEFilterPathObserver()
    : implementation_(std::make_unique<Implementation>()) {}
NEFilterPathObserver::~NEFilterPathObserver() = default;

concurrency::Channel<authority::FilterPathObservation> NEFilterPathObserver::observations() {
  const concurrency::Channel<authority::FilterPathObservation> channel(1);
  const auto changes = std::make_shared<std::atomic<std::uint64_t>>(0);
  implementation_->tokens.observe(NEFilterConfigurationDidChangeNotification, [channel, changes] {
    return channel.give({.configurationChanges = ++*changes});
  });
  return channel;
}

}  // namespace stillow::platform
