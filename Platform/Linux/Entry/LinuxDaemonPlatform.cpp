#include <csignal>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include "PlatformLinuxDaemon/BoottimeSleeper.hpp"
#include "PlatformLinuxDaemon/CommandRunner.hpp"
#include "PlatformLinuxDaemon/ContinuousMonotonicTimeSource.hpp"
#include "PlatformLinuxDaemon/NetfilterConfiguration.hpp"
#include "PlatformLinuxDaemon/ProcessDiagnosticConnector.hpp"
#include "PlatformLinuxDaemon/ServiceWatchdog.hpp"
#include "PlatformLinuxDaemon/SystemFilterPathObserver.hpp"
#include "PlatformLinuxDaemon/SystemNetworkPathObserver.hpp"
#include "PlatformLinuxDaemon/SystemProjectionInvalidationSource.hpp"
#include "PlatformLinuxIPC/DaemonSocket.hpp"
#include "PlatformLinuxIPC/UnixSocketDaemonConnector.hpp"
#include "PlatformLinuxIPC/UnixSocketDaemonListener.hpp"
#include "PlatformLinuxInstallation/InstalledFiles.hpp"
#include "PlatformLinuxInstallation/SystemctlJobUnloader.hpp"
#include "PlatformLinuxInstallation/SystemdContentFilter.hpp"
#include "PlatformLinuxPeer/CodeSigningAnchor.hpp"
#include "PlatformLinuxPeer/RootDaemon.hpp"
#include "PlatformLinuxPeer/SignedExecutableIdentifier.hpp"
#include "PlatformLinuxPeer/SignedExecutablePeerIdentifier.hpp"
#include "PlatformLinuxProbe/ProbeAnswer.hpp"
#include "PlatformLinuxText/LocalizedDate.hpp"
#include "StillowConcurrency/ThreadBlockingExecutor.hpp"
#include "StillowCore/ResourceBundle.hpp"
#include "StillowCore/SystemTime.hpp"
#include "StillowDaemon/DaemonPlatform.hpp"
#include "StillowFiltering/EnforcementDirectiveStore.hpp"
#include "StillowFiltering/Storage/PosixFileSystem.hpp"
#include "StillowFiltering/Storage/StateDirectoryLock.hpp"
#include "StillowIPC/StillowDaemonService.hpp"

namespace stillow::platform {

namespace {

using concurrency::ThreadBlockingExecutor;
using core::systemTime;
using daemon::Daemon;
using daemon::LogLine;
using filtering::StateDirectoryLock;

constexpr const char* stateDirectory = STILLOW_STATE_DIRECTORY;
/// With more than one, each event wakes a second thread, which only takes over the waiting: four
/// wake-ups for every tick of the clock instead of one. What blocks has threads of its own.
constexpr int executorThreads = 1;

/// Lives until the process ends, like everything that is built from it.
class LinuxDaemonPlatform final : public daemon::DaemonPlatform {
 public:
  LinuxDaemonPlatform() {
    // A client that goes away in mid-answer is an error of a write, not the end of the daemon.
    (void)std::signal(SIGPIPE, SIG_IGN);
    std::thread([this] { context_.run(); }).detach();
  }

  concurrency::Executor executor() override { return context_.get_executor(); }
  std::shared_ptr<concurrency::Sleeper> sleeper() override { return sleeper_; }

  std::shared_ptr<ipc::DaemonConnecting> daemonServices() override {
    return std::make_shared<UnixSocketDaemonConnector>(
        UnixSocketDaemonConnector::Dependencies{.executor = executor(),
                                                .sleeper = sleeper_,
                                                .socketPath = socketPath(),
                                                .requireDaemon = requireRootDaemon});
  }

  daemon::UninstallTools uninstallTools() override {
    const auto commands = std::make_shared<CommandRunner>();
    const auto jobs = std::make_shared<SystemctlJobUnloader>(commands);
    // To take rules away nobody has to know who holds the queue.
    const auto rules = std::make_shared<NetfilterConfiguration>(
        NetfilterConfiguration::Collaborators{.commands = commands});
    const auto removeRules = [rules]() -> std::expected<void, std::string> {
      auto removed = rules->remove();
      if (!removed) return std::unexpected(std::move(removed.error().description));
      return {};
    };
    return {
        .isRoot = ::geteuid() == 0,
        .recoverCheckpoints =
            [this] {
              return authority::DurableCommitmentStore(fileSystem_, stateDirectory).recover();
            },
        .wallClock = systemTime,
        .formatted = [](core::Date date) { return localizedDateAndTime(date, localeOfCaller()); },
        .uninstall = {uninstallLocations(stateDirectory), jobs},
        .contentFilter = std::make_shared<SystemdContentFilter>(
            SystemdContentFilter::Parts{.removeRules = removeRules,
                                        .jobs = jobs,
                                        .developmentUnitPath = developmentFilterUnitPath})};
  }

  std::expected<Daemon::Adapters, std::string> becomeDaemon(LogLine log) override {
    auto lock = StateDirectoryLock::acquire(fileSystem_, stateDirectory, [&log] {
      log("Another daemon holds the state directory; waiting for it to end.");
    });
    if (!lock) return std::unexpected(lock.error().description);
    lock_ = std::make_unique<StateDirectoryLock>(std::move(*lock));

    auto anchor = CodeSigningAnchor::installed();
    if (!anchor) log("Nobody can be let in: " + anchor.error());
    const auto identifier =
        std::make_shared<SignedExecutableIdentifier>(std::move(anchor), systemTime);
    const std::string directivePath =
        std::string(stateDirectory) + "/" +
        std::string(filtering::FileEnforcementDirectiveStore::fileName);
    // The lock has made the directory.
    const auto filterPath = std::make_shared<SystemFilterPathObserver>(executor(), directivePath);
    if (!filterPath->problems().empty()) log(filterPath->problems());
    const auto queue = std::make_shared<KernelFilterQueueInspector>(
        [identifier](const PinnedProcess& process) { return identifier->identify(process); },
        filterPath->processWatch());
    const auto commands = std::make_shared<CommandRunner>();
    const SocketLimits limits;
    return Daemon::Adapters{
        .executor = executor(),
        .storage = std::make_shared<ThreadBlockingExecutor>(1),
        .sleeper = sleeper_,
        .wallClock = systemTime,
        .monotonic = std::make_shared<ContinuousMonotonicTimeSource>(),
        .invalidations = std::make_shared<SystemProjectionInvalidationSource>(executor()),
        .filterConfiguration =
            std::make_shared<NetfilterConfiguration>(NetfilterConfiguration::Collaborators{
                .blocking = std::make_shared<ThreadBlockingExecutor>(1),
                .commands = commands,
                .queue = queue}),
        .filterPath = filterPath,
        .connector =
            std::make_shared<ProcessDiagnosticConnector>(ProcessDiagnosticConnector::Collaborators{
                .blocking = std::make_shared<ThreadBlockingExecutor>(1),
                .commands = commands,
                .program = core::platform::executableDirectory() / probeProgramName,
                .log = log}),
        .networkPaths = std::make_shared<SystemNetworkPathObserver>(executor(), sleeper_),
        .directives =
            std::make_shared<filtering::FileEnforcementDirectiveStore>(fileSystem_, directivePath),
        .checkpoints = authority::DurableCommitmentStore(fileSystem_, stateDirectory, log),
        .listener =
            std::make_shared<UnixSocketDaemonListener>(UnixSocketDaemonListener::Dependencies{
                .executor = executor(),
                .blocking = std::make_shared<ThreadBlockingExecutor>(limits.peerChecksMax),
                .sleeper = sleeper_,
                .peers = std::make_shared<SignedExecutablePeerIdentifier>(identifier),
                .socketPath = socketPath(),
                .log = [log](const std::string& line) { log(line); },
                .limits = limits}),
        .requirement = {},
        .log = log};
  }

  void noteServing(std::shared_ptr<Daemon> served) override {
    (void)::sd_notify(0, "READY=1");  // without a service manager there is nobody to tell
    const auto interval = ServiceWatchdog::interval();
    if (!interval) return;
    // A daemon whose authority does not answer is as good as dead, whatever else still turns.
    concurrency::spawn(
        executor(), ServiceWatchdog::feed({.sleeper = sleeper_,
                                           .roundTrip = [served] { return askAuthority(served); },
                                           .giveSign = ServiceWatchdog::notifyManager,
                                           .interval = *interval}));
  }

 private:
  static concurrency::Task<void> askAuthority(std::shared_ptr<Daemon> served) {
    (void)co_await served->authority()->status();
  }

  static std::filesystem::path socketPath() {
    return daemonSocketPath(ipc::StillowDaemonService::machServiceName);
  }

  boost::asio::io_context context_{executorThreads};
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_{
      context_.get_executor()};
  std::shared_ptr<BoottimeSleeper> sleeper_ =
      std::make_shared<BoottimeSleeper>(context_.get_executor());
  filtering::PosixFileSystem fileSystem_;
  std::unique_ptr<StateDirectoryLock> lock_;
};

}  // namespace

}  // namespace stillow::platform

namespace stillow::daemon {

std::shared_ptr<DaemonPlatform> makeDaemonPlatform() {
  // Never destroyed: its threads run until the process ends.
  static auto* const platform =
      new std::shared_ptr<DaemonPlatform>(std::make_shared<platform::LinuxDaemonPlatform>());
  return *platform;
}

void writeLogLine(std::string_view line) {
  static const auto logger = [] {
    auto made = spdlog::stderr_logger_mt("stillow");
    // The journal adds the time.
    made->set_pattern("%v");
    made->flush_on(spdlog::level::info);
    return made;
  }();
  logger->info("{}", line);
}

void runProcess(std::function<int()> work) {
  const int status = work();
  std::cout.flush();
  std::_Exit(status);
}

}  // namespace stillow::daemon
