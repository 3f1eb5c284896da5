#include "SimulatedMachine.hpp"

#include "StillowCore/Invariant.hpp"
#include "StillowCore/ValidationHosts.hpp"
#include "StillowIPC/StillowDaemonService.hpp"

namespace stillow::simulation {

using authority::CommitmentAuthority;
using authority::DiagnosticConnectionOutcome;
using authority::FilterArmingState;
using authority::FilterConfigurationError;
using authority::FilterPathReadiness;
using concurrency::Task;

namespace {

Task<bool> thenTrue(Task<void> task) {
  co_await std::move(task);
  co_return true;
}

}  // namespace

// ---- kernel and network

bool Kernel::isDropping(const std::string& host, core::Date now) const {
  if (!filterIsPresent || !isArmed || !adopted || dropsNothing) return false;
  const auto domain = core::Domain::make(host);
  return domain && adopted->effectiveDomains(now).contains(*domain);
}

/// Something that the daemon asked the system for and has not been answered.
class SimulatedMachine::Step {
 public:
  explicit Step(SimulatedMachine& machine) : machine_(machine) { ++machine_.stepsUnderWay_; }
  Step(const Step&) = delete;
  Step& operator=(const Step&) = delete;
  ~Step() { --machine_.stepsUnderWay_; }

 private:
  SimulatedMachine& machine_;
};

class SimulatedMachine::Configuration final : public authority::FilterConfiguring {
 public:
  template <class T>
  using Result = std::expected<T, FilterConfigurationError>;
  explicit Configuration(SimulatedMachine& machine) : machine_(&machine) {}

  Task<Result<void>> apply(FilterArmingState desired) override { return change(machine_, desired); }
  Task<Result<FilterPathReadiness>> readiness() override { return read(machine_); }

 private:
  static Task<Result<void>> change(SimulatedMachine* machine, FilterArmingState desired) {
    const Step step(*machine);
    const bool hangs = machine->applyHangs;
    if (hangs) {
      const auto sleeper = machine->executor().sleeper();
      (void)co_await sleeper->sleep(std::chrono::seconds(5), concurrency::Cancellation());
    }
    const bool fails = hangs || machine->applyFails;
    // A step that fails may still have done its work.
    if (!fails || machine->chance_() % 3 == 0) {
      machine->kernel.isArmed = desired == FilterArmingState::armed;
    }
    machine->kernel.lostRulesInSilence = false;
    machine->notePathChange();
    if (fails) {
      co_return std::unexpected(FilterConfigurationError{"The rules could not be loaded."});
    }
    co_return Result<void>{};
  }
  static Task<Result<FilterPathReadiness>> read(SimulatedMachine* machine) {
    if (machine->readBackFails) {
      co_return std::unexpected(FilterConfigurationError{"The rules could not be read."});
    }
    co_return FilterPathReadiness{.extensionIsApproved = machine->kernel.filterIsPresent,
                                  .filterConfigurationIsEnabled = machine->kernel.isArmed};
  }

  SimulatedMachine* machine_;
};

class SimulatedMachine::Connector final : public authority::DiagnosticConnecting {
 public:
  explicit Connector(SimulatedMachine& machine) : machine_(&machine) {}
  Task<DiagnosticConnectionOutcome> connect(std::string host,
                                            std::chrono::nanoseconds timeout) override {
    return tryHost(machine_, std::move(host), timeout);
  }

 private:
  static Task<DiagnosticConnectionOutcome> tryHost(SimulatedMachine* machine, std::string host,
                                                   std::chrono::nanoseconds timeout) {
    const Step step(*machine);
    const bool isDropped = machine->kernel.isDropping(host, machine->now());
    co_await machine->connectionGate.pass();
    const auto needed = concurrency::nanoseconds(machine->connectionSeconds);
    if (needed > std::chrono::nanoseconds(0)) {
      const auto sleeper = machine->executor().sleeper();
      (void)co_await sleeper->sleep(std::min(needed, timeout), concurrency::Cancellation());
    }
    const bool isProbe = host == core::ValidationHosts::probed;
    if (isProbe) machine->probeWasDropped_ = isDropped;
    if (isDropped || machine->networkIsDown || needed >= timeout) {
      co_return DiagnosticConnectionOutcome::connectionFailed;
    }
    if (machine->portalAnswers) co_return DiagnosticConnectionOutcome::answeredByAnotherHost;
    if (!isProbe && machine->probeWasDropped_) {
      machine->lastProof = Proof{machine->now(), machine->clockSettings_};
    }
    co_return DiagnosticConnectionOutcome::answered;
  }

  SimulatedMachine* machine_;
};

/// The file, and the filter behind it.
class SimulatedMachine::Directives final : public filtering::EnforcementDirectivePublishing {
 public:
  explicit Directives(SimulatedMachine& machine)
      : machine_(machine), store_(machine.disk, directivePath) {}
  std::expected<void, filtering::EnforcementDirectiveError> publish(
      const filtering::EnforcementDirective& directive) override {
    if (const auto saved = machine_.savedState(); saved && directive.scope) {
      const core::Commitment* const commitment = saved->commitment();
      if (commitment == nullptr || commitment->scope != *directive.scope) {
        machine_.hasToldTooEarly_ = true;
      }
    }
    auto published = store_.publish(directive);
    machine_.directiveIsUncertain_ = !published.has_value();
    machine_.scopeIsUncertain_ = !published && lastPublished_ != directive.scope;
    if (published) lastPublished_ = directive.scope;
    machine_.filterLooks();  // also after a failure that came too late to keep the old one
    return published;
  }

 private:
  SimulatedMachine& machine_;
  filtering::FileEnforcementDirectiveStore store_;
  std::optional<core::Scope> lastPublished_;
};

class SimulatedMachine::Monotonic final : public authority::MonotonicTimeSource {
 public:
  explicit Monotonic(const SimulatedMachine& machine) : machine_(machine) {}
  [[nodiscard]] double seconds() const override { return machine_.monotonicNow(); }

 private:
  const SimulatedMachine& machine_;
};

class SimulatedMachine::Invalidations final : public authority::ProjectionInvalidationSource {
 public:
  using Channel = concurrency::Channel<authority::ProjectionInvalidation>;
  [[nodiscard]] Channel invalidations() override { return channels.emplace_back(16); }
  std::vector<Channel> channels;
};

// ---- processes

SimulatedMachine::SimulatedMachine(std::uint64_t seed) : chance_(seed ^ 0x5EED) {}

SimulatedMachine::~SimulatedMachine() {
  if (executor_) endProcess();
}

void SimulatedMachine::startDaemon() {
  core::require(!daemon_, "one daemon at a time");
  executor_ = std::make_unique<test::DeterministicExecutor>(chance_());
  endpoint_ = ipc::InMemoryDaemonEndpoint::make(executor_->executor());
  filterPath_ = std::make_shared<test::ScriptedFilterPath>();
  paths_ = std::make_shared<test::ScriptedNetworkPath>();
  paths_->present = network_;
  invalidations_ = std::make_shared<Invalidations>();
  // Where the checkpoints cannot be read, what is in force and what is saved differ from the start.
  failuresAtStart_ = disk.isUnreadable ? -1 : disk.failures;
  notePathChange();
  daemon_ = daemon::Daemon::build(daemon::Daemon::Adapters{
      .executor = executor_->executor(),
      .storage = executor_->blockingExecutor(),
      .sleeper = executor_->sleeper(),
      .wallClock = [this] { return now(); },
      .monotonic = std::make_shared<Monotonic>(*this),
      .invalidations = invalidations_,
      .filterConfiguration = std::make_shared<Configuration>(*this),
      .filterPath = filterPath_,
      .connector = std::make_shared<Connector>(*this),
      .networkPaths = paths_,
      .directives = std::make_shared<Directives>(*this),
      .checkpoints = authority::DurableCommitmentStore(disk, stateDirectory),
      .listener = endpoint_,
      .requirement = ipc::CodeSigningRequirement::trustedPeers(),
      .log = [this](std::string_view line) { log.emplace_back(line); }});
  (void)executor_->start(daemon_->start());
  (void)executor_->start(thenTrue(observe(this, daemon_->authority())));
  executor_->runReady();
}

Task<void> SimulatedMachine::observe(SimulatedMachine* machine,
                                     std::shared_ptr<CommitmentAuthority> authority) {
  CommitmentAuthority::Observer observer = [machine](CommitmentAuthority::StatusPointer status) {
    return note(machine, std::move(status));
  };
  const auto subscription = co_await authority->subscribe(std::move(observer));
  // A change that came right behind the registration has been announced by now.
  if (!machine->lastAnnounced_) machine->lastAnnounced_ = *subscription.status;
}

Task<void> SimulatedMachine::note(SimulatedMachine* machine,
                                  CommitmentAuthority::StatusPointer status) {
  if (const auto saved = machine->savedState()) {
    const core::Commitment* const commitment = saved->commitment();
    const auto* const active = status->active();
    const bool isSaved = active == nullptr
                             ? commitment == nullptr
                             : commitment != nullptr &&
                                   commitment->activatedAt == active->activatedAt &&
                                   commitment->scope.generation == active->scopeGeneration;
    if (!isSaved) machine->hasToldTooEarly_ = true;
  }
  machine->announced_.push_back(*status);
  machine->lastAnnounced_ = *status;
  co_return;
}

void SimulatedMachine::endProcess() {
  clocks_.wallSeconds += processSeconds();
  clocks_.monotonicSeconds += processSeconds();
  clocks_.countedSeconds += processSeconds();
  announced_.clear();
  lastAnnounced_.reset();
  connectionGate = {};
  clients_.clear();
  daemon_.reset();
  endpoint_.reset();
  executor_.reset();
  disk.callsUntilDeath.reset();
}

/// What the disk holds; none while the daemon has an excuse for knowing of something else.
std::optional<authority::AuthorityState> SimulatedMachine::savedState() {
  if (disk.failures != failuresAtStart_) return std::nullopt;
  auto recovered = authority::DurableCommitmentStore(disk.medium, stateDirectory).recover();
  if (!recovered.checkpoint) return authority::AuthorityState(authority::AuthorityState::idle{});
  return std::move(recovered.checkpoint->state);
}

void SimulatedMachine::killDaemon() {
  core::require(executor_ != nullptr, "no daemon to kill");
  endProcess();
}

void SimulatedMachine::losePower(double offSeconds) {
  if (daemon_) endProcess();
  auto states = disk.medium.statesAfterPowerCut();
  disk.medium = std::move(states[chance_() % states.size()]);
  clocks_.wallSeconds += offSeconds;
  clocks_.monotonicSeconds = 10;
  // The kernel forgets its rules, and the filter starts with the machine.
  kernel = Kernel{};
  filterLooks();
}

void SimulatedMachine::letGo() {
  clients_.clear();
  daemon_.reset();
  endpoint_.reset();
  executor_->runReady();
}

SimulatedMachine::Client SimulatedMachine::client(std::size_t number) {
  Client& client = clients_[number];
  if (!client) {
    client =
        ipc::XPCCommitmentAuthorityClient::make({.executor = executor_->executor(),
                                                 .endpoint = ipc::Endpoint::anonymous{endpoint_},
                                                 .requirement = std::nullopt,
                                                 .wait = executor_->sleeper()});
  }
  return client;
}

ipc::DaemonStatus SimulatedMachine::status() {
  return executor_->run(daemon_->authority()->status());
}

// ---- time

double SimulatedMachine::processSeconds() const {
  return executor_ ? std::chrono::duration<double>(executor_->now()).count() : 0;
}

void SimulatedMachine::advance(double seconds) {
  executor_->advance(concurrency::nanoseconds(seconds));
}

void SimulatedMachine::sleep(double seconds) {
  if (executor_) {
    executor_->skip(concurrency::nanoseconds(seconds));
    return;
  }
  clocks_.wallSeconds += seconds;
  clocks_.monotonicSeconds += seconds;
}

void SimulatedMachine::setClock(double bySeconds, bool isTold) {
  clocks_.wallSeconds += bySeconds;
  ++clockSettings_;
  if (!isTold || !daemon_) return;
  for (const auto& channel : invalidations_->channels) {
    (void)channel.give(authority::ProjectionInvalidation::systemClockChanged);
  }
}

core::Date SimulatedMachine::now() const { return {clocks_.wallSeconds + processSeconds()}; }

double SimulatedMachine::monotonicNow() const {
  return clocks_.monotonicSeconds + processSeconds();
}

double SimulatedMachine::countedNow() const { return clocks_.countedSeconds + processSeconds(); }

// ---- faults

void SimulatedMachine::filterLooks() {
  if (!kernel.filterIsPresent) return;
  filtering::FileEnforcementDirectiveStore store(disk.medium, directivePath);
  if (auto read = store.read(); read && *read) kernel.adopted = std::move(**read);
}

void SimulatedMachine::killFilter() {
  if (!std::exchange(kernel.filterIsPresent, false)) return;
  kernel.adopted.reset();
  notePathChange();
  if (daemon_) filterPath_->filterEnds();
}

void SimulatedMachine::startFilter() {
  if (std::exchange(kernel.filterIsPresent, true)) return;
  filterLooks();
  notePathChange();
  if (daemon_) filterPath_->filterBegins();
}

void SimulatedMachine::changeNetwork(const authority::NetworkPathSnapshot& path) {
  network_ = path;
  paths_->give(path);
}

void SimulatedMachine::removeRules(bool isTold) {
  if (std::exchange(kernel.isArmed, false)) {
    kernel.lostRulesInSilence = !isTold;
    notePathChange();
  }
  if (isTold && daemon_) filterPath_->configurationChanges();
}

}  // namespace stillow::simulation
