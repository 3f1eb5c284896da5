#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "PlatformLinuxFilter/LoopWatchdog.hpp"

namespace stillow::platform {
namespace {

core::FileDescriptor eventDescriptor() {
  return core::FileDescriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
}

/// A watchdog of a loop that rests, and what it was told about packets.
class WatchdogWorld {
 public:
  explicit WatchdogWorld(std::function<bool(std::size_t)> packetsWaitAtLook)
      : packetsWaitAtLook_(std::move(packetsWaitAtLook)) {}

  void awaitLooks(std::size_t count) {
    std::unique_lock guard(lock_);
    hasLooked_.wait(guard, [&] { return looks_ >= count; });
  }
  void awaitSleep() const {
    while (!heartbeat.watchdogSleeps()) std::this_thread::yield();
  }
  std::size_t looks() {
    const std::lock_guard guard(lock_);
    return looks_;
  }
  void makeReadable() const { ASSERT_EQ(::eventfd_write(queue.get(), 1), 0); }

 private:
  bool look() {
    const std::lock_guard guard(lock_);
    ++looks_;
    hasLooked_.notify_all();
    return packetsWaitAtLook_(looks_);
  }

  std::function<bool(std::size_t)> packetsWaitAtLook_;
  std::mutex lock_;
  std::condition_variable hasLooked_;
  std::size_t looks_ = 0;

 public:
  LoopHeartbeat heartbeat{eventDescriptor()};
  core::FileDescriptor queue = eventDescriptor();

 private:
  LoopWatchdog watchdog_{heartbeat, queue.get(), [this] { return look(); }};
};

bool never(std::size_t) { return false; }

TEST(LoopWatchdog, looksAgainWhenPacketsComeToALoopThatRests) {
  WatchdogWorld world(never);
  world.awaitSleep();
  const auto before = world.looks();
  world.makeReadable();
  world.awaitLooks(before + 1);
}

TEST(LoopWatchdog, looksAgainWhenTheLoopHasPacketsInHand) {
  WatchdogWorld world(never);
  world.awaitSleep();
  const auto before = world.looks();
  world.heartbeat.rouseWatchdog();
  world.awaitLooks(before + 1);
}

TEST(LoopWatchdog, goesOnLookingWhilePacketsWait) {
  // Nothing rouses it here: once asleep, it would not look again.
  WatchdogWorld world([](std::size_t) { return true; });
  world.awaitLooks(4);
}

TEST(LoopWatchdog, endsWhileItSleeps) {
  WatchdogWorld world(never);
  world.awaitSleep();
}

}  // namespace
}  // namespace stillow::platform
