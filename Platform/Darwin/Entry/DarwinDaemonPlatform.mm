#include <dispatch/dispatch.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>

#include "PlatformDarwinDaemon/ContinuousMonotonicTimeSource.hpp"
#include "PlatformDarwinDaemon/ContinuousSleeper.hpp"
#include "PlatformDarwinDaemon/FullSyncFileSystem.hpp"
#include "PlatformDarwinDaemon/LaunchctlJobUnloader.hpp"
#include "PlatformDarwinDaemon/NEFilterManagerConfiguration.hpp"
#include "PlatformDarwinDaemon/NEFilterPathObserver.hpp"
#include "PlatformDarwinDaemon/SystemNetworkPathObserver.hpp"
#include "PlatformDarwinDaemon/SystemProjectionInvalidationSource.hpp"
#include "PlatformDarwinDaemon/URLSessionDiagnosticConnector.hpp"
#include "PlatformDarwinFilter/SystemLog.hpp"
#include "PlatformDarwinIPC/XPCDaemonConnector.hpp"
#include "PlatformDarwinIPC/XPCDaemonListener.hpp"
#include "PlatformDarwinText/LocalizedDate.hpp"
#include "StillowConcurrency/ThreadBlockingExecutor.hpp"
#include "StillowCore/SystemTime.hpp"
#include "StillowDaemon/DaemonPlatform.hpp"
#include "StillowFiltering/EnforcementDirectiveStore.hpp"
#include "StillowFiltering/Storage/StateDirectoryLock.hpp"
#include "StillowIPC/StillowDaemonService.hpp"

namespace stillow::platform {

namespace {

using concurrency::ThreadBlockingExecutor;
using core::systemTime;
using daemon::Daemon;
using daemon::LogLine;
using filtering::StateDirectoryLock;
using ipc::StillowDaemonService;

constexpr const char* stateDirectory = STILLOW_STATE_DIRECTORY;
/// One thread could do: two keep a status from waiting behind the encoding of a large one.
constexpr int executorThreads = 2;

/// Lives until the process ends, like everything that is built from it.
class DarwinDaemonPlatform final : public daemon::DaemonPlatform {
 public:
  DarwinDaemonPlatform() {
    // A client that goes away in mid-answer is an error of a write, not the end of the daemon.
    (void)std::signal(SIGPIPE, SIG_IGN);
    for (int i = 0; i < executorThreads; ++i) {
      std::thread([this] { context_.run(); }).detach();
    }
  }

  concurrency::Executor executor() override { return context_.get_executor(); }
  std::shared_ptr<concurrency::Sleeper> sleeper() override { return sleeper_; }

  std::shared_ptr<ipc::DaemonConnecting> daemonServices() override {
    return std::make_shared<XPCDaemonConnector>(std::string(StillowDaemonService::machServiceName));
  }

  daemon::UninstallTools uninstallTools() override {
    return {
        .isRoot = ::geteuid() == 0,
        .recoverCheckpoints =
            [this] {
              return authority::DurableCommitmentStore(fileSystem_, stateDirectory).recover();
            },
        .wallClock = systemTime,
        .formatted = localizedDateAndTime,
        .uninstall = {{.stateDirectory = stateDirectory}, std::make_shared<LaunchctlJobUnloader>()},
        .contentFilter = std::make_shared<NEFilterManagerRemoval>()};
  }

  std::expected<Daemon::Adapters, std::string> becomeDaemon(LogLine log) override {
    auto lock = StateDirectoryLock::acquire(fileSystem_, stateDirectory, [&log] {
      log("Another daemon holds the state directory; waiting for it to end.");
    });
    if (!lock) return std::unexpected(lock.error().description);
    lock_ = std::make_unique<StateDirectoryLock>(std::move(*lock));

    const std::string directivePath =
        std::string(stateDirectory) + "/" +
        std::string(filtering::FileEnforcementDirectiveStore::fileName);
    return Daemon::Adapters{
        .executor = executor(),
        .storage = std::make_shared<ThreadBlockingExecutor>(1),
        .sleeper = sleeper_,
        .wallClock = systemTime,
        .monotonic = std::make_shared<ContinuousMonotonicTimeSource>(),
        .invalidations = std::make_shared<SystemProjectionInvalidationSource>(),
        .filterConfiguration = std::make_shared<NEFilterManagerConfiguration>(
            NEFilterManagerConfiguration::Identity{
                .providerBundleIdentifier =
                    std::string(StillowDaemonService::filterBundleIdentifier),
                .localizedDescription = "Stillow"},
            sleeper_),
        .filterPath = std::make_shared<NEFilterPathObserver>(),
        .connector = std::make_shared<URLSessionDiagnosticConnector>(),
        .networkPaths = std::make_shared<SystemNetworkPathObserver>(),
        .directives =
            std::make_shared<filtering::FileEnforcementDirectiveStore>(fileSystem_, directivePath),
        .checkpoints = authority::DurableCommitmentStore(fileSystem_, stateDirectory, log),
        .listener =
            std::make_shared<XPCDaemonListener>(std::string(StillowDaemonService::machServiceName)),
        .requirement = {},
        .log = log};
  }

  void noteServing(std::shared_ptr<Daemon> served) override {
    // launchd hands the service's connections over as soon as it is listened to, and restarts a
    // daemon that ends; there is nothing to tell it.
    served_ = std::move(served);
  }

 private:
  boost::asio::io_context context_{executorThreads};
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_{
      context_.get_executor()};
  std::shared_ptr<ContinuousSleeper> sleeper_ = std::make_shared<ContinuousSleeper>();
  FullSyncFileSystem fileSystem_;
  std::unique_ptr<StateDirectoryLock> lock_;
  std::shared_ptr<Daemon> served_;
};

}  // namespace

}  // namespace stillow::platform

namespace stillow::daemon {

std::shared_ptr<DaemonPlatform> makeDaemonPlatform() {
  // Never destroyed: its threads run until the process ends.
  static auto* const platform =
      new std::shared_ptr<DaemonPlatform>(std::make_shared<platform::DarwinDaemonPlatform>());
  return *platform;
}

void writeLogLine(std::string_view line) { platform::writeSystemLog(line); }

void runProcess(std::function<int()> work) {
  // The system answers about the content filter on the main queue, which this thread serves for
  // good.
  std::thread([work = std::move(work)] {
    const int status = work();
    std::cout.flush();
    std::_Exit(status);
  }).detach();
  dispatch_main();
}

}  // namespace stillow::daemon
