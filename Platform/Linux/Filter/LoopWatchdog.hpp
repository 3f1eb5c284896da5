#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

namespace stillow::platform {

/// The sign of life of a loop. Its thread beats it; any thread may read.
class LoopHeartbeat {
 public:
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

 private:
  std::atomic<std::uint64_t> turns_ = 0;
  std::atomic<bool> isInLongWork_ = false;
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
class LoopWatchdog {
 public:
  static constexpr std::chrono::milliseconds interval{500};

  /// `packetsWait` is asked on the watchdog's thread. `heartbeat` has to outlive the watchdog.
  LoopWatchdog(const LoopHeartbeat& heartbeat, std::function<bool()> packetsWait);
  LoopWatchdog(const LoopWatchdog&) = delete;
  LoopWatchdog& operator=(const LoopWatchdog&) = delete;
  ~LoopWatchdog();

 private:
  void watch();

  const LoopHeartbeat& heartbeat_;
  std::function<bool()> packetsWait_;
  std::mutex lock_;
  std::condition_variable stopRequest_;
  bool mustStop_ = false;
  std::thread thread_;
};

}  // namespace stillow::platform
