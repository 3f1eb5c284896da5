#include "StillowDaemon/Daemon.hpp"

#include <cmath>
#include <optional>
#include <utility>

#include "StillowAuthority/ValidationDomains.hpp"
#include "StillowConcurrency/Deadline.hpp"

namespace stillow::daemon {

using authority::CommitmentAuthority;
using authority::CommitmentClock;
using authority::DaemonXPCService;
using authority::EnforcementHealthCoordinator;
using authority::EnforcementHealthEvent;
using authority::EnforcementValidator;
using authority::FilterArmingCoordinator;
using authority::FilterPathSupervisor;
using authority::UserInterfacePresence;
using concurrency::OneShot;
using concurrency::Task;

namespace {

void logEvent(const LogLine& log, const EnforcementHealthEvent& event) {
  core::match(
      event,
      [&](const EnforcementHealthEvent::enteredDegraded& degraded) {
        log("Enforcement is degraded: " + std::string(core::rawValue(degraded.reason)) + ".");
      },
      [&](const EnforcementHealthEvent::returnedToHealthy&) {
        log("Enforcement is healthy again.");
      });
}

std::string describeState(const ipc::DaemonStatus& status) {
  using Commitment = ipc::CommitmentStatus;
  return core::match(
      status.commitment,
      [](const Commitment::active& active) {
        return "a Commitment with " + std::to_string(active.status.scope.size()) + " domains and " +
               core::json::description(std::ceil(active.status.remainingDuration)) + " s to run";
      },
      [](const Commitment::expired&) { return std::string("a Commitment that has ended"); },
      [](const Commitment::idle&) { return std::string("no Commitment"); });
}

}  // namespace

std::shared_ptr<Daemon> Daemon::build(Adapters adapters) {
  return std::shared_ptr<Daemon>(new Daemon(std::move(adapters)));
}

Daemon::Daemon(Adapters adapters) : adapters_(std::move(adapters)) {
  const Adapters& with = adapters_;
  const LogLine& log = adapters_.log;
  authority_ =
      CommitmentAuthority::make(with.executor, with.storage, with.checkpoints, with.wallClock);
  filterArming_ =
      FilterArmingCoordinator::make(with.executor, {.authority = authority_,
                                                    .configuration = with.filterConfiguration,
                                                    .directives = with.directives,
                                                    .blocking = with.storage,
                                                    .clock = with.wallClock,
                                                    .errorLog = log});
  validator_ = EnforcementValidator::make(with.executor,
                                          {.lender = filterArming_,
                                           .path = filterArming_,
                                           .connector = with.connector,
                                           .domains = authority::ValidationDomains::standard(),
                                           .recorder = authority_,
                                           .timeout = probeTimeout,
                                           .clock = with.wallClock});
  health_ = EnforcementHealthCoordinator::make(
      with.executor,
      {.authority = authority_,
       .verifier = validator_,
       .paths = with.networkPaths,
       .sleeper = with.sleeper,
       .backoff = backoff,
       .onEvent = [log](const EnforcementHealthEvent& event) { logEvent(log, event); }});
  filterPath_ = FilterPathSupervisor::make(with.executor, {.path = filterArming_,
                                                           .arming = filterArming_,
                                                           .faults = health_,
                                                           .recovery = health_,
                                                           .observer = with.filterPath,
                                                           .sleeper = with.sleeper});
  clock_ = CommitmentClock::make(with.executor, authority_,
                                 {.monotonic = with.monotonic,
                                  .wallClock = with.wallClock,
                                  .sleeper = with.sleeper,
                                  .invalidations = with.invalidations},
                                 cadence);
}

Task<std::expected<void, std::string>> Daemon::start() { return startUp(shared_from_this()); }

Task<void> Daemon::superviseHealth(std::shared_ptr<Daemon> self, OneShot<bool> reporterIsSet) {
  co_await self->authority_->setFaultReporter(self->health_);
  reporterIsSet.settle(true);
  co_await self->health_->start();
}

Task<void> Daemon::startClock(std::shared_ptr<Daemon> self) { co_await self->clock_->start(); }

Task<bool> Daemon::firstPass(std::shared_ptr<Daemon> self, OneShot<bool> reporterIsSet) {
  // Both report to health before anything of theirs can fail. A filter that is absent is reported
  // before the first pass tells a status and before health takes over how recovery went, so that
  // nobody hears "healthy" first.
  (void)co_await reporterIsSet.wait();
  co_await self->filterArming_->setFaults(self->health_);
  co_await self->filterArming_->start();
  co_await self->filterPath_->start();
  co_await self->filterArming_->reapply();
  co_await self->health_->reconcileWithRecovery();
  co_return true;
}

Task<std::expected<void, std::string>> Daemon::startUp(std::shared_ptr<Daemon> self) {
  const Adapters& with = self->adapters_;
  const ipc::DaemonStatus recovered = co_await self->authority_->status();
  with.log("State recovered: " + describeState(recovered) + ".");

  const OneShot<bool> reporterIsSet;
  concurrency::spawn(with.executor, superviseHealth(self, reporterIsSet));
  concurrency::spawn(with.executor, startClock(self));
  const std::optional<bool> gate = co_await concurrency::within<bool>(
      startUpGateMax, with.sleeper, firstPass(self, reporterIsSet));
  with.log(gate ? "First arming and health pass done."
                : "The first arming and health pass is slow; opening the door without it.");

  self->presence_ = UserInterfacePresence::make(with.executor, self->filterArming_, with.sleeper,
                                                userInterfaceGrace);
  self->service_ = DaemonXPCService::make({.executor = with.executor,
                                           .authority = self->authority_,
                                           .requirement = with.requirement,
                                           .validator = self->validator_,
                                           .presence = self->presence_,
                                           .filterArming = self->filterArming_,
                                           .runningTime = self->clock_});
  std::expected<void, std::string> opened = self->service_->start(*with.listener);
  with.log(opened ? std::string("Serving clients.") : "No client can connect: " + opened.error());
  co_return opened;
}

}  // namespace stillow::daemon
