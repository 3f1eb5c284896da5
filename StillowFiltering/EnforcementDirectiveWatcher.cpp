#include "StillowFiltering/EnforcementDirectiveWatcher.hpp"

#include <utility>

namespace stillow::filtering {

using core::DegradedReason;
using core::EnforcementHealthStatus;

EnforcementDirectiveWatcher::EnforcementDirectiveWatcher(EnforcementDirectiveReading& reader,
                                                         DirectoryEventSource& events,
                                                         Handler handler,
                                                         HealthHandler healthHandler)
    : reader_(reader),
      events_(events),
      handler_(std::move(handler)),
      healthHandler_(std::move(healthHandler)) {}

EnforcementDirectiveWatcher::~EnforcementDirectiveWatcher() { stop(); }

std::expected<void, std::error_code> EnforcementDirectiveWatcher::start() {
  {
    const std::scoped_lock guard(lock_);
    if (std::exchange(isStarted_, true)) return {};
  }
  // Watching begins before the read: what is published between the two would be missed otherwise.
  const auto watching = events_.start([this] { reload(); });
  reload();
  return watching;
}

void EnforcementDirectiveWatcher::stop() {
  {
    const std::scoped_lock guard(lock_);
    if (!std::exchange(isStarted_, false)) return;
  }
  events_.stop();
}

std::optional<EnforcementDirectiveError> EnforcementDirectiveWatcher::lastReadError() const {
  const std::scoped_lock guard(lock_);
  return lastReadError_;
}

void EnforcementDirectiveWatcher::reload() {
  {
    const std::scoped_lock guard(lock_);
    if (isReloading_) {
      reloadIsPending_ = true;
      return;
    }
    isReloading_ = true;
  }
  // Two reloads at once could hand the older directive over last.
  do {
    reloadOnce();
  } while (takePendingReload());
}

bool EnforcementDirectiveWatcher::takePendingReload() {
  const std::scoped_lock guard(lock_);
  isReloading_ = std::exchange(reloadIsPending_, false);
  return isReloading_;
}

void EnforcementDirectiveWatcher::reloadOnce() {
  const auto directive = reader_.read();
  bool hadAdopted = false;
  {
    const std::scoped_lock guard(lock_);
    hadAdopted = hasAdopted_;
    lastReadError_ = directive ? std::nullopt : std::optional(directive.error());
    if (directive && *directive) hasAdopted_ = true;
  }
  if (directive && *directive) {
    handler_(**directive);
    healthHandler_(EnforcementHealthStatus::healthy{});
  } else if (hadAdopted) {
    healthHandler_(EnforcementHealthStatus::degraded{DegradedReason::recoveringFromCorruption});
  } else if (!directive) {
    // There is nothing to enforce. Without any file, by contrast, nothing was ever asked for.
    healthHandler_(EnforcementHealthStatus::degraded{DegradedReason::failedOpen});
  }
}

}  // namespace stillow::filtering
