#pragma once

#include <expected>
#include <functional>
#include <mutex>
#include <optional>
#include <system_error>

#include "StillowCore/EnforcementHealth.hpp"
#include "StillowFiltering/DirectoryEventSource.hpp"
#include "StillowFiltering/EnforcementDirective.hpp"
#include "StillowFiltering/EnforcementDirectiveStore.hpp"

namespace stillow::filtering {

/// Follows the published directive on the filter's side.
///
/// A directive once adopted stays in force until another can be read: a damaged, unreadable or
/// vanished file only changes the health. Both handlers are called by `start` on its own thread and
/// later wherever the event source calls, one change at a time and never under the watcher's lock.
class EnforcementDirectiveWatcher {
 public:
  using Handler = std::function<void(const EnforcementDirective&)>;
  using HealthHandler = std::function<void(const core::EnforcementHealthStatus&)>;

  /// `reader` and `events` have to outlive the watcher. Created stopped.
  EnforcementDirectiveWatcher(EnforcementDirectiveReading& reader, DirectoryEventSource& events,
                              Handler handler, HealthHandler healthHandler);
  EnforcementDirectiveWatcher(const EnforcementDirectiveWatcher&) = delete;
  EnforcementDirectiveWatcher& operator=(const EnforcementDirectiveWatcher&) = delete;
  ~EnforcementDirectiveWatcher();

  /// Reads once, so that what is published already is in force when this returns, and follows all
  /// later changes. On an error what was read stands, but no change will be noticed. Does nothing
  /// when started already.
  std::expected<void, std::error_code> start();
  void stop();

  /// Why the last read failed; none if it did not. For the log.
  [[nodiscard]] std::optional<EnforcementDirectiveError> lastReadError() const;

 private:
  void reload();
  void reloadOnce();
  /// Whether to reload once more; if not, the next event starts a reload of its own.
  bool takePendingReload();

  EnforcementDirectiveReading& reader_;
  DirectoryEventSource& events_;
  Handler handler_;
  HealthHandler healthHandler_;
  mutable std::mutex lock_;
  bool isStarted_ = false;
  bool isReloading_ = false;
  bool reloadIsPending_ = false;
  bool hasAdopted_ = false;
  std::optional<EnforcementDirectiveError> lastReadError_;
};

}  // namespace stillow::filtering
