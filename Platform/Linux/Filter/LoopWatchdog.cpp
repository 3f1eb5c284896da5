#include "PlatformLinuxFilter/LoopWatchdog.hpp"

#include <utility>

#include "StillowCore/Invariant.hpp"

namespace stillow::platform {

bool HangDetector::hangs(const Observation& observation, TimePoint now) noexcept {
  if (!observation.packetsWait) {
    isCounting_ = false;
    return false;
  }
  if (!isCounting_ || observation.turns != turns_) {
    isCounting_ = true;
    turns_ = observation.turns;
    since_ = now;
    return false;
  }
  return now - since_ >= (observation.isInLongWork ? longWorkMax : turnMax);
}

LoopWatchdog::LoopWatchdog(const LoopHeartbeat& heartbeat, std::function<bool()> packetsWait)
    : heartbeat_(heartbeat), packetsWait_(std::move(packetsWait)), thread_([this] { watch(); }) {}

LoopWatchdog::~LoopWatchdog() {
  {
    const std::lock_guard guard(lock_);
    mustStop_ = true;
  }
  stopRequest_.notify_one();
  thread_.join();
}

void LoopWatchdog::watch() {
  HangDetector detector;
  std::unique_lock guard(lock_);
  while (!stopRequest_.wait_for(guard, interval, [this] { return mustStop_; })) {
    const auto turns = heartbeat_.turns();
    const HangDetector::Observation observation{turns, heartbeat_.isInLongWork(), packetsWait_()};
    if (detector.hangs(observation, std::chrono::steady_clock::now())) {
      core::stopProcess("packets wait and the packet loop does not turn");
    }
  }
}

}  // namespace stillow::platform
