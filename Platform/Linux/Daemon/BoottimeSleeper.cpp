#include "PlatformLinuxDaemon/BoottimeSleeper.hpp"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <memory>
#include <utility>

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/system/error_code.hpp>
#include <sys/timerfd.h>
#include <unistd.h>

#include "StillowCore/FileDescriptor.hpp"

namespace stillow::platform {

namespace {

namespace asio = boost::asio;
using concurrency::Cancellation;
using concurrency::Executor;
using concurrency::SleepOutcome;
using concurrency::Task;
using SleepStrand = asio::strand<Executor>;

/// Nobody waits longer, and moments further away would overflow some clock.
constexpr std::chrono::nanoseconds longest = std::chrono::hours(24 * 365);

/// A timer that becomes readable once `duration` has passed; none if the system has no descriptor
/// left.
core::FileDescriptor timerDescriptor(std::chrono::nanoseconds duration) {
  core::FileDescriptor timer(::timerfd_create(CLOCK_BOOTTIME, TFD_CLOEXEC | TFD_NONBLOCK));
  if (!timer) return {};
  timespec now{};
  if (::clock_gettime(CLOCK_BOOTTIME, &now) != 0) return {};
  // An absolute moment: what happens between reading the clock and setting the timer, a sleep of
  // the machine even, does not make the sleep longer.
  constexpr long nanosecondsPerSecond = 1'000'000'000;
  itimerspec wake{};
  const long nanoseconds = now.tv_nsec + duration.count() % nanosecondsPerSecond;
  wake.it_value.tv_sec =
      now.tv_sec + duration.count() / nanosecondsPerSecond + nanoseconds / nanosecondsPerSecond;
  wake.it_value.tv_nsec = nanoseconds % nanosecondsPerSecond;
  if (::timerfd_settime(timer.get(), TFD_TIMER_ABSTIME, &wake, nullptr) != 0) return {};
  return timer;
}

/// Whether the moment of `timer` has come. Being told that it is readable is not enough: while
/// descriptors come and go on several threads, asio now and then passes the event of one that was
/// closed on to its successor.
bool hasExpired(int timer) {
  std::uint64_t expirations = 0;
  return ::read(timer, &expirations, sizeof expirations) == sizeof expirations;
}

/// What the sleeping task and its cancellation share. Touched on the strand only.
struct Sleep {
  explicit Sleep(const SleepStrand& strand) : descriptor(strand), fallback(strand) {}

  void cancel() {
    isCancelled = true;
    boost::system::error_code ignored;  // nothing waits then
    (void)descriptor.cancel(ignored);
    fallback.cancel();
  }

  asio::posix::stream_descriptor descriptor;
  asio::steady_timer fallback;
  bool isCancelled = false;
};

Task<SleepOutcome> sleepOn(SleepStrand strand, std::chrono::nanoseconds duration,
                           Cancellation cancellation) {
  const auto sleep = std::make_shared<Sleep>(strand);
  // Cancellation may come from any thread, and outlive the sleep.
  const auto registration = cancellation.onCancel([strand, weak = std::weak_ptr<Sleep>(sleep)] {
    asio::post(strand, [weak] {
      if (const auto sleeping = weak.lock()) sleeping->cancel();
    });
  });
  if (cancellation.isCancelled()) co_return SleepOutcome::cancelled;

  duration = std::clamp(duration, std::chrono::nanoseconds(0), longest);
  boost::system::error_code error;
  if (const int timer = timerDescriptor(duration).release(); timer >= 0) {
    sleep->descriptor.assign(timer, error);
    if (error) (void)::close(timer);
    while (!error && !sleep->isCancelled) {
      co_await sleep->descriptor.async_wait(asio::posix::stream_descriptor::wait_read,
                                            asio::redirect_error(asio::use_awaitable, error));
      if (!error && !sleep->isCancelled && hasExpired(timer)) co_return SleepOutcome::elapsed;
    }
  }
  if (!sleep->isCancelled) {
    // The system has no descriptor to spare. A timer that needs none, but does not count time
    // asleep, still beats a loop that does not sleep at all or one that ends.
    sleep->fallback.expires_after(duration);
    co_await sleep->fallback.async_wait(asio::redirect_error(asio::use_awaitable, error));
  }
  co_return sleep->isCancelled ? SleepOutcome::cancelled : SleepOutcome::elapsed;
}

}  // namespace

BoottimeSleeper::BoottimeSleeper(Executor executor) : executor_(std::move(executor)) {
  // Makes the context open the descriptors that it needs for itself, while there are some: it would
  // throw in the middle of a sleep otherwise.
  const asio::steady_timer first(executor_);
}

Task<SleepOutcome> BoottimeSleeper::sleep(std::chrono::nanoseconds duration,
                                          Cancellation cancellation) {
  const SleepStrand strand = asio::make_strand(executor_);
  return asio::co_spawn(strand, sleepOn(strand, duration, std::move(cancellation)),
                        asio::use_awaitable);
}

}  // namespace stillow::platform
