#include "PlatformDarwinDaemon/SystemProjectionInvalidationSource.hpp"

#import <Foundation/Foundation.h>

#include <vector>

#import "PlatformDarwinDaemon/NotificationTokens.h"

namespace stillow::platform {

using authority::ProjectionInvalidation;
using InvalidationChannel = concurrency::Channel<ProjectionInvalidation>;

struct SystemProjectionInvalidationSource::Implementation {
  NotificationTokens tokens{NSNotificationCenter.defaultCenter};
  std::vector<InvalidationChannel> channels;
};

SystemProjectionInvalidationSource::SystemProjectionInvalidationSource()
    : implementation_(std::make_unique<Implementation>()) {}

SystemProjectionInvalidationSource::~SystemProjectionInvalidationSource() {
  for (const auto& channel : implementation_->channels) channel.finish();
}

InvalidationChannel SystemProjectionInvalidationSource::invalidations() {
  const InvalidationChannel channel(pendingMax);
  const auto observe = [&](NSNotificationName name, ProjectionInvalidation invalidation) {
    implementation_->tokens.observe(name,
                                    [channel, invalidation] { return channel.give(invalidation); });
  };
  observe(NSSystemClockDidChangeNotification, ProjectionInvalidation::systemClockChanged);
  observe(NSSystemTimeZoneDidChangeNotification, ProjectionInvalidation::timeZoneChanged);
  std::erase_if(implementation_->channels,
                [](const InvalidationChannel& old) { return old.isFinished(); });
  implementation_->channels.push_back(channel);
  return channel;
}

}  // namespace stillow::platform
