#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "StillowAuthority/ProjectionInvalidationSource.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowCore/FileDescriptor.hpp"

namespace stillow::platform {

/// A descriptor that becomes readable when the system clock was set.
class ClockChangeNotifying {
 public:
  virtual ~ClockChangeNotifying() = default;
  /// None if the system has none to spare. Close-on-exec and non-blocking.
  [[nodiscard]] virtual core::FileDescriptor open() = 0;
  /// Whether the clock was set since the last call. Leaves `descriptor` unreadable until it is
  /// again.
  [[nodiscard]] virtual bool takeChange(int descriptor) = 0;
};

/// A timer on CLOCK_REALTIME that never comes due and that the kernel cancels when the clock is
/// set.
class TimerClockChangeNotifier final : public ClockChangeNotifying {
 public:
  [[nodiscard]] core::FileDescriptor open() override;
  [[nodiscard]] bool takeChange(int descriptor) override;
};

/// Which link says what the time zone is.
struct TimeZoneLink {
  std::string directory = "/etc";
  std::string name = "localtime";
};

/// Tells of a system clock that was set and of a time zone that was chosen anew.
///
/// The zone is a link that is replaced as a whole, so its directory is watched for the name. What
/// cannot be watched is not told; projected end times are then right from the next tick on.
class SystemProjectionInvalidationSource final : public authority::ProjectionInvalidationSource {
 public:
  /// `executor` belongs to an execution context that can wait for descriptors.
  explicit SystemProjectionInvalidationSource(
      concurrency::Executor executor,
      std::shared_ptr<ClockChangeNotifying> clock = std::make_shared<TimerClockChangeNotifier>(),
      TimeZoneLink zone = {});
  /// Ends every stream; what watched for it is closed soon after, on the executor.
  ~SystemProjectionInvalidationSource() override;
  SystemProjectionInvalidationSource(const SystemProjectionInvalidationSource&) = delete;
  SystemProjectionInvalidationSource& operator=(const SystemProjectionInvalidationSource&) = delete;

  /// Of a reader that does not come the newest `pendingMax` are kept: each asks for the same.
  [[nodiscard]] concurrency::Channel<authority::ProjectionInvalidation> invalidations() override;

  static constexpr std::size_t pendingMax = 16;

 private:
  struct Watch;

  concurrency::Executor executor_;
  std::shared_ptr<ClockChangeNotifying> clock_;
  TimeZoneLink zone_;
  std::vector<std::weak_ptr<Watch>> watches_;
};

}  // namespace stillow::platform
