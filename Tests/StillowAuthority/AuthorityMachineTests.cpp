#include <cmath>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "AuthorityTesting.hpp"

namespace stillow::authority {
namespace {

using core::CommitmentDuration;
using core::CommitmentHealth;
using core::Date;
using core::DegradedReason;
using core::EnforcementHealthStatus;
using core::EnforcementValidation;
using core::ProjectedEndTime;
using ipc::CommitmentStatus;
using ipc::DaemonError;
using ipc::DaemonStatus;
using testing::commitment;
using testing::degraded;
using testing::domains;
using testing::start;
using Machine = CommitmentAuthorityMachine;

const CommitmentDuration hour = *CommitmentDuration::fromHours(1);

AuthorityState activeState(double remaining = 3'600) {
  return AuthorityState::active{commitment(remaining)};
}
AuthorityState expiredState() { return AuthorityState::expired{start + 5}; }
AuthorityState idleState() { return AuthorityState::idle{}; }

/// An operation under a name, for tables.
struct Event {
  const char* name;
  Machine::Ruling (*apply)(Machine&, Date);
};
const Event activate{"activate", [](Machine& m, Date now) {
                       return m.activate(domains({"a.example", "b.example"}), hour, now);
                     }};
const Event activateNothing{"activate an empty selection",
                            [](Machine& m, Date now) { return m.activate({}, hour, now); }};
const Event strengthen{
    "strengthen", [](Machine& m, Date now) { return m.strengthen(domains({"b.example"}), now); }};
const Event strengthenByNothingNew{"strengthen by what is there", [](Machine& m, Date now) {
                                     return m.strengthen(domains({"a.example"}), now);
                                   }};
const Event strengthenByNothing{"strengthen by nothing",
                                [](Machine& m, Date now) { return m.strengthen({}, now); }};
const Event extend{"extend", [](Machine& m, Date now) { return m.extend({start + 7'200}, now); }};
const Event extendToNow{"extend to the current end",
                        [](Machine& m, Date now) { return m.extend({now + 3'600}, now); }};
const Event extendTooFar{"extend past the boundary",
                         [](Machine& m, Date now) { return m.extend({start + 86'401}, now); }};
const Event acknowledge{"acknowledge expiry", [](Machine& m, Date now) {
                          return Machine::Ruling(m.acknowledgeExpiry(now));
                        }};
const Event runASecond{"a second of running time", [](Machine& m, Date now) {
                         return Machine::Ruling(m.recordRunningTime(1, now));
                       }};
const Event runOut{"all running time", [](Machine& m, Date now) {
                     return Machine::Ruling(m.recordRunningTime(3'600, now));
                   }};

core::Commitment freshCommitment(Date now) {
  return {.activatedAt = now,
          .scope = {.generation = 1, .domains = domains({"a.example", "b.example"})},
          .remainingDuration = 3'600,
          .health = CommitmentHealth::healthy};
}

TEST(CommitmentAuthorityMachine, goesFromStateToStateAsTheTableSays) {
  const Date now = start + 100;
  auto strengthened = commitment();
  strengthened.scope = {.generation = 2, .domains = domains({"a.example", "b.example"})};
  const struct {
    AuthorityState from;
    Event event;
    AuthorityState to;
  } rows[]{
      {idleState(), activate, AuthorityState::active{freshCommitment(now)}},
      {expiredState(), activate, AuthorityState::active{freshCommitment(now)}},
      {expiredState(), acknowledge, idleState()},
      {idleState(), acknowledge, idleState()},
      {activeState(), acknowledge, activeState()},
      {activeState(), strengthen, AuthorityState::active{strengthened}},
      {activeState(), extend, activeState(7'100)},
      {activeState(), runASecond, activeState(3'599)},
      {activeState(), runOut, AuthorityState::expired{now}},
      {activeState(0.5), runASecond, AuthorityState::expired{now}},
      {idleState(), runASecond, idleState()},
      {expiredState(), runASecond, expiredState()},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.event.name) + " in state " +
                 std::to_string(row.from.cases.index()));
    Machine machine(row.from);
    const auto ruling = row.event.apply(machine, now);
    ASSERT_TRUE(ruling.has_value());
    EXPECT_EQ(machine.state(), row.to);
    EXPECT_EQ(*ruling, machine.status(now));
  }
}

TEST(CommitmentAuthorityMachine, refusesAsTheTableSaysAndStaysAsItWas) {
  const Date now = start + 100;
  const struct {
    AuthorityState state;
    Event event;
    DaemonError error;
  } rows[]{
      {activeState(), activate,
       DaemonError::commitmentAlreadyActive{ipc::ActiveCommitmentStatus::of(commitment(), now)}},
      // What is wrong with the selection does not matter while a Commitment runs.
      {activeState(), activateNothing,
       DaemonError::commitmentAlreadyActive{ipc::ActiveCommitmentStatus::of(commitment(), now)}},
      {idleState(), activateNothing, DaemonError::scopeResolvedEmpty{}},
      {expiredState(), activateNothing, DaemonError::scopeResolvedEmpty{}},
      {idleState(), strengthen, DaemonError::noActiveCommitment{}},
      {expiredState(), strengthen, DaemonError::noActiveCommitment{}},
      {activeState(), strengthenByNothingNew, DaemonError::strengtheningAddsNoWebsites{}},
      {activeState(), strengthenByNothing, DaemonError::strengtheningAddsNoWebsites{}},
      {idleState(), extend, DaemonError::noActiveCommitment{}},
      {expiredState(), extend, DaemonError::noActiveCommitment{}},
      {activeState(), extendToNow, DaemonError::extensionDoesNotStrengthen{{now + 3'600}}},
      {activeState(), extendTooFar,
       DaemonError::extensionExceedsActivationBoundary{start + 86'400}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.event.name) + " in state " +
                 std::to_string(row.state.cases.index()));
    Machine machine(row.state);
    const DaemonStatus before = machine.status(now);
    EXPECT_EQ(row.event.apply(machine, now), Machine::Ruling(std::unexpected(row.error)));
    EXPECT_EQ(machine.state(), row.state);
    EXPECT_EQ(machine.status(now), before);
  }
}

TEST(CommitmentAuthorityMachine, showsEveryFieldOfAnActiveCommitment) {
  auto running = commitment(1'000);
  running.scope.generation = 7;
  running.health = CommitmentHealth::degraded;
  ipc::EnforcementReadinessReport readiness{.filterConfigurationIsEnabled = true,
                                            .validation = EnforcementValidation::passed{},
                                            .validatedAt = start + -60};
  const Machine machine(AuthorityState::active{running}, degraded(DegradedReason::pathUnverified),
                        readiness);
  const Date now = start + 250;
  const DaemonStatus status = machine.status(now);
  EXPECT_EQ(status.observedAt, now);
  ASSERT_NE(status.active(), nullptr);
  EXPECT_EQ(status.active()->activatedAt, start);
  EXPECT_EQ(status.active()->scopeGeneration, 7);
  EXPECT_EQ(status.active()->scope, domains({"a.example"}));
  EXPECT_TRUE(status.active()->scope.isSameSetAs(running.scope.domains));
  EXPECT_EQ(status.active()->remainingDuration, 1'000);
  EXPECT_EQ(status.active()->projectedEndTime.date, now + 1'000);
  EXPECT_EQ(status.active()->latestPermittedEndTime, start + 86'400);
  EXPECT_EQ(status.active()->health, CommitmentHealth::degraded);
  EXPECT_EQ(status.enforcement, degraded(DegradedReason::pathUnverified));
  EXPECT_EQ(status.readiness, readiness);
}

TEST(CommitmentAuthorityMachine, showsExpiryAndIdleness) {
  EXPECT_EQ(Machine(expiredState()).status(start + 9).commitment,
            CommitmentStatus(CommitmentStatus::expired{start + 5}));
  const DaemonStatus idle = Machine().status(start);
  EXPECT_EQ(idle.commitment, CommitmentStatus(CommitmentStatus::idle{}));
  EXPECT_EQ(idle.enforcement, EnforcementHealthStatus(EnforcementHealthStatus::healthy{}));
  EXPECT_EQ(idle.readiness, ipc::EnforcementReadinessReport{});
}

TEST(CommitmentAuthorityMachine, expiresAtExactlyTheRemainingSecondsAndNotBefore) {
  Machine machine(activeState(2.5));
  (void)machine.recordRunningTime(std::nextafter(2.5, 0), start + 2);
  ASSERT_TRUE(machine.state().isActive());
  (void)machine.recordRunningTime(machine.state().commitment()->remainingDuration, start + 3);
  EXPECT_EQ(machine.state(), AuthorityState(AuthorityState::expired{start + 3}));
}

TEST(CommitmentAuthorityMachine, ignoresRunningTimeThatIsNone) {
  for (const double seconds : {0.0, -0.0, -1.0, -HUGE_VAL, std::nan("")}) {
    Machine machine(activeState());
    (void)machine.recordRunningTime(seconds, start);
    EXPECT_EQ(machine.state(), activeState()) << seconds;
  }
}

// The boundary is a promise to the user, so both sides of it are pinned.
TEST(CommitmentAuthorityMachine, extendsUpToTheBoundaryAndNotASecondFurther) {
  const Date now = start + 1'000;
  Machine machine(activeState());
  ASSERT_TRUE(machine.extend({start + 86'400}, now).has_value());
  EXPECT_EQ(machine.state().commitment()->remainingDuration, 85'400);
  EXPECT_EQ(machine.state().commitment()->activatedAt, start);
  EXPECT_EQ(machine.state().commitment()->scope, commitment().scope);
  EXPECT_EQ(machine.state().commitment()->health, CommitmentHealth::healthy);
  EXPECT_EQ(machine.extend({start + 86'401}, now),
            Machine::Ruling(std::unexpected(DaemonError::extensionExceedsActivationBoundary{
                .latestPermittedEndTime = start + 86'400})));
}

TEST(CommitmentAuthorityMachine, refusesAnExtensionToNoMomentAtAll) {
  Machine machine(activeState());
  const auto ruling = machine.extend({Date{std::nan("")}}, start);
  ASSERT_FALSE(ruling.has_value());
  EXPECT_TRUE(core::is<DaemonError::extensionDoesNotStrengthen>(ruling.error()));
}

TEST(CommitmentAuthorityMachine, startsACommitmentWithTheHealthOfTheMoment) {
  for (const bool isHealthy : {true, false}) {
    Machine machine(idleState(), isHealthy
                                     ? EnforcementHealthStatus(EnforcementHealthStatus::healthy{})
                                     : degraded(DegradedReason::failedOpen));
    ASSERT_TRUE(machine.activate(domains({"a.example"}), hour, start).has_value());
    EXPECT_EQ(machine.state().commitment()->health,
              isHealthy ? CommitmentHealth::healthy : CommitmentHealth::degraded);
  }
}

TEST(CommitmentAuthorityMachine, activatesWithoutLookingAtReadiness) {
  Machine machine;
  EXPECT_TRUE(machine.activate(domains({"a.example"}), hour, start).has_value());
}

TEST(CommitmentAuthorityMachine, recordsEnforcementIntoTheCommitmentsHealth) {
  for (const auto reason : {DegradedReason::recoveringFromCorruption,
                            DegradedReason::pathUnverified, DegradedReason::failedOpen}) {
    Machine machine(activeState());
    const DaemonStatus status = machine.recordEnforcement(degraded(reason), start);
    EXPECT_EQ(status.enforcement, degraded(reason));
    EXPECT_EQ(status.active()->health, CommitmentHealth::degraded);
    const DaemonStatus healed =
        machine.recordEnforcement(EnforcementHealthStatus::healthy{}, start);
    EXPECT_EQ(healed.active()->health, CommitmentHealth::healthy);
    EXPECT_EQ(machine.state(), activeState());
  }
  Machine idle;
  (void)idle.recordEnforcement(degraded(DegradedReason::failedOpen), start);
  EXPECT_EQ(idle.state(), idleState());
}

TEST(CommitmentAuthorityMachine, recordsValidationAndFilterConfigurationApartFromEachOther) {
  Machine machine;
  (void)machine.recordFilterConfiguration(true, start);
  const DaemonStatus validated =
      machine.recordValidation(EnforcementValidation::passed{}, start + 1, start + 2);
  EXPECT_EQ(validated.readiness,
            (ipc::EnforcementReadinessReport{.filterConfigurationIsEnabled = true,
                                             .validation = EnforcementValidation::passed{},
                                             .validatedAt = start + 1}));
  const DaemonStatus disabled = machine.recordFilterConfiguration(false, start + 3);
  EXPECT_EQ(disabled.readiness,
            (ipc::EnforcementReadinessReport{.filterConfigurationIsEnabled = false,
                                             .validation = EnforcementValidation::passed{},
                                             .validatedAt = start + 1}));
}

TEST(CommitmentAuthorityMachine, adoptsARecoveredStateWithTheHealthOfTheMoment) {
  Machine machine(idleState(), degraded(DegradedReason::failedOpen));
  machine.adopt(activeState());
  EXPECT_EQ(machine.state().commitment()->health, CommitmentHealth::degraded);
  EXPECT_EQ(machine.state().commitment()->remainingDuration, 3'600);
}

TEST(CommitmentAuthorityMachine, refusesAScopeBeyondItsCapacity) {
  const core::DomainSet tooMany = testing::manyDomains(core::ScopeCapacity::domainsMax + 1);
  Machine idle;
  EXPECT_EQ(idle.activate(tooMany, hour, start),
            Machine::Ruling(std::unexpected(DaemonError::internalFailure{
                "The selection holds more websites than Stillow can block at once."})));
  EXPECT_EQ(idle.state(), idleState());

  Machine active(activeState());
  EXPECT_EQ(active.strengthen(tooMany, start),
            Machine::Ruling(
                std::unexpected(DaemonError::internalFailure{"Scope could not be strengthened."})));
  EXPECT_EQ(active.state(), activeState());
}

/// One random operation. Returns the seconds of running time that it charged.
double applyRandomOperation(Machine& machine, std::mt19937_64& random, Date now) {
  const auto pick = [&](std::uint64_t count) { return random() % count; };
  const auto someDomains = [&] {
    core::DomainSet set;
    for (std::uint64_t i = pick(3); i > 0; --i) {
      const std::string name = "site" + std::to_string(pick(12)) + ".example";
      set = set.united(domains({name}));
    }
    return set;
  };
  switch (pick(8)) {
    case 0:
      (void)machine.activate(
          someDomains(), *CommitmentDuration::fromSeconds(1 + static_cast<double>(pick(600))), now);
      return 0;
    case 1:
      (void)machine.strengthen(someDomains(), now);
      return 0;
    case 2:
      (void)machine.extend({now + (static_cast<double>(pick(100'000)) - 1'000)}, now);
      return 0;
    case 3:
      (void)machine.acknowledgeExpiry(now);
      return 0;
    case 4:
      (void)machine.recordEnforcement(degraded(DegradedReason::pathUnverified), now);
      return 0;
    case 5:
      (void)machine.recordEnforcement(EnforcementHealthStatus::healthy{}, now);
      return 0;
    default: {
      const double seconds = static_cast<double>(pick(1'000)) / 10 - 5;
      (void)machine.recordRunningTime(seconds, now);
      return std::max(0.0, seconds);
    }
  }
}

TEST(CommitmentAuthorityMachine, neverWeakensACommitmentWhateverHappens) {
  for (std::uint64_t seed = 0; seed < 200; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937_64 random(seed);
    Machine machine;
    Date now = start;
    for (int step = 0; step < 300; ++step) {
      // The wall clock may go anywhere, backwards too.
      now = now + (static_cast<double>(random() % 2'000) / 10 - 20);
      const AuthorityState before = machine.state();
      const double charged = applyRandomOperation(machine, random, now);
      const core::Commitment* const then = before.commitment();
      const core::Commitment* const after = machine.state().commitment();
      if (then == nullptr) continue;
      if (after == nullptr) {
        // It ends by its counted seconds, into expiry, and in no other way.
        ASSERT_TRUE(core::is<AuthorityState::expired>(machine.state()));
        ASSERT_GE(charged, then->remainingDuration);
        continue;
      }
      ASSERT_EQ(after->activatedAt, then->activatedAt);
      ASSERT_GE(after->remainingDuration, then->remainingDuration - charged);
      ASSERT_EQ(after->scope.domains.united(then->scope.domains), after->scope.domains);
      const bool hasGrown = after->scope.domains.size() > then->scope.domains.size();
      ASSERT_EQ(after->scope.generation, then->scope.generation + (hasGrown ? 1 : 0));
      if (after->remainingDuration > then->remainingDuration) {
        ASSERT_LE((now + after->remainingDuration) - start,
                  (after->activatedAt + 86'400) - start + 1e-6);
      }
    }
  }
}

TEST(CommitmentAuthorityMachine, countsEverySecondOfACommitmentHoweverItIsCut) {
  for (std::uint64_t seed = 0; seed < 50; ++seed) {
    std::mt19937_64 random(seed);
    Machine machine;
    ASSERT_TRUE(machine.activate(domains({"a.example"}), hour, start).has_value());
    double counted = 0;
    while (machine.state().isActive()) {
      const double seconds = static_cast<double>(random() % 5'000) / 1'000;
      (void)machine.recordRunningTime(seconds, start);
      counted += seconds;
    }
    // Rounding of a few thousand subtractions, not time.
    EXPECT_GE(counted, 3'600 - 1e-6) << seed;
    EXPECT_LT(counted, 3'605) << seed;
  }
}

TEST(AuthorityState, isHashedAndComparedByItsCaseAndPayload) {
  const std::hash<AuthorityState> hash;
  const AuthorityState states[]{activeState(), activeState(1), expiredState(),
                                AuthorityState::expired{start}, idleState()};
  for (const auto& left : states) {
    for (const auto& right : states) {
      EXPECT_EQ(left == right, &left == &right);
      EXPECT_EQ(hash(left) == hash(right), &left == &right);
    }
  }
}

}  // namespace
}  // namespace stillow::authority
