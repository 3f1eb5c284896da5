#include "PlatformLinuxDaemon/SystemProjectionInvalidationSource.hpp"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <limits>
#include <string_view>
#include <utility>

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/strand.hpp>
#include <boost/system/error_code.hpp>
#include <sys/inotify.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace stillow::platform {

namespace {

namespace asio = boost::asio;
using authority::ProjectionInvalidation;
using concurrency::Channel;
using concurrency::Task;
using Descriptor = asio::posix::stream_descriptor;

/// However the name comes to stand for another zone: replaced, made, removed, written to.
constexpr std::uint32_t zoneEvents =
    IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_CLOSE_WRITE | IN_ONLYDIR;

/// Whether the pending events of an inotify descriptor concern `name`. Empties it.
bool takeZoneChange(int descriptor, std::string_view name) {
  alignas(inotify_event) std::array<char, 4096> buffer;
  bool isConcerned = false;
  while (true) {
    const ssize_t length = ::read(descriptor, buffer.data(), buffer.size());
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) return isConcerned;
    const char* at = buffer.data();
    const char* const end = at + length;
    while (at < end) {
      inotify_event event{};
      std::memcpy(&event, at, sizeof event);
      // The kernel pads the name with zeros up to `len`.
      const char* const text = at + sizeof event;
      if ((event.mask & IN_Q_OVERFLOW) != 0) isConcerned = true;
      if (event.len > 0 && std::string_view(text, ::strnlen(text, event.len)) == name) {
        isConcerned = true;
      }
      at = text + event.len;
    }
  }
}

core::FileDescriptor zoneDescriptor(const std::string& directory) {
  core::FileDescriptor descriptor(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!descriptor) return {};
  if (::inotify_add_watch(descriptor.get(), directory.c_str(), zoneEvents) < 0) return {};
  return descriptor;
}

}  // namespace

core::FileDescriptor TimerClockChangeNotifier::open() {
  core::FileDescriptor timer(::timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK));
  if (!timer) return {};
  itimerspec never{};
  never.it_value.tv_sec = std::numeric_limits<std::time_t>::max();
  if (::timerfd_settime(timer.get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &never,
                        nullptr) != 0) {
    return {};
  }
  return timer;
}

bool TimerClockChangeNotifier::takeChange(int descriptor) {
  std::uint64_t expirations = 0;
  return ::read(descriptor, &expirations, sizeof expirations) < 0 && errno == ECANCELED;
}

/// One stream and the two descriptors behind it. Touched on its strand only, but for the channel.
struct SystemProjectionInvalidationSource::Watch {
  using WatchStrand = asio::strand<concurrency::Executor>;

  Watch(const WatchStrand& serial, std::shared_ptr<ClockChangeNotifying> notifier, std::string name)
      : strand(serial),
        clock(std::move(notifier)),
        zoneName(std::move(name)),
        clockChanges(serial),
        zoneChanges(serial) {}

  static void assign(Descriptor& to, core::FileDescriptor from) {
    if (!from) return;
    boost::system::error_code error;
    to.assign(from.get(), error);
    if (!error) (void)from.release();
  }

  void close() {
    boost::system::error_code ignored;  // closed is closed
    (void)clockChanges.close(ignored);
    (void)zoneChanges.close(ignored);
  }

  static Task<void> followClock(std::shared_ptr<Watch> self) {
    while (true) {
      const bool hasEvent = co_await isReadable(self->clockChanges);
      if (!hasEvent) co_return;
      if (!self->clock->takeChange(self->clockChanges.native_handle())) continue;
      if (!self->channel.give(ProjectionInvalidation::systemClockChanged)) self->close();
    }
  }
  static Task<void> followZone(std::shared_ptr<Watch> self) {
    while (true) {
      const bool hasEvent = co_await isReadable(self->zoneChanges);
      if (!hasEvent) co_return;
      if (!takeZoneChange(self->zoneChanges.native_handle(), self->zoneName)) continue;
      if (!self->channel.give(ProjectionInvalidation::timeZoneChanged)) self->close();
    }
  }
  /// False once the descriptor is closed, or cannot be waited for.
  static Task<bool> isReadable(Descriptor& descriptor) {
    if (!descriptor.is_open()) co_return false;
    boost::system::error_code error;
    co_await descriptor.async_wait(Descriptor::wait_read,
                                   asio::redirect_error(asio::use_awaitable, error));
    co_return !error && descriptor.is_open();
  }

  WatchStrand strand;
  std::shared_ptr<ClockChangeNotifying> clock;
  std::string zoneName;
  Channel<ProjectionInvalidation> channel{pendingMax};
  Descriptor clockChanges;
  Descriptor zoneChanges;
};

SystemProjectionInvalidationSource::SystemProjectionInvalidationSource(
    concurrency::Executor executor, std::shared_ptr<ClockChangeNotifying> clock, TimeZoneLink zone)
    : executor_(std::move(executor)), clock_(std::move(clock)), zone_(std::move(zone)) {}

SystemProjectionInvalidationSource::~SystemProjectionInvalidationSource() {
  for (const auto& weak : watches_) {
    const auto watch = weak.lock();
    if (!watch) continue;
    watch->channel.finish();
    asio::post(watch->strand, [watch] { watch->close(); });
  }
}

Channel<ProjectionInvalidation> SystemProjectionInvalidationSource::invalidations() {
  const auto watch = std::make_shared<Watch>(asio::make_strand(executor_), clock_, zone_.name);
  // Opened before this returns, so that nothing that happens from now on is missed.
  Watch::assign(watch->clockChanges, clock_->open());
  Watch::assign(watch->zoneChanges, zoneDescriptor(zone_.directory));
  std::erase_if(watches_, [](const auto& weak) { return weak.expired(); });
  watches_.push_back(watch);
  concurrency::spawn(watch->strand, Watch::followClock(watch));
  concurrency::spawn(watch->strand, Watch::followZone(watch));
  return watch->channel;
}

}  // namespace stillow::platform
