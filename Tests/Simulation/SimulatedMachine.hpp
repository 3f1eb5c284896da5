#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "StillowAuthority/DiagnosticConnecting.hpp"
#include "StillowAuthority/DurableCommitmentStore.hpp"
#include "StillowAuthority/FilterConfiguring.hpp"
#include "StillowAuthority/MonotonicTimeSource.hpp"
#include "StillowAuthority/ProjectionInvalidationSource.hpp"
#include "StillowAuthority/ValidationDomains.hpp"
#include "StillowDaemon/Daemon.hpp"
#include "StillowFiltering/EnforcementDirectiveStore.hpp"
#include "StillowIPC/InMemoryDaemonEndpoint.hpp"
#include "StillowIPC/XPCCommitmentAuthorityClient.hpp"
#include "TestSupport/DeterministicExecutor.hpp"
#include "TestSupport/Gate.hpp"
#include "TestSupport/ScriptedFilterPath.hpp"
#include "TestSupport/ScriptedNetworkPath.hpp"
#include "UnreliableDisk.hpp"

/// A machine for the whole daemon: disk, kernel, network and clocks, all of which can fail, and
/// processes that can be killed. Time is virtual, and a seed decides what runs next.
namespace stillow::simulation {

inline constexpr const char* stateDirectory = "/state";
inline constexpr const char* checkpointPath = "/state/commitment-checkpoint.json";
inline constexpr const char* directivePath = "/state/enforcement-directive.json";

/// What the kernel and the filter do. The filter adopts every directive that it can read as soon as
/// it is there.
struct Kernel {
  bool filterIsPresent = true;
  bool isArmed = false;
  bool dropsNothing = false;  ///< although everything looks as it should
  /// Rules were removed, nobody was told, and nothing was applied since.
  bool lostRulesInSilence = false;
  std::optional<filtering::EnforcementDirective> adopted;

  [[nodiscard]] bool isDropping(const std::string& host, core::Date now) const;
};

/// Clocks that outlive the daemon's processes, as of the beginning of the present one.
struct Clocks {
  double wallSeconds = 800'000'000;
  double monotonicSeconds = 1'000;
  double countedSeconds = 0;  ///< monotonic seconds during which there was a daemon
};

/// The filter dropped the probe and the network worked, as seen by one run of both connections.
struct Proof {
  core::Date seenAt;
  int clockSettings = 0;  ///< how often the clock had been set by then
};

class SimulatedMachine {
 public:
  using Client = std::shared_ptr<ipc::XPCCommitmentAuthorityClient>;

  explicit SimulatedMachine(std::uint64_t seed);
  ~SimulatedMachine();
  SimulatedMachine(const SimulatedMachine&) = delete;
  SimulatedMachine& operator=(const SimulatedMachine&) = delete;

  // ---- processes

  /// Starts the daemon, which has to be down, and lets it open its door.
  void startDaemon();
  /// kill -9: what was written stays, flushed or not.
  void killDaemon();
  /// The machine loses power, and what was not flushed is there or not; it comes back after
  /// `offSeconds`.
  void losePower(double offSeconds);
  /// Lets go of daemon, door and clients without ending the process: what still runs then was not
  /// held weakly.
  void letGo();
  [[nodiscard]] bool daemonIsUp() const { return daemon_ != nullptr; }
  [[nodiscard]] daemon::Daemon& daemon() { return *daemon_; }
  [[nodiscard]] test::DeterministicExecutor& executor() { return *executor_; }
  /// The client of that number, made when it is first asked for. It dies with the daemon's process.
  [[nodiscard]] Client client(std::size_t number = 0);
  [[nodiscard]] const std::shared_ptr<ipc::InMemoryDaemonEndpoint>& endpoint() { return endpoint_; }

  // ---- time

  /// Lets time pass while the machine is awake.
  void advance(double seconds);
  /// The machine sleeps: all clocks move on and no process does. What was to happen meanwhile is
  /// ready afterwards, all at once, and has not run.
  void sleep(double seconds);
  /// Somebody sets the wall clock; with or without the system telling so.
  void setClock(double bySeconds, bool isTold);
  [[nodiscard]] core::Date now() const;
  [[nodiscard]] double monotonicNow() const;
  /// What a Commitment is to be charged with.
  [[nodiscard]] double countedNow() const;

  // ---- faults; the daemon is told as the system would tell it

  void killFilter();
  void startFilter();
  void removeRules(bool isTold);
  void changeNetwork(const authority::NetworkPathSnapshot& path);

  UnreliableDisk disk;
  Kernel kernel;
  bool applyFails = false;
  bool applyHangs = false;  ///< it takes five seconds, and then fails
  bool readBackFails = false;
  bool networkIsDown = false;
  bool portalAnswers = false;
  double connectionSeconds = 0;  ///< how long a connection takes to succeed or to fail
  test::Gate connectionGate;
  std::vector<std::string> log;

  // ---- what can be seen from outside

  std::optional<Proof> lastProof;
  [[nodiscard]] int clockSettings() const { return clockSettings_; }
  /// The last directive could not be written, so the filter may have it or the one before.
  [[nodiscard]] bool directiveIsUncertain() const { return directiveIsUncertain_; }
  /// Likewise, and the two have different Scopes.
  [[nodiscard]] bool scopeIsUncertain() const { return scopeIsUncertain_; }
  /// The filter or an observer was told of a Commitment, or of its end, that a disk at which
  /// nothing had failed did not hold yet.
  [[nodiscard]] bool hasToldTooEarly() const { return hasToldTooEarly_; }
  /// No system step and no connection is under way.
  [[nodiscard]] bool isQuiet() const { return stepsUnderWay_ == 0; }
  /// Counted seconds since the filter's path last changed, the end of a system step included.
  [[nodiscard]] double secondsSincePathChanged() const { return countedNow() - pathChangedAt_; }

  /// One status of the authority, asked when nothing else is ready.
  [[nodiscard]] ipc::DaemonStatus status();
  /// Statuses as the authority announced them to an observer in its own process, oldest first.
  [[nodiscard]] std::vector<ipc::DaemonStatus> takeAnnounced() {
    return std::exchange(announced_, {});
  }
  /// The newest of them, or what the observer was told when it subscribed; none before that.
  [[nodiscard]] const std::optional<ipc::DaemonStatus>& lastAnnounced() const {
    return lastAnnounced_;
  }

 private:
  class Configuration;
  class Connector;
  class Monotonic;
  class Invalidations;
  class Directives;
  class Step;

  void endProcess();
  void filterLooks();
  [[nodiscard]] std::optional<authority::AuthorityState> savedState();
  void notePathChange() { pathChangedAt_ = countedNow(); }
  [[nodiscard]] double processSeconds() const;
  static concurrency::Task<void> observe(SimulatedMachine* machine,
                                         std::shared_ptr<authority::CommitmentAuthority> authority);
  static concurrency::Task<void> note(SimulatedMachine* machine,
                                      authority::CommitmentAuthority::StatusPointer status);

  std::mt19937_64 chance_;
  Clocks clocks_;
  std::shared_ptr<test::ScriptedFilterPath> filterPath_;
  std::shared_ptr<test::ScriptedNetworkPath> paths_;
  std::shared_ptr<Invalidations> invalidations_;
  std::vector<ipc::DaemonStatus> announced_;
  std::optional<ipc::DaemonStatus> lastAnnounced_;
  authority::NetworkPathSnapshot network_{
      .isSatisfied = true, .usesVPN = false, .interfaces = {"eth0"}};
  bool probeWasDropped_ = false;
  bool directiveIsUncertain_ = false;
  bool scopeIsUncertain_ = false;
  bool hasToldTooEarly_ = false;
  int failuresAtStart_ = 0;
  int clockSettings_ = 0;
  int stepsUnderWay_ = 0;
  double pathChangedAt_ = 0;

  // The process. Destroyed in reverse order; the executor goes last and takes with it what is
  // under way.
  std::unique_ptr<test::DeterministicExecutor> executor_;
  std::shared_ptr<ipc::InMemoryDaemonEndpoint> endpoint_;
  std::shared_ptr<daemon::Daemon> daemon_;
  std::map<std::size_t, Client> clients_;
};

/// Starts `task` on the machine's present process; the result is there once it is done.
template <class T>
std::shared_ptr<std::optional<T>> begin(SimulatedMachine& machine, concurrency::Task<T> task) {
  return machine.executor().start(std::move(task));
}

}  // namespace stillow::simulation
