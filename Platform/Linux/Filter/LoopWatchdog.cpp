#include "PlatformLinuxFilter/LoopWatchdog.hpp"

#include <array>
#include <utility>

#include <poll.h>
#include <unistd.h>

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

void LoopHeartbeat::ring() const noexcept {
  const std::uint64_t once = 1;
  (void)!::write(bell_.get(), &once, sizeof(once));  // full, it rings already
}

LoopWatchdog::LoopWatchdog(LoopHeartbeat& heartbeat, int queue, std::function<bool()> packetsWait)
    : heartbeat_(heartbeat),
      queue_(queue),
      packetsWait_(std::move(packetsWait)),
      thread_([this] { watch(); }) {}

LoopWatchdog::~LoopWatchdog() {
  mustStop_ = true;
  heartbeat_.ring();
  thread_.join();
}

void LoopWatchdog::watch() {
  HangDetector detector;
  std::uint64_t turnsBefore = 0;
  bool isAsleep = false;
  while (wait(isAsleep)) {
    HangDetector::Observation observation{.turns = heartbeat_.turns(),
                                          .isInLongWork = heartbeat_.isInLongWork()};
    // Said before the kernel is asked: packets that the loop takes later rouse us, and those that
    // it took earlier are seen to wait.
    isAsleep = std::exchange(turnsBefore, observation.turns) == observation.turns;
    heartbeat_.watchdogSleeps_ = isAsleep;
    observation.packetsWait = packetsWait_();
    if (detector.hangs(observation, std::chrono::steady_clock::now())) {
      core::stopProcess("packets wait and the packet loop does not turn");
    }
    if (observation.packetsWait) heartbeat_.watchdogSleeps_ = isAsleep = false;
  }
}

bool LoopWatchdog::wait(bool isAsleep) {
  std::array<pollfd, 2> sources{
      pollfd{.fd = heartbeat_.bell_.get(), .events = POLLIN, .revents = 0},
      pollfd{.fd = queue_, .events = POLLIN, .revents = 0}};
  const int timeoutMilliseconds = isAsleep ? -1 : static_cast<int>(interval.count());
  // An interruption only makes it look early.
  (void)::poll(sources.data(), isAsleep ? 2 : 1, timeoutMilliseconds);
  std::uint64_t rings = 0;
  (void)!::read(heartbeat_.bell_.get(), &rings, sizeof(rings));
  return !mustStop_;
}

}  // namespace stillow::platform
