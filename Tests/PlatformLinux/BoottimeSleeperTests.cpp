#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "DescriptorTesting.hpp"
#include "PlatformLinuxDaemon/BoottimeSleeper.hpp"
#include "PlatformLinuxDaemon/ContinuousMonotonicTimeSource.hpp"

namespace stillow::platform {
namespace {

using namespace std::chrono_literals;
using concurrency::Cancellation;
using concurrency::SleepOutcome;
using concurrency::Task;
using testing::descriptorsWith;
using testing::openDescriptors;

/// A timer of the boot-time clock, set to a moment rather than a span.
std::size_t bootTimers() { return descriptorsWith({"clockid: 7\n", "settime flags: 01\n"}); }

struct SleepWorld {
  std::shared_ptr<std::optional<SleepOutcome>> start(std::chrono::nanoseconds duration,
                                                     const Cancellation& cancellation = {}) {
    auto outcome = std::make_shared<std::optional<SleepOutcome>>();
    concurrency::spawn(context.get_executor(), store(sleeper, duration, cancellation, outcome));
    return outcome;
  }
  SleepOutcome run(std::chrono::nanoseconds duration, const Cancellation& cancellation = {}) {
    const auto outcome = start(duration, cancellation);
    context.run();
    context.restart();
    return outcome->value();
  }
  static Task<void> store(std::shared_ptr<BoottimeSleeper> sleeper,
                          std::chrono::nanoseconds duration, Cancellation cancellation,
                          std::shared_ptr<std::optional<SleepOutcome>> outcome) {
    const SleepOutcome slept = co_await sleeper->sleep(duration, cancellation);
    *outcome = slept;
  }

  boost::asio::io_context context;
  std::shared_ptr<BoottimeSleeper> sleeper =
      std::make_shared<BoottimeSleeper>(context.get_executor());
  /// The context's own are among them.
  std::size_t descriptorsBefore = openDescriptors();
};

Task<void> count(std::shared_ptr<BoottimeSleeper> sleeper, std::chrono::nanoseconds duration,
                 Cancellation cancellation, std::atomic<int>& ended, std::atomic<int>& endedEarly) {
  const auto before = std::chrono::steady_clock::now();
  const SleepOutcome outcome = co_await sleeper->sleep(duration, cancellation);
  const auto slept = std::chrono::steady_clock::now() - before;
  if (outcome == SleepOutcome::elapsed && slept < duration) ++endedEarly;
  ++ended;
}

TEST(BoottimeSleeper, sleepsAtLeastAsLongAsItIsAskedTo) {
  SleepWorld world;
  const ContinuousMonotonicTimeSource clock;
  for (const auto duration : {0ns, 1ns, 999'999ns, 3'000'000ns}) {
    const double before = clock.seconds();
    EXPECT_EQ(world.run(duration), SleepOutcome::elapsed);
    EXPECT_GE(clock.seconds() - before, std::chrono::duration<double>(duration).count() - 1e-6);
  }
  EXPECT_EQ(world.run(-1h), SleepOutcome::elapsed);
  EXPECT_EQ(openDescriptors(), world.descriptorsBefore);
}

TEST(BoottimeSleeper, waitsForAMomentOfTheBootTimeClock) {
  SleepWorld world;
  ASSERT_EQ(bootTimers(), 0U);
  const Cancellation cancellation;
  const auto first = world.start(1h, cancellation);
  const auto second = world.start(std::chrono::nanoseconds::max(), cancellation);
  world.context.poll();
  EXPECT_EQ(bootTimers(), 2U);
  EXPECT_FALSE(first->has_value());
  cancellation.cancel();
  world.context.restart();
  world.context.run();
  EXPECT_EQ(*first, SleepOutcome::cancelled);
  EXPECT_EQ(*second, SleepOutcome::cancelled);
  EXPECT_EQ(openDescriptors(), world.descriptorsBefore);
}

TEST(BoottimeSleeper, endsAtOnceWhenItIsCancelledAlready) {
  SleepWorld world;
  const Cancellation cancellation;
  cancellation.cancel();
  EXPECT_EQ(world.run(1h, cancellation), SleepOutcome::cancelled);
  EXPECT_EQ(openDescriptors(), world.descriptorsBefore);
}

TEST(BoottimeSleeper, isCancelledFromAnyThreadAtAnyMoment) {
  for (int round = 0; round < 100; ++round) {
    SleepWorld world;
    const Cancellation cancellation;
    const auto outcome = world.start(1h, cancellation);
    std::thread canceller([cancellation] { cancellation.cancel(); });
    world.context.run();  // returns only once the sleep has ended
    canceller.join();
    EXPECT_EQ(*outcome, SleepOutcome::cancelled);
    EXPECT_EQ(openDescriptors(), world.descriptorsBefore);
  }
}

// Timers that expire just as they are closed must not end the sleeps that come after.
TEST(BoottimeSleeper, takesNoEventOfAnotherSleepForItsOwn) {
  SleepWorld world;
  std::optional work(boost::asio::make_work_guard(world.context));
  std::vector<std::thread> threads;
  for (int index = 0; index < 4; ++index) {
    threads.emplace_back([&world] { world.context.run(); });
  }
  std::atomic<int> ended = 0;
  std::atomic<int> endedEarly = 0;
  const auto sleep = [&](std::chrono::nanoseconds duration, const Cancellation& cancellation) {
    concurrency::spawn(world.context.get_executor(),
                       count(world.sleeper, duration, cancellation, ended, endedEarly));
  };
  constexpr int rounds = 5'000;
  constexpr int sleepsOfARound = 8;
  constexpr std::size_t roundsAtOnce = 4;
  std::deque<Cancellation> ends;
  for (int round = 0; round < rounds; ++round) {
    const Cancellation end = ends.emplace_back();
    for (int index = 0; index < sleepsOfARound / 2; ++index) {
      sleep(std::chrono::microseconds((round * 37 + index * 101) % 300), end);
      sleep(1h, end);
    }
    if (ends.size() < roundsAtOnce) continue;
    ends.front().cancel();
    ends.pop_front();
    // Not many at a time: what matters is that descriptors are taken up again at once.
    constexpr int sleepsAtOnceMax = static_cast<int>(2 * roundsAtOnce) * sleepsOfARound;
    while (ended + sleepsAtOnceMax < round * sleepsOfARound) std::this_thread::yield();
  }
  for (const auto& end : ends) end.cancel();
  work.reset();
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(ended, rounds * sleepsOfARound);
  EXPECT_EQ(endedEarly, 0);
  EXPECT_EQ(openDescriptors(), world.descriptorsBefore);
}

TEST(BoottimeSleeper, isIndifferentToACancellationAfterItsEnd) {
  SleepWorld world;
  const Cancellation cancellation;
  EXPECT_EQ(world.run(0ns, cancellation), SleepOutcome::elapsed);
  cancellation.cancel();
  world.context.run();
}

TEST(BoottimeSleeper, givesItsDescriptorBackWhenItsExecutorGoes) {
  const std::size_t before = openDescriptors();
  {
    SleepWorld world;
    (void)world.start(1h);
    world.context.poll();
    EXPECT_EQ(bootTimers(), 1U);
  }
  EXPECT_EQ(openDescriptors(), before);
}

/// Lets the process open no further descriptor.
class NoDescriptorsLeft {
 public:
  NoDescriptorsLeft() {
    const int lowestFree = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    (void)::close(lowestFree);
    EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &before_), 0);
    rlimit none = before_;
    none.rlim_cur = static_cast<rlim_t>(lowestFree);
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_EQ(::open("/dev/null", O_RDONLY | O_CLOEXEC), -1);
  }
  ~NoDescriptorsLeft() { EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &before_), 0); }
  NoDescriptorsLeft(const NoDescriptorsLeft&) = delete;
  NoDescriptorsLeft& operator=(const NoDescriptorsLeft&) = delete;

 private:
  rlimit before_{};
};

TEST(BoottimeSleeper, stillSleepsAndIsCancelledWithoutADescriptorToSpare) {
  SleepWorld world;
  const NoDescriptorsLeft none;
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(world.run(2ms), SleepOutcome::elapsed);
  EXPECT_GE(std::chrono::steady_clock::now() - before, 2ms);
  const Cancellation cancellation;
  const auto outcome = world.start(std::chrono::nanoseconds::max(), cancellation);
  world.context.poll();
  EXPECT_FALSE(outcome->has_value());
  cancellation.cancel();
  world.context.restart();
  world.context.run();
  EXPECT_EQ(*outcome, SleepOutcome::cancelled);
}

}  // namespace
}  // namespace stillow::platform
