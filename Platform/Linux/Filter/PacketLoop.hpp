#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <expected>
#include <functional>
#include <optional>
#include <system_error>

#include "PlatformLinuxFilter/DirectoryEvents.hpp"
#include "PlatformLinuxFilter/FlowCutter.hpp"
#include "PlatformLinuxFilter/LoopWatchdog.hpp"
#include "PlatformLinuxFilter/PacketJudge.hpp"
#include "PlatformLinuxFilter/PacketQueue.hpp"
#include "StillowCore/Date.hpp"
#include "StillowCore/FileDescriptor.hpp"

namespace stillow::platform {

/// What the packet loop did beyond the classifier's counters.
struct PacketLoopCounters {
  std::uint64_t packets = 0;
  std::uint64_t overruns = 0;  ///< times the kernel let packets pass because the socket was full
  std::uint64_t evictedFlows = 0;
  std::uint64_t cutFlows = 0;
};

/// One thread that judges packets and follows the directive.
///
/// The order is a promise: directory events are taken after packets were received and before they
/// are judged, so a directive that was renamed into place before a packet was sent is in force when
/// that packet is judged. While a large directive is being indexed packets therefore wait.
///
/// It sleeps until something happens. Only while a flow's time runs, or while nothing can be
/// watched, it looks about once in `tickInterval`.
class PacketLoop {
 public:
  /// Flows cut between two looks at the queue. Each costs a few microseconds; a grown Scope may ask
  /// for tens of thousands.
  static constexpr std::size_t cutsPerTurn = 64;
  static constexpr std::chrono::seconds tickInterval{1};

  struct Parts {
    PacketQueue& queue;
    DirectoryEvents& events;
    PacketJudge& judge;
    FlowCutter& cutter;
    LoopHeartbeat& heartbeat;
    core::WallClock wallClock;
    int signalDescriptor = -1;  ///< of a signalfd
    /// How often somebody wants a sign of life; none: nobody does.
    std::optional<std::chrono::microseconds> signInterval;
  };
  struct Hooks {
    std::function<void()> giveSign;  ///< once in `signInterval`
    /// A signal arrived; false ends the loop.
    std::function<bool(std::uint32_t signalNumber)> signal;
    /// Directory events can no longer be taken. Called at most once in `tickInterval`; whoever is
    /// called starts watching anew.
    std::function<void(std::error_code)> watchingFailed;
    std::function<void(std::error_code)> cuttingFailed;
  };

  /// The parts have to outlive the loop.
  PacketLoop(Parts parts, Hooks hooks);

  /// To be called by the handler that put a directive into force, on the loop's thread: the flows
  /// that it blocks are cut in the next turns.
  void directiveChanged() noexcept { mustRevise_ = true; }

  /// Turns until a signal ends it; the packets then in the socket are answered first. An error
  /// means that the queue or the system's event calls failed.
  [[nodiscard]] std::expected<void, std::error_code> run();

  [[nodiscard]] PacketLoopCounters counters() const noexcept;

 private:
  [[nodiscard]] std::expected<void, std::error_code> prepare();
  [[nodiscard]] std::expected<void, std::error_code> turn();
  [[nodiscard]] std::expected<std::size_t, std::error_code> judgePackets();
  void takeDirectoryEvents();
  void cutSomeFlows();
  [[nodiscard]] std::expected<void, std::error_code> scheduleTick();
  void tick();
  [[nodiscard]] bool takeSignals();
  [[nodiscard]] Moment now() const;

  Parts parts_;
  Hooks hooks_;
  core::FileDescriptor poll_;
  core::FileDescriptor ticks_;
  core::FileDescriptor signs_;
  bool isTickScheduled_ = false;
  std::deque<FlowKey> flowsToCut_;
  bool mustRevise_ = false;
  bool isEnding_ = false;
  bool watchingHasFailed_ = false;
  std::error_code watchingError_;
  std::uint64_t packets_ = 0;
  std::uint64_t cutFlows_ = 0;
};

}  // namespace stillow::platform
