#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <thread>
#include <utility>

#include "StillowCore/FileDescriptor.hpp"

namespace stillow::platform {

/// The sign of life of a loop, and the bell for its watchdog. The loop's thread beats it; any
/// thread may read.
class LoopHeartbeat {
 public:
  /// `bell` is an eventfd that does not block.
  explicit LoopHeartbeat(core::FileDescriptor bell) noexcept : bell_(std::move(bell)) {}

  void beat() noexcept { turns_.fetch_add(1, std::memory_order_relaxed); }
  [[nodiscard]] std::uint64_t turns() const noexcept {
    return turns_.load(std::memory_order_relaxed);
  }

  /// Around work that may lawfully take longer than a turn: indexing a million names.
  void beginLongWork() noexcept { isInLongWork_.store(true, std::memory_order_relaxed); }
  void endLongWork() noexcept {
    beat();
    isInLongWork_.store(false, std::memory_order_relaxed);
  }
  [[nodiscard]] bool isInLongWork() const noexcept {
    return isInLongWork_.load(std::memory_order_relaxed);
  }

  /// Called by the loop once it has packets in hand. Costs a system call only if the watchdog has
  /// gone to sleep.
  void rouseWatchdog() noexcept {
    if (watchdogSleeps_.load() && watchdogSleeps_.exchange(false)) ring();
  }
  [[nodiscard]] bool watchdogSleeps() const noexcept { return watchdogSleeps_; }

 private:
  friend class LoopWatchdog;

  void ring() const noexcept;

  core::FileDescriptor bell_;
  std::atomic<std::uint64_t> turns_ = 0;
  std::atomic<bool> isInLongWork_ = false;
  std::atomic<bool> watchdogSleeps_ = false;
};

/// Judges from observations whether a loop hangs while somebody waits for it. Pure.
class HangDetector {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  /// How long packets may wait for a loop that does not turn. Packets that wait have no other
  /// time-out, so past this the loop's process is worse than none.
  static constexpr std::chrono::seconds turnMax{5};
  /// Likewise while the loop is in long work. Ten times what a million names take in the slowest
  /// build.
  static constexpr std::chrono::seconds longWorkMax{60};

  struct Observation {
    std::uint64_t turns = 0;
    bool isInLongWork = false;
    bool packetsWait = false;
  };

  /// True if the loop has not turned since an observation `turnMax` or longer ago, with packets
  /// waiting all the while.
  [[nodiscard]] bool hangs(const Observation& observation, TimePoint now) noexcept;

 private:
  bool isCounting_ = false;
  std::uint64_t turns_ = 0;
  TimePoint since_{};
};

/// A thread that ends the process when its packet loop hangs, so that packets pass again and the
/// service manager starts a new one.
///
/// It looks once in `interval` while there is traffic. Once the loop rests and nothing waits it
/// sleeps, until packets come that the loop does not take at once, or until the loop has taken
/// some.
class LoopWatchdog {
 public:
  static constexpr std::chrono::milliseconds interval{500};

  /// `packetsWait` is asked on the watchdog's thread: whether the kernel holds packets that were
  /// not answered, those that the loop has in hand included. `queue` becomes readable when packets
  /// come. Both and `heartbeat` have to outlive the watchdog.
  LoopWatchdog(LoopHeartbeat& heartbeat, int queue, std::function<bool()> packetsWait);
  LoopWatchdog(const LoopWatchdog&) = delete;
  LoopWatchdog& operator=(const LoopWatchdog&) = delete;
  ~LoopWatchdog();

 private:
  void watch();
  /// False once the watchdog is to end.
  [[nodiscard]] bool wait(bool isAsleep);

  LoopHeartbeat& heartbeat_;
  int queue_;
  std::function<bool()> packetsWait_;
  std::atomic<bool> mustStop_ = false;
  std::thread thread_;
};

}  // namespace stillow::platform
