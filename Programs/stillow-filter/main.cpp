// The Linux filter: takes packets from the kernel's queue, follows the enforcement directive and
// answers which flows pass. docs/filter.md describes it from the outside.

#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include "ExitStatus.hpp"
#include "PlatformLinuxFilter/DirectoryEvents.hpp"
#include "PlatformLinuxFilter/FlowCutter.hpp"
#include "PlatformLinuxFilter/FlowMark.hpp"
#include "PlatformLinuxFilter/LoopWatchdog.hpp"
#include "PlatformLinuxFilter/PacketJudge.hpp"
#include "PlatformLinuxFilter/PacketLoop.hpp"
#include "PlatformLinuxFilter/PacketQueue.hpp"
#include "PlatformLinuxFilter/QueueStatus.hpp"
#include "Privileges.hpp"
#include "StillowCore/SystemTime.hpp"
#include "StillowFiltering/EnforcementDirectiveStore.hpp"
#include "StillowFiltering/EnforcementDirectiveWatcher.hpp"
#include "StillowFiltering/FlowClassifier.hpp"
#include "StillowFiltering/Storage/PosixFileSystem.hpp"

namespace stillow::filter {
namespace {

using platform::filterQueueNumber;

constexpr std::string_view stateDirectory = STILLOW_STATE_DIRECTORY;

constexpr std::string_view helpText =
    R"(Usage: stillow-filter [--help | --version]

Decides for each new connection of this machine whether it may pass, by the
directive that the Stillow daemon publishes. Runs in the foreground, as root,
started by the service manager; the daemon puts the kernel rules in place that
bring it packets.

Signals: USR1 logs the counters; TERM and INT end the program.

Exit status:
  0   ended by a signal        71  a system call failed
  64  unknown argument         75  another program holds the packet queue
  69  kernel without queues    77  not root, or without CAP_NET_ADMIN
)";

/// Blocks the signals that the loop takes and gives a descriptor to take them from. Before the
/// first thread starts.
int openSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGUSR1, SIGTERM, SIGINT}) sigaddset(&signals, number);
  if (::sigprocmask(SIG_BLOCK, &signals, nullptr) != 0) return -1;
  // A reader of our log that goes away must not take the filter with it.
  (void)std::signal(SIGPIPE, SIG_IGN);
  return ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

ExitStatus statusFor(platform::PacketQueueFailure failure) {
  switch (failure) {
    case platform::PacketQueueFailure::kernelWithoutQueue:
      return ExitStatus::kernelWithoutQueue;
    case platform::PacketQueueFailure::notPermitted:
      return ExitStatus::notPermitted;
    case platform::PacketQueueFailure::heldByAnotherProgram:
      return ExitStatus::queueHeld;
    case platform::PacketQueueFailure::systemError:
      break;
  }
  return ExitStatus::systemError;
}

ExitStatus systemFailure(std::string_view what, const std::error_code& error) {
  spdlog::error("{}: {}", what, error.message());
  return ExitStatus::systemError;
}

/// Whether anybody would notice if the packet loop stood still. What cannot be read counts as yes.
bool packetsWait() {
  const auto status = platform::QueueStatus::read(filterQueueNumber);
  return !status || !*status || (*status)->waiting > 0;
}

/// How often the service manager wants a sign of life: half the time that it waits for one; none if
/// it does not watch this process.
std::optional<std::chrono::microseconds> signInterval() {
  std::uint64_t microseconds = 0;
  if (::sd_watchdog_enabled(0, &microseconds) <= 0) return std::nullopt;
  return std::chrono::microseconds(microseconds / 2);
}

/// The running program: everything that lives as long as the loop.
class Filter {
 public:
  Filter(platform::PacketQueue queue, platform::FlowCutter cutter, core::FileDescriptor bell,
         int signalDescriptor)
      : queue_(std::move(queue)),
        cutter_(std::move(cutter)),
        events_(std::string(stateDirectory), std::string(Store::fileName)),
        store_(fileSystem_, std::string(stateDirectory) + "/" + std::string(Store::fileName)),
        classifier_(std::nullopt, core::systemTime(),
                    filtering::NameAddressAssociations::machineLimits),
        judge_(classifier_),
        heartbeat_(std::move(bell)),
        loop_(
            {
                .queue = queue_,
                .events = events_,
                .judge = judge_,
                .cutter = cutter_,
                .heartbeat = heartbeat_,
                .wallClock = core::systemTime,
                .signalDescriptor = signalDescriptor,
                .signInterval = signInterval(),
            },
            {
                .giveSign = [] { (void)::sd_notify(0, "WATCHDOG=1"); },
                .signal = [this](std::uint32_t number) { return takeSignal(number); },
                .watchingFailed = [this](std::error_code error) { watchAgain(error); },
                .cuttingFailed = [this](std::error_code error) { reportCutting(error); },
            }),
        watcher_(
            store_, events_, [this](const auto& directive) { adopt(directive); },
            [this](const auto& health) { reportHealth(health); }) {}

  ExitStatus run() {
    const platform::LoopWatchdog watchdog(heartbeat_, queue_.descriptor(), packetsWait);
    heartbeat_.beginLongWork();
    if (const auto watching = watcher_.start(); !watching) reportWatching(watching.error());
    heartbeat_.endLongWork();
    (void)::sd_notify(0, "READY=1");
    spdlog::info("bound to packet queue {}, following {}", filterQueueNumber, stateDirectory);
    const auto ended = loop_.run();
    (void)::sd_notify(0, "STOPPING=1");
    logCounters();
    if (!ended) return systemFailure("the packet loop failed", ended.error());
    return ExitStatus::success;
  }

 private:
  using Store = filtering::FileEnforcementDirectiveStore;

  void adopt(const filtering::EnforcementDirective& directive) {
    classifier_.adopt(directive, core::systemTime());
    loop_.directiveChanged();
    const auto generation = classifier_.counters().scopeGeneration;
    const auto status = directive.scope
                            ? "STATUS=Enforcing generation " + std::to_string(generation)
                            : std::string("STATUS=Nothing is blocked");
    (void)::sd_notify(0, status.c_str());
  }

  /// One line for each change of health, not for each event.
  void reportHealth(const core::EnforcementHealthStatus& health) {
    if (health == health_) return;
    health_ = health;
    if (std::holds_alternative<core::EnforcementHealthStatus::healthy>(health.cases)) {
      spdlog::info("the enforcement directive is in force");
      return;
    }
    const auto error = watcher_.lastReadError();
    const bool hasDirective =
        health == core::EnforcementHealthStatus(core::EnforcementHealthStatus::degraded{
                      core::DegradedReason::recoveringFromCorruption});
    spdlog::warn("cannot read the enforcement directive: {}; {}",
                 error ? error->description : std::string("the file is gone"),
                 hasDirective ? "the last one stays in force" : "nothing is blocked");
  }

  void reportWatching(const std::error_code& error) {
    if (watchingProblem_ == error) return;
    watchingProblem_ = error;
    spdlog::error("cannot watch {}: {}; trying again every second", stateDirectory,
                  error.message());
  }

  void watchAgain(const std::error_code& error) {
    if (error) reportWatching(error);
    watcher_.stop();
    if (const auto watching = watcher_.start(); !watching) {
      reportWatching(watching.error());
    } else if (watchingProblem_) {
      watchingProblem_.clear();
      spdlog::info("watching {} again", stateDirectory);
    }
  }

  void reportCutting(const std::error_code& error) {
    if (cuttingProblem_ == error) return;
    cuttingProblem_ = error;
    spdlog::warn("cannot cut a connection that is blocked now: {}", error.message());
  }

  bool takeSignal(std::uint32_t number) {
    if (number != SIGUSR1) return false;
    logCounters();
    return true;
  }

  void logCounters() {
    const auto counters = loop_.counters();
    spdlog::info("{}", description(classifier_.counters()));
    spdlog::info("packets={} queueOverruns={} undecidedFlows={} evictedFlows={} cutFlows={}",
                 counters.packets, counters.overruns, judge_.undecidedCount(),
                 counters.evictedFlows, counters.cutFlows);
  }

  platform::PacketQueue queue_;
  platform::FlowCutter cutter_;
  platform::DirectoryEvents events_;
  filtering::PosixFileSystem fileSystem_;
  Store store_;
  filtering::FlowClassifier classifier_;
  platform::PacketJudge judge_;
  platform::LoopHeartbeat heartbeat_;
  platform::PacketLoop loop_;
  std::optional<core::EnforcementHealthStatus> health_;
  std::error_code watchingProblem_;
  std::error_code cuttingProblem_;
  filtering::EnforcementDirectiveWatcher watcher_;  // last: its handlers use the others
};

ExitStatus runFilter() {
  if (::geteuid() != 0) {
    spdlog::error("stillow-filter has to run as root");
    return ExitStatus::notPermitted;
  }
  if (const auto dropped = dropPrivileges(); !dropped) {
    return systemFailure("cannot drop privileges", dropped.error());
  }
  const int signalDescriptor = openSignals();
  if (signalDescriptor < 0) {
    return systemFailure("cannot take signals", {errno, std::generic_category()});
  }
  // The queue first of all sockets of its kind: its port shall be this process's id. Held packets
  // wait until the directive has been read.
  auto queue = platform::PacketQueue::bind(filterQueueNumber);
  if (!queue) {
    spdlog::error("{}", queue.error().message);
    return statusFor(queue.error().failure);
  }
  auto cutter = platform::FlowCutter::open();
  if (!cutter) return systemFailure("cannot open sockets to cut connections", cutter.error());
  core::FileDescriptor bell(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!bell) return systemFailure("cannot watch the packet loop", {errno, std::generic_category()});
  Filter filter(std::move(*queue), std::move(*cutter), std::move(bell), signalDescriptor);
  return filter.run();
}

ExitStatus start(int argc, char** argv) {
  auto logger = std::make_shared<spdlog::logger>("stillow-filter",
                                                 std::make_shared<spdlog::sinks::stderr_sink_mt>());
  logger->set_pattern("%l: %v");  // the journal adds the time and the program
  spdlog::set_default_logger(std::move(logger));
  if (argc == 1) return runFilter();
  const std::string_view argument = argc == 2 ? argv[1] : "";
  if (argument == "--help") {
    (void)std::fputs(helpText.data(), stdout);
    return ExitStatus::success;
  }
  if (argument == "--version") {
    (void)std::puts("stillow-filter " STILLOW_VERSION);
    return ExitStatus::success;
  }
  (void)std::fputs("stillow-filter: unknown arguments; see --help\n", stderr);
  return ExitStatus::usage;
}

}  // namespace
}  // namespace stillow::filter

int main(int argc, char** argv) {
  try {
    return static_cast<int>(stillow::filter::start(argc, argv));
  } catch (const std::exception& failure) {
    // Memory ran out, most likely. The service manager starts anew.
    (void)std::fprintf(stderr, "stillow-filter: %s\n", failure.what());
    return static_cast<int>(stillow::filter::ExitStatus::systemError);
  }
}
