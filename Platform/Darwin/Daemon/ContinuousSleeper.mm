#include "PlatformDarwinDaemon/ContinuousSleeper.hpp"

#include <mach/mach_time.h>
#include <sys/event.h>

#include <cerrno>
#include <cstdint>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "PlatformDarwinDaemon/MachTickRate.hpp"
#include "StillowConcurrency/OneShot.hpp"
#include "StillowCore/FileDescriptor.hpp"
#include "StillowCore/Invariant.hpp"

namespace stillow::platform {

using concurrency::Cancellation;
using concurrency::OneShot;
using concurrency::SleepOutcome;
using concurrency::Task;

/// The kernel's timers, one for each sleep under way. Any thread may begin and cancel a sleep.
class ContinuousSleeper::Timers final {
 public:
  using Sleep = OneShot<SleepOutcome>;

  Timers() : queue_(::kqueue()) {
    core::require(static_cast<bool>(queue_), "there is no kernel queue to be had");
    struct ::kevent wake{};
    EV_SET(&wake, wakeIdentifier, EVFILT_USER, EV_ADD | EV_CLEAR, 0, 0, nullptr);
    core::require(::kevent(queue_.get(), &wake, 1, nullptr, 0, nullptr) == 0,
                  "a kernel queue takes no events");
    thread_ = std::thread([this] { run(); });
  }
  ~Timers() {
    {
      const std::lock_guard lock(mutex_);
      isStopping_ = true;
    }
    struct ::kevent wake{};
    EV_SET(&wake, wakeIdentifier, EVFILT_USER, 0, NOTE_TRIGGER, 0, nullptr);
    (void)::kevent(queue_.get(), &wake, 1, nullptr, 0, nullptr);  // known to the queue: cannot fail
    thread_.join();
    for (const auto& [number, sleep] : sleeps_) sleep.settle(SleepOutcome::cancelled);
  }
  Timers(const Timers&) = delete;
  Timers& operator=(const Timers&) = delete;

  std::uint64_t begin(std::chrono::nanoseconds duration, const Sleep& sleep) {
    const std::lock_guard lock(mutex_);
    const std::uint64_t number = ++lastNumber_;
    // An absolute moment: what happens between reading the clock and setting the timer, a sleep of
    // the machine even, does not make the sleep longer.
    const std::uint64_t moment = ::mach_continuous_time() + machTickRate().ticks(duration);
    struct ::kevent timer{};
    EV_SET(&timer, number, EVFILT_TIMER, EV_ADD | EV_ONESHOT,
           NOTE_MACHTIME | NOTE_ABSOLUTE | NOTE_MACH_CONTINUOUS_TIME | NOTE_CRITICAL,
           static_cast<std::intptr_t>(moment), nullptr);
    core::require(::kevent(queue_.get(), &timer, 1, nullptr, 0, nullptr) == 0,
                  "the kernel takes no timer");
    sleeps_.emplace(number, sleep);
    return number;
  }

  void cancel(std::uint64_t number) {
    const std::lock_guard lock(mutex_);
    const auto sleep = sleeps_.extract(number);
    if (!sleep) return;
    struct ::kevent timer{};
    EV_SET(&timer, number, EVFILT_TIMER, EV_DELETE, 0, 0, nullptr);
    (void)::kevent(queue_.get(), &timer, 1, nullptr, 0,
                   nullptr);  // gone already if it has come due
    sleep.mapped().settle(SleepOutcome::cancelled);
  }

 private:
  static constexpr std::uint64_t wakeIdentifier = 0;

  void run() {
    for (;;) {
      struct ::kevent due{};
      const int count = ::kevent(queue_.get(), nullptr, 0, &due, 1, nullptr);
      core::require(count > 0 || errno == EINTR, "a kernel queue gives no events");
      const std::lock_guard lock(mutex_);
      if (isStopping_) return;
      if (count <= 0 || due.filter != EVFILT_TIMER) continue;
      if (const auto sleep = sleeps_.extract(due.ident)) {
        sleep.mapped().settle(SleepOutcome::elapsed);
      }
    }
  }

  core::FileDescriptor queue_;
  std::mutex mutex_;
  std::map<std::uint64_t, Sleep> sleeps_;
  std::uint64_t lastNumber_ = wakeIdentifier;
  bool isStopping_ = false;
  std::thread thread_;
};

ContinuousSleeper::ContinuousSleeper() : timers_(std::make_shared<Timers>()) {}
ContinuousSleeper::~ContinuousSleeper() = default;

namespace {

template <class Timers>
Task<SleepOutcome> sleepWith(std::shared_ptr<Timers> timers, std::chrono::nanoseconds duration,
                             Cancellation cancellation) {
  if (cancellation.isCancelled()) co_return SleepOutcome::cancelled;
  const OneShot<SleepOutcome> over;
  const std::uint64_t number = timers->begin(duration, over);
  const auto registration = cancellation.onCancel([weak = std::weak_ptr<Timers>(timers), number] {
    if (const auto live = weak.lock()) live->cancel(number);
  });
  // A sleep must not keep its sleeper, whose end it would wait for on the sleeper's own thread.
  timers.reset();
  const SleepOutcome outcome = co_await over.wait();
  co_return outcome;
}

}  // namespace

Task<SleepOutcome> ContinuousSleeper::sleep(std::chrono::nanoseconds duration,
                                            Cancellation cancellation) {
  return sleepWith(timers_, duration, std::move(cancellation));
}

}  // namespace stillow::platform
