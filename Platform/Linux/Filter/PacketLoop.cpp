#include "PlatformLinuxFilter/PacketLoop.hpp"

#include <array>
#include <cerrno>
#include <utility>

#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "PlatformLinuxFilter/FlowMark.hpp"

namespace stillow::platform {

namespace {

std::unexpected<std::error_code> lastSystemError() {
  return std::unexpected(std::error_code(errno, std::generic_category()));
}

std::expected<void, std::error_code> setTimer(const core::FileDescriptor& timer,
                                              std::chrono::microseconds delay,
                                              std::chrono::microseconds interval) {
  const auto split = [](std::chrono::microseconds time) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    return timespec{.tv_sec = seconds.count(),
                    .tv_nsec = std::chrono::nanoseconds(time - seconds).count()};
  };
  const itimerspec schedule{.it_interval = split(interval), .it_value = split(delay)};
  if (::timerfd_settime(timer.get(), 0, &schedule, nullptr) != 0) return lastSystemError();
  return {};
}

/// So that the timer waits again.
void takeExpirations(const core::FileDescriptor& timer) {
  std::uint64_t expirations = 0;
  (void)!::read(timer.get(), &expirations, sizeof(expirations));
}

std::uint32_t bitsFor(PacketAnswer answer) noexcept {
  switch (answer) {
    case PacketAnswer::release:
      return FlowMark::released;
    case PacketAnswer::drop:
      return FlowMark::dropped;
    case PacketAnswer::keepLooking:
      break;
  }
  return FlowMark::keepLooking;
}

}  // namespace

PacketLoop::PacketLoop(Parts parts, Hooks hooks)
    : parts_(std::move(parts)), hooks_(std::move(hooks)) {}

std::expected<void, std::error_code> PacketLoop::run() {
  if (const auto prepared = prepare(); !prepared) return prepared;
  while (!isEnding_) {
    if (const auto turned = turn(); !turned) return turned;
  }
  // What is still in the socket would be discarded with it and come again after a time-out.
  for (;;) {
    const auto judged = judgePackets();
    if (!judged) return std::unexpected(judged.error());
    if (*judged == 0) return {};
  }
}

std::expected<void, std::error_code> PacketLoop::prepare() {
  poll_ = core::FileDescriptor(::epoll_create1(EPOLL_CLOEXEC));
  ticks_ = core::FileDescriptor(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
  signs_ = core::FileDescriptor(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
  if (!poll_ || !ticks_ || !signs_) return lastSystemError();
  if (parts_.signInterval) {
    const auto interval = *parts_.signInterval;
    if (const auto set = setTimer(signs_, interval, interval); !set) return set;
  }
  for (const int descriptor : {parts_.queue.descriptor(), parts_.events.descriptor(),
                               parts_.signalDescriptor, ticks_.get(), signs_.get()}) {
    if (descriptor < 0) continue;  // nothing is watched at the moment: the tick tries again
    epoll_event event{.events = EPOLLIN, .data = {.fd = descriptor}};
    if (::epoll_ctl(poll_.get(), EPOLL_CTL_ADD, descriptor, &event) != 0) return lastSystemError();
  }
  return {};
}

std::expected<void, std::error_code> PacketLoop::turn() {
  if (const auto scheduled = scheduleTick(); !scheduled) return scheduled;
  std::array<epoll_event, 5> ready{};
  const int timeoutMilliseconds = flowsToCut_.empty() ? -1 : 0;
  const int count =
      ::epoll_wait(poll_.get(), ready.data(), static_cast<int>(ready.size()), timeoutMilliseconds);
  if (count < 0 && errno != EINTR) return lastSystemError();
  parts_.heartbeat.beat();
  bool packetsAreReady = false;
  bool tickIsReady = false;
  bool signIsReady = false;
  bool signalIsReady = false;
  for (int index = 0; index < count; ++index) {
    const int descriptor = ready[static_cast<std::size_t>(index)].data.fd;
    packetsAreReady |= descriptor == parts_.queue.descriptor();
    tickIsReady |= descriptor == ticks_.get();
    signIsReady |= descriptor == signs_.get();
    signalIsReady |= descriptor == parts_.signalDescriptor;
  }
  if (packetsAreReady) {
    if (const auto judged = judgePackets(); !judged) return std::unexpected(judged.error());
  } else {
    takeDirectoryEvents();
  }
  cutSomeFlows();
  if (tickIsReady) tick();
  if (signIsReady) {
    takeExpirations(signs_);
    hooks_.giveSign();
  }
  if (signalIsReady) isEnding_ = !takeSignals();
  return {};
}

/// Answers one batch and says how many packets it had.
std::expected<std::size_t, std::error_code> PacketLoop::judgePackets() {
  const auto packets = parts_.queue.receive();
  if (!packets) return std::unexpected(packets.error());
  parts_.heartbeat.rouseWatchdog();
  takeDirectoryEvents();  // after the packets came, before any of them is judged
  const auto moment = now();
  for (const auto& packet : *packets) {
    const auto answer = parts_.judge.judge(packet.payload, moment);
    const auto mark = FlowMark::replacing(packet.mark, bitsFor(answer));
    if (const auto error = parts_.queue.answer(packet, mark)) return std::unexpected(error);
  }
  if (const auto error = parts_.queue.flush()) return std::unexpected(error);
  packets_ += packets->size();
  return packets->size();
}

void PacketLoop::takeDirectoryEvents() {
  parts_.heartbeat.beginLongWork();
  if (const auto drained = parts_.events.drain(); !drained) {
    watchingHasFailed_ = true;
    watchingError_ = drained.error();
  }
  if (std::exchange(mustRevise_, false)) {
    const auto flows = parts_.judge.reviseDecisions(now());
    flowsToCut_.assign(flows.begin(), flows.end());
  }
  parts_.heartbeat.endLongWork();
}

void PacketLoop::cutSomeFlows() {
  for (std::size_t count = 0; count < cutsPerTurn && !flowsToCut_.empty(); ++count) {
    const auto outcome = parts_.cutter.cut(flowsToCut_.front());
    flowsToCut_.pop_front();
    if (!outcome) {
      hooks_.cuttingFailed(outcome.error());
    } else if (outcome->hasDestroyedSocket || outcome->hasMarkedConnection) {
      ++cutFlows_;
    }
  }
}

/// Sets the timer if there is something to come back to and it is not set.
std::expected<void, std::error_code> PacketLoop::scheduleTick() {
  const bool isNeeded =
      parts_.judge.undecidedCount() > 0 || watchingHasFailed_ || parts_.events.descriptor() < 0;
  if (!isNeeded || isTickScheduled_) return {};
  isTickScheduled_ = true;
  return setTimer(ticks_, tickInterval, {});
}

void PacketLoop::tick() {
  takeExpirations(ticks_);
  isTickScheduled_ = false;
  parts_.judge.expire(now());
  if (std::exchange(watchingHasFailed_, false) || parts_.events.descriptor() < 0) {
    // Starts anew. The old descriptor leaves the set by being closed.
    hooks_.watchingFailed(std::exchange(watchingError_, {}));
    const int descriptor = parts_.events.descriptor();
    epoll_event event{.events = EPOLLIN, .data = {.fd = descriptor}};
    if (descriptor >= 0) (void)::epoll_ctl(poll_.get(), EPOLL_CTL_ADD, descriptor, &event);
  }
}

bool PacketLoop::takeSignals() {
  signalfd_siginfo information{};
  while (::read(parts_.signalDescriptor, &information, sizeof(information)) ==
         static_cast<ssize_t>(sizeof(information))) {
    if (!hooks_.signal(information.ssi_signo)) return false;
  }
  return true;
}

Moment PacketLoop::now() const { return {parts_.wallClock(), std::chrono::steady_clock::now()}; }

PacketLoopCounters PacketLoop::counters() const noexcept {
  return {packets_, parts_.queue.overrunCount(), parts_.judge.evictedCount(), cutFlows_};
}

}  // namespace stillow::platform
