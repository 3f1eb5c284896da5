#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_future.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "NamespaceTesting.hpp"
#include "PlatformLinuxDaemon/BoottimeSleeper.hpp"
#include "PlatformLinuxDaemon/NetfilterConfiguration.hpp"
#include "PlatformLinuxDaemon/SystemFilterPathObserver.hpp"
#include "PlatformLinuxPeer/SignedExecutableIdentifier.hpp"
#include "StillowAuthority/EnforcementHealthCoordinator.hpp"
#include "StillowAuthority/EnforcementValidator.hpp"
#include "StillowAuthority/FilterArmingCoordinator.hpp"
#include "StillowAuthority/FilterPathSupervisor.hpp"
#include "StillowConcurrency/ThreadBlockingExecutor.hpp"
#include "TestSupport/ScriptedNetworkPath.hpp"
#include "TestSupport/TemporaryDirectory.hpp"

/// Supervision as the daemon wires it, over the kernel's own rules, queue and processes, in a
/// network namespace. Each fault of the filter's path is noticed, reported and repaired without a
/// restart, and costs no busy loop. Needs root.
namespace stillow::platform {
namespace {

using authority::CommitmentAuthority;
using authority::DiagnosticConnectionOutcome;
using authority::EnforcementHealthEvent;
using authority::FilterArmingState;
using core::DegradedReason;
using stillow::test::TemporaryDirectory;
using testing::inOwnNamespaces;
using testing::shell;
using testing::shellOutput;
using testing::signedQueueHolder;
using testing::startQueueHolder;
using Entered = EnforcementHealthEvent::enteredDegraded;
using Returned = EnforcementHealthEvent::returnedToHealthy;

/// Runs commands for real, and counts them.
class CountingCommands final : public CommandRunning {
 public:
  explicit CountingCommands(std::vector<std::string> directories)
      : runner_(std::chrono::milliseconds(300), std::move(directories)) {}
  std::expected<CommandResult, CommandFailure> run(const Command& command) override {
    ++count;
    if (command.arguments.front() == "ip6tables-restore") ++restoreCount;
    return runner_.run(command);
  }
  std::atomic<int> count{0};
  std::atomic<int> restoreCount{0};  ///< those of them that load the rules of IPv6

 private:
  CommandRunner runner_;
};

/// Directives in a real file, unless the disk is full.
class FileOrFullDisk final : public filtering::EnforcementDirectivePublishing {
 public:
  explicit FileOrFullDisk(std::string path) : path_(std::move(path)) {}
  std::expected<void, filtering::EnforcementDirectiveError> publish(
      const filtering::EnforcementDirective& directive) override {
    ++attempts;
    if (isFull) return std::unexpected(filtering::EnforcementDirectiveError{"No space left"});
    // What a reader needs is not under test here; only that there is something to open.
    std::ofstream(path_) << (directive.scope ? "scope" : "none");
    return {};
  }
  std::atomic<bool> isFull{false};
  std::atomic<int> attempts{0};

 private:
  std::string path_;
};

/// Blocks what the kernel would block: the probed host cannot be reached while our filter is there
/// and traffic is sent to it.
class KernelAsJudge final : public authority::DiagnosticConnecting {
 public:
  explicit KernelAsJudge(std::shared_ptr<NetfilterConfiguration> configuration)
      : configuration_(std::move(configuration)) {}
  concurrency::Task<DiagnosticConnectionOutcome> connect(std::string host,
                                                         std::chrono::nanoseconds) override {
    return judge(configuration_, std::move(host));
  }

 private:
  static concurrency::Task<DiagnosticConnectionOutcome> judge(
      std::shared_ptr<NetfilterConfiguration> configuration, std::string host) {
    const auto found = co_await configuration->readiness();
    const bool isBlocking =
        found && found->extensionIsApproved && found->filterConfigurationIsEnabled;
    co_return host.starts_with("old-") && isBlocking ? DiagnosticConnectionOutcome::connectionFailed
                                                     : DiagnosticConnectionOutcome::answered;
  }
  std::shared_ptr<NetfilterConfiguration> configuration_;
};

/// Quick, so that nobody waits for minutes; the ratios are the daemon's.
constexpr authority::RecoveryBackoff quickBackoff{
    .initialDelay = 0.1, .multiplier = 2, .maximumDelay = 0.4};

class Supervision {
 public:
  Supervision() {
    const auto executor = pool.get_executor();
    const auto sleeper = std::make_shared<BoottimeSleeper>(executor);
    const core::WallClock clock = [] {
      const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
      return core::Date::fromUnixSeconds(now.count());
    };
    authority = CommitmentAuthority::make(
        executor, storage,
        authority::DurableCommitmentStore(
            std::make_shared<authority::InMemoryCommitmentCheckpointStore>(),
            std::make_shared<authority::InMemoryCommitmentCheckpointStore>()),
        clock);
    observer = std::make_shared<SystemFilterPathObserver>(executor, directivePath);
    const auto identifier =
        std::make_shared<SignedExecutableIdentifier>(CodeSigningAnchor::installed(), clock);
    configuration = std::make_shared<NetfilterConfiguration>(NetfilterConfiguration::Collaborators{
        .blocking = std::make_shared<concurrency::ThreadBlockingExecutor>(1),
        .commands = commands,
        .queue = std::make_shared<KernelFilterQueueInspector>(
            [identifier](const PinnedProcess& process) { return identifier->identify(process); },
            observer->processWatch())});
    arming = authority::FilterArmingCoordinator::make(executor, {.authority = authority,
                                                                 .configuration = configuration,
                                                                 .directives = directives,
                                                                 .blocking = storage,
                                                                 .clock = clock});
    const auto validator = authority::EnforcementValidator::make(
        executor, {.lender = arming,
                   .path = arming,
                   .connector = std::make_shared<KernelAsJudge>(configuration),
                   .domains = authority::ValidationDomains::standard(),
                   .recorder = authority,
                   .clock = clock});
    health = authority::EnforcementHealthCoordinator::make(
        executor,
        {.authority = authority,
         .verifier = validator,
         .paths = std::make_shared<stillow::test::ScriptedNetworkPath>(),
         .sleeper = sleeper,
         .backoff = quickBackoff,
         .onEvent = [channel = events](EnforcementHealthEvent event) { channel.give(event); }});
    supervisor =
        authority::FilterPathSupervisor::make(executor, {.path = arming,
                                                         .arming = arming,
                                                         .faults = health,
                                                         .recovery = health,
                                                         .observer = observer,
                                                         .sleeper = sleeper,
                                                         .pause = std::chrono::milliseconds(50)});
  }
  ~Supervision() {
    run(supervisor->stop());
    run(health->stop());
    run(arming->stop());
    observer.reset();
    pool.stop();
    pool.join();
  }
  Supervision(const Supervision&) = delete;
  Supervision& operator=(const Supervision&) = delete;

  /// In the daemon's order.
  void start() {
    run(authority->setFaultReporter(health));
    run(arming->setFaults(health));
    run(arming->start());
    run(arming->reapply());
    run(supervisor->start());
    run(health->reconcileWithRecovery());
    run(arming->setUserInterfaceRunning(true));
  }

  template <class T>
  T run(concurrency::Task<T> task) {
    auto future = boost::asio::co_spawn(pool, std::move(task), boost::asio::use_future);
    if (future.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
      std::cerr << "a task does not end\n";
      std::abort();
    }
    return future.get();
  }
  /// The next change of health; none if there is none within half a minute.
  std::optional<EnforcementHealthEvent> nextEvent() {
    auto future = boost::asio::co_spawn(pool, events.next(), boost::asio::use_future);
    if (future.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
      events.finish();
      ADD_FAILURE() << "health did not change";
    }
    return future.get();
  }
  bool isHealthy() {
    return core::is<core::EnforcementHealthStatus::healthy>(run(authority->status()).enforcement);
  }
  /// Whether it is, or comes to be within half a minute: health tells its event, then the
  /// authority.
  bool becomesHealthy() {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!isHealthy()) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::yield();
    }
    return true;
  }
  bool rulesAreInPlace() {
    const auto found = run(configuration->readiness());
    return found && found->filterConfigurationIsEnabled;
  }
  /// From now on the command hangs.
  void hang(const std::string& command) const {
    std::ofstream(programs.path(command)) << "#!/bin/sh\nexec sleep 600\n";
    EXPECT_EQ(::chmod(programs.path(command).c_str(), 0755), 0);
  }
  void repair(const std::string& command) const { std::filesystem::remove(programs.path(command)); }

  TemporaryDirectory programs;
  TemporaryDirectory state;
  std::string directivePath = state.path("enforcement-directive.json");
  boost::asio::thread_pool pool{2};
  std::shared_ptr<concurrency::ThreadBlockingExecutor> storage =
      std::make_shared<concurrency::ThreadBlockingExecutor>(1);
  std::shared_ptr<CountingCommands> commands = std::make_shared<CountingCommands>(
      std::vector<std::string>{programs.path(), "/usr/sbin", "/usr/bin", "/sbin", "/bin"});
  std::shared_ptr<FileOrFullDisk> directives = std::make_shared<FileOrFullDisk>(directivePath);
  concurrency::Channel<EnforcementHealthEvent> events{100};

  std::shared_ptr<CommitmentAuthority> authority;
  std::shared_ptr<SystemFilterPathObserver> observer;
  std::shared_ptr<NetfilterConfiguration> configuration;
  std::shared_ptr<authority::FilterArmingCoordinator> arming;
  std::shared_ptr<authority::EnforcementHealthCoordinator> health;
  std::shared_ptr<authority::FilterPathSupervisor> supervisor;
};

TEST(FilterSupervision, restoresRulesThatAnotherProgramRemoved) {
  inOwnNamespaces([] {
    auto filter = startQueueHolder(signedQueueHolder());
    Supervision supervision;
    supervision.start();
    ASSERT_TRUE(supervision.isHealthy());
    ASSERT_TRUE(supervision.rulesAreInPlace());
    for (const char* const damage : {"iptables -t mangle -F", "ip6tables -t filter -F OUTPUT"}) {
      shell(damage);
      EXPECT_EQ(supervision.nextEvent(), Entered{DegradedReason::failedOpen}) << damage;
      EXPECT_EQ(supervision.nextEvent(), Returned{});
      EXPECT_TRUE(supervision.rulesAreInPlace());
    }
  });
}

TEST(FilterSupervision, isNeverHealthyAfterAStartWithoutAFilterUntilItComes) {
  inOwnNamespaces([] {
    Supervision supervision;
    supervision.start();
    EXPECT_EQ(supervision.nextEvent(), Entered{DegradedReason::failedOpen});
    EXPECT_FALSE(supervision.isHealthy());
    EXPECT_TRUE(supervision.rulesAreInPlace()) << "in force as soon as the filter comes";
    auto filter = startQueueHolder(signedQueueHolder());
    shell("cat '" + supervision.directivePath + "' > /dev/null");  // as a filter does
    EXPECT_EQ(supervision.nextEvent(), Returned{});
  });
}

TEST(FilterSupervision, noticesTheEndOfTheFilterAndItsReturn) {
  inOwnNamespaces([] {
    auto filter = startQueueHolder(signedQueueHolder());
    Supervision supervision;
    supervision.start();
    for (int round = 0; round < 3; ++round) {
      ASSERT_TRUE(supervision.becomesHealthy());
      filter.kill();
      EXPECT_EQ(supervision.nextEvent(), Entered{DegradedReason::failedOpen});
      filter = startQueueHolder(signedQueueHolder());
      EXPECT_EQ(supervision.nextEvent(), Returned{});
    }
  });
}

TEST(FilterSupervision, sendsNothingToAStrangerAndArmsAgainForTheFilter) {
  inOwnNamespaces([] {
    const TemporaryDirectory directory;
    std::filesystem::copy_file(signedQueueHolder(), directory.path("stranger"));
    auto filter = startQueueHolder(signedQueueHolder());
    Supervision supervision;
    supervision.start();
    ASSERT_TRUE(supervision.isHealthy());
    filter.kill();
    auto stranger = startQueueHolder(directory.path("stranger"));
    EXPECT_EQ(supervision.nextEvent(), Entered{DegradedReason::failedOpen});
    // The recovery loop finds out at its own pace, without being asked.
    while (shellOutput("iptables-save -t mangle").find("STILLOW") != std::string::npos) {
    }
    EXPECT_FALSE(supervision.isHealthy());
    stranger.kill();
    filter = startQueueHolder(signedQueueHolder());
    EXPECT_EQ(supervision.nextEvent(), Returned{});
    EXPECT_TRUE(supervision.rulesAreInPlace());
  });
}

TEST(FilterSupervision, getsOverARuleCommandThatHangs) {
  inOwnNamespaces([] {
    auto filter = startQueueHolder(signedQueueHolder());
    Supervision supervision;
    supervision.hang("ip6tables-restore");
    supervision.start();
    EXPECT_EQ(supervision.nextEvent(), Entered{DegradedReason::failedOpen});
    const auto began = std::chrono::steady_clock::now();
    const int before = supervision.commands->restoreCount;
    while (supervision.commands->restoreCount < before + 2) std::this_thread::yield();
    EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(300))
        << "each attempt waits for its turn and for the command";
    EXPECT_FALSE(supervision.isHealthy());
    supervision.repair("ip6tables-restore");
    EXPECT_EQ(supervision.nextEvent(), Returned{});
    EXPECT_TRUE(supervision.rulesAreInPlace());
  });
}

TEST(FilterSupervision, getsOverPublicationAndArmingThatFailTogether) {
  inOwnNamespaces([] {
    auto filter = startQueueHolder(signedQueueHolder());
    Supervision supervision;
    supervision.hang("iptables-restore");
    supervision.directives->isFull = true;
    supervision.start();
    EXPECT_TRUE(core::is<Entered>(*supervision.nextEvent()));
    EXPECT_TRUE(supervision.arming->hasUnpublishedDirective());
    // Two failures that chased each other would make thousands of attempts in that time.
    const int attempts = supervision.directives->attempts;
    supervision.run(BoottimeSleeper(supervision.pool.get_executor())
                        .sleep(std::chrono::seconds(1), concurrency::Cancellation()));
    EXPECT_LE(supervision.directives->attempts - attempts, 40);
    supervision.directives->isFull = false;
    supervision.repair("iptables-restore");
    EXPECT_EQ(supervision.nextEvent(), Returned{});
    EXPECT_FALSE(supervision.arming->hasUnpublishedDirective());
    EXPECT_TRUE(supervision.rulesAreInPlace());
  });
}

TEST(FilterSupervision, asksTheSystemNothingWhileNothingHappens) {
  inOwnNamespaces([] {
    auto filter = startQueueHolder(signedQueueHolder());
    Supervision supervision;
    supervision.start();
    ASSERT_TRUE(supervision.isHealthy());
    BoottimeSleeper sleeper(supervision.pool.get_executor());
    const auto commandsWithin = [&](std::chrono::milliseconds time) {
      const int before = supervision.commands->count;
      supervision.run(sleeper.sleep(time, concurrency::Cancellation()));
      return supervision.commands->count - before;
    };
    // What our own change of the rules set off is looked at first, on a busy machine for longer.
    for (int i = 0; i < 20 && commandsWithin(std::chrono::milliseconds(300)) > 0; ++i) {
    }
    EXPECT_EQ(commandsWithin(std::chrono::milliseconds(700)), 0);
  });
}

}  // namespace
}  // namespace stillow::platform
