#include "RandomLife.hpp"

#include <algorithm>
#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace stillow::simulation {

namespace {

/// Far more than anything here needs; a busy loop never comes to rest.
constexpr std::size_t stepsMax = 200'000;
/// Sleeps under way: the daemon's few loops, and a deadline for each call that is open.
constexpr std::size_t sleepersMax = 400;
constexpr std::uint64_t lastClient = 2;

}  // namespace

void RandomLife::run() {
  machine_.disk.medium.placeDirectory(stateDirectory, 0700);
  startDaemon();
  promises_.processBegan();
  const int actions = 40 + static_cast<int>(upTo(80));
  for (int action = 0; action < actions && !testing::Test::HasFailure(); ++action) {
    act();
    settleSometimes();
  }
  if (!testing::Test::HasFailure()) comeToRest();
  coverage_.diskFailures += machine_.disk.failures;
}

std::string RandomLife::story() const {
  constexpr std::size_t linesMax = 30;
  std::string told;
  const auto& log = machine_.log;
  for (std::size_t i = log.size() - std::min(log.size(), linesMax); i < log.size(); ++i) {
    told += "  " + log[i] + "\n";
  }
  return told;
}

void RandomLife::tell(const std::string& what) {
  machine_.log.push_back("[" + std::to_string(machine_.countedNow()) + "] " + what);
}

// ---- what happens

void RandomLife::act() {
  switch (upTo(24)) {
    case 0:
    case 1:
    case 2:
      return commit();
    case 3:
      return call(Kind::strengthen);
    case 4:
    case 5:
      return call(Kind::extend);
    case 6:
      return call(Kind::acknowledge);
    case 7:
    case 8:
      return call(Kind::other);
    case 9:
      // Two clients at once.
      call(Kind::strengthen);
      return call(static_cast<Kind>(upTo(4)));
    case 10:
      tell("a client lets go of its connection");
      return machine_.client(upTo(lastClient))->invalidate();
    case 11:
      tell("all connections end");
      return machine_.endpoint()->interruptAll();
    case 12:
    case 13:
    case 14:
      return advance(secondsUpTo(50));
    case 15:
      return sleep();
    case 16:
      return setClock();
    case 17:
    case 18:
      return restart();
    case 19:
    case 20:
      return harmDisk();
    case 21:
    case 22:
      return harmFilter();
    case 23:
      return harmNetwork();
    default:
      return;
  }
}

void RandomLife::sleep() {
  const double seconds = static_cast<double>(upTo(4'000)) / (oneIn(3) ? 1 : 40);
  tell("the machine sleeps for " + std::to_string(seconds));
  promises_.machineSleeps(seconds);
  machine_.sleep(seconds);
}

void RandomLife::setClock() {
  const double seconds = (static_cast<double>(upTo(200)) - 100) * (oneIn(8) ? 50 : 1);
  const bool isTold = oneIn(2);
  tell("the clock is set by " + std::to_string(seconds) + (isTold ? "" : " in silence"));
  machine_.setClock(seconds, isTold);
}

void RandomLife::harmDisk() {
  UnreliableDisk& disk = machine_.disk;
  disk.isUnreadable = false;
  disk.isFull = !disk.isFull && oneIn(3);
  disk.refusesCheckpoints = !disk.refusesCheckpoints && oneIn(4);
  disk.refusesDirectives = !disk.refusesDirectives && oneIn(4);
  if (oneIn(3)) disk.callsUntilFailure = static_cast<int>(upTo(12));
  tell(std::string("the disk") + (disk.isFull ? ", full" : "") +
       (disk.refusesCheckpoints ? ", no checkpoints" : "") +
       (disk.refusesDirectives ? ", no directives" : "") +
       (disk.callsUntilFailure ? ", one call" : ""));
}

void RandomLife::harmFilter() {
  switch (upTo(3)) {
    case 0:
      tell(machine_.kernel.filterIsPresent ? "the filter ends" : "the filter begins");
      return machine_.kernel.filterIsPresent ? machine_.killFilter() : machine_.startFilter();
    case 1: {
      const bool isTold = oneIn(2);
      tell(isTold ? "the rules are removed" : "the rules are removed in silence");
      return machine_.removeRules(isTold);
    }
    default:
      machine_.applyFails = !machine_.applyFails && oneIn(2);
      machine_.applyHangs = !machine_.applyHangs && oneIn(3);
      machine_.readBackFails = !machine_.readBackFails && oneIn(3);
      tell(std::string("applying") + (machine_.applyFails ? ", fails" : "") +
           (machine_.applyHangs ? ", hangs" : "") +
           (machine_.readBackFails ? ", cannot be read back" : ""));
      return;
  }
}

void RandomLife::harmNetwork() {
  machine_.networkIsDown = !machine_.networkIsDown && oneIn(2);
  machine_.portalAnswers = !machine_.portalAnswers && oneIn(4);
  machine_.connectionSeconds = oneIn(3) ? static_cast<double>(upTo(60)) / 10 : 0;
  tell(std::string("the network") + (machine_.networkIsDown ? ", down" : "") +
       (machine_.portalAnswers ? ", a portal" : "") + ", connections take " +
       std::to_string(machine_.connectionSeconds));
  machine_.changeNetwork({.isSatisfied = !machine_.networkIsDown,
                          .usesVPN = oneIn(3),
                          .interfaces = {oneIn(2) ? "eth0" : "wlan0"}});
}

// ---- what clients do

void RandomLife::call(Kind kind) {
  const auto client = machine_.client(upTo(lastClient));
  const Promises::Request request = promises_.request();
  switch (kind) {
    case Kind::activate:
      promises_.sendsActivation();
      return note(kind, request, client->activate(activation()));
    case Kind::strengthen:
      promises_.sendsStrengthening();
      return note(kind, request, client->strengthen(addition()));
    case Kind::extend:
      promises_.sendsExtension();
      return note(kind, request, client->extend({core::ProjectedEndTime{newEnd()}}));
    case Kind::acknowledge:
      promises_.sendsAcknowledgement();
      return note(kind, request, client->acknowledgeExpiry());
    case Kind::other:
      return callOther(client, request);
  }
}

void RandomLife::callOther(const SimulatedMachine::Client& client,
                           const Promises::Request& request) {
  switch (upTo(5)) {
    case 0:
    case 1:
      return note(Kind::other, request, client->validateEnforcement());
    case 2:
      return note(Kind::other, request, client->announceUserInterface());
    case 3:
      return note(Kind::other, request, client->armFilterConfiguration());
    default:
      return watch(client);
  }
}

void RandomLife::note(Kind kind, const Promises::Request& request, concurrency::Task<Result> task) {
  constexpr const char* names[] = {"activate", "strengthen", "extend", "acknowledge", "other"};
  tell(std::string("a client asks: ") + names[static_cast<std::size_t>(kind)]);
  calls_.push_back({kind, request, begin(machine_, dated(&machine_, std::move(task)))});
}

concurrency::Task<RandomLife::Answer> RandomLife::dated(SimulatedMachine* machine,
                                                        concurrency::Task<Result> task) {
  Result result = co_await std::move(task);
  co_return Answer{std::move(result), machine->disk.failures};
}

/// As a user begins: a validation, and once it is there the Commitment.
void RandomLife::commit() {
  if (oneIn(4)) return call(Kind::activate);  // on the strength of an earlier one, or of none
  note(Kind::other, promises_.request(), machine_.client(upTo(lastClient))->validateEnforcement());
  advance(machine_.connectionSeconds * 2 + secondsUpTo(3));
  call(Kind::activate);
}

ipc::ActivationRequest RandomLife::activation() {
  std::vector<core::Website> websites;
  for (std::uint64_t count = 1 + upTo(2); count > 0; --count) websites.push_back({domain(), {}});
  return {core::CommitmentSelection::allWebsites{}, std::move(websites),
          *core::CommitmentDuration::fromSeconds(1 + static_cast<double>(upTo(400)))};
}

ipc::ScopeAddition RandomLife::addition() {
  return ipc::ScopeAddition::websites{core::DomainSet{domain()}};
}

core::Domain RandomLife::domain() {
  return *core::Domain::make("site-" + std::to_string(upTo(30)) + ".example");
}

core::Date RandomLife::newEnd() {
  return machine_.now() + static_cast<double>(oneIn(4) ? upTo(100'000) : upTo(1'000));
}

void RandomLife::watch(const SimulatedMachine::Client& client) {
  auto watch = std::make_shared<Watch>();
  watch->pushes = &coverage_.pushes;
  watches_.push_back(watch);
  (void)begin(machine_, follow(client, std::move(watch)));
}

concurrency::Task<bool> RandomLife::follow(SimulatedMachine::Client client,
                                           std::shared_ptr<Watch> watch) {
  const ipc::DaemonStatusStream stream = client->statusChanges();
  client.reset();
  while (true) {
    std::optional<ipc::DaemonStatus> next = co_await stream.next();
    if (!next) break;
    ++*watch->pushes;
    watch->order.tell(*next);
    watch->last = std::move(next);
  }
  watch->hasEnded = true;
  co_return true;
}

// ---- time and processes

void RandomLife::advance(double seconds) {
  tell("time passes: " + std::to_string(seconds));
  machine_.advance(seconds);
  collect();
}

void RandomLife::restart() {
  if (oneIn(3)) {
    // In the middle of a save, after whichever call.
    call(oneIn(2) ? Kind::strengthen : Kind::extend);
    machine_.disk.callsUntilDeath = static_cast<int>(upTo(20));
    machine_.executor().runReady(stepsMax);
  } else if (oneIn(2)) {
    // At any moment, behind an answer perhaps that has just come.
    call(oneIn(2) ? Kind::strengthen : Kind::extend);
    takeSteps(60);
  }
  collect();
  promises_.processEnds();
  const bool isKilled = oneIn(2);
  tell(isKilled ? "kill -9" : "a power cut");
  if (isKilled) {
    machine_.killDaemon();
    if (oneIn(2)) machine_.sleep(static_cast<double>(upTo(100)));
  } else {
    machine_.losePower(static_cast<double>(upTo(3'000)));
  }
  calls_.clear();
  watches_.clear();
  machine_.disk.isUnreadable = oneIn(6);
  startDaemon();
  promises_.processBegan();
  if (machine_.status().active() != nullptr) ++coverage_.restartsWithCommitment;
}

void RandomLife::takeSteps(std::uint64_t limit) {
  for (std::uint64_t steps = upTo(limit); steps > 0; --steps) (void)machine_.executor().step();
}

void RandomLife::startDaemon() {
  machine_.startDaemon();
  // A first pass that hangs keeps the door closed for ten seconds.
  machine_.advance(machine_.applyHangs ? 12 : 2.5);
}

/// Now and then things happen in the middle of others.
void RandomLife::settleSometimes() {
  if (oneIn(3)) {
    takeSteps(60);
    collect();
    return;
  }
  machine_.executor().runReady(stepsMax);
  collect();
  check();
}

void RandomLife::check() {
  promises_.check();
  const ipc::DaemonStatus status = machine_.status();
  std::erase_if(watches_, [](const auto& watch) { return watch->hasEnded; });
  for (const auto& watch : watches_) {
    ASSERT_TRUE(watch->last) << "a subscription is not answered";
    Promises::compareTold(*watch->last, status, "a client");
  }
  EXPECT_LT(machine_.executor().sleeperCount(), sleepersMax) << "something grows without bound";
  ++coverage_.looks;
  if (!core::is<core::EnforcementHealthStatus::healthy>(status.enforcement)) {
    ++coverage_.degradedLooks;
  }
  if (core::is<ipc::CommitmentStatus::expired>(status.commitment)) ++coverage_.expiries;
}

/// Hands answers that have come to those who hold the daemon to them.
void RandomLife::collect() {
  std::vector<Call> waiting;
  for (auto& call : calls_) {
    if (!call.answer->has_value()) {
      waiting.push_back(std::move(call));
      continue;
    }
    const Result& result = (*call.answer)->result;
    const Promises::Exchange exchange{call.request, (*call.answer)->diskFailures};
    if (!result) {
      tell("refused: " + ipc::description(result.error()));
      ++coverage_.failedCalls;
      continue;
    }
    switch (call.kind) {
      case Kind::activate:
        ++coverage_.activations;
        promises_.acknowledgedActivation(exchange, *result);
        break;
      case Kind::strengthen:
        ++coverage_.strengthenings;
        promises_.acknowledgedStrengthening(exchange, *result);
        break;
      case Kind::extend:
        ++coverage_.extensions;
        promises_.acknowledgedExtension(exchange, *result);
        break;
      case Kind::acknowledge:
        ++coverage_.acknowledgements;
        break;
      case Kind::other:
        break;
    }
  }
  calls_ = std::move(waiting);
}

void RandomLife::comeToRest() {
  machine_.disk.mend();
  machine_.applyFails = machine_.applyHangs = machine_.readBackFails = false;
  machine_.networkIsDown = machine_.portalAnswers = false;
  machine_.connectionSeconds = 0;
  machine_.startFilter();
  machine_.removeRules(true);  // whatever was removed in silence is told now
  advance(2);
  machine_.changeNetwork({.isSatisfied = true, .usesVPN = false, .interfaces = {"eth9"}});
  // Time for an attempt, and for the one after it should a fault have crossed the first.
  constexpr int roundsMax = 22;
  int healthyRounds = 0;
  for (int round = 0; round < roundsMax && healthyRounds < 2; ++round) {
    machine_.advance(30);
    collect();
    check();
    if (testing::Test::HasFailure()) return;
    const auto enforcement = machine_.status().enforcement;
    healthyRounds += core::is<core::EnforcementHealthStatus::healthy>(enforcement) ? 1 : 0;
  }
  promises_.checkAtRest();
}

}  // namespace stillow::simulation
