#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "AuthorityTesting.hpp"

namespace stillow::authority {
namespace {

using concurrency::OneShot;
using concurrency::Task;
using core::CommitmentHealth;
using core::DegradedReason;
using core::EnforcementHealthStatus;
using core::EnforcementValidation;
using ipc::DaemonError;
using ipc::DaemonStatus;
using testing::AuthorityWorld;
using testing::checkpoint;
using testing::commitment;
using testing::degraded;
using testing::domains;
using testing::seedCount;
using testing::start;
using Source = CommitmentStateRecovery::Source;
using StatusPointer = CommitmentAuthority::StatusPointer;

CommitmentCheckpoint activeCheckpoint(std::int64_t sequence = 4, double remaining = 3'600) {
  return checkpoint(AuthorityState::active{commitment(remaining)}, sequence);
}

TEST(CommitmentAuthority, startsFromWhatRecoveryFound) {
  const auto corrupted = degraded(DegradedReason::recoveringFromCorruption);
  const auto opened = degraded(DegradedReason::failedOpen);
  const EnforcementHealthStatus healthy = EnforcementHealthStatus::healthy{};
  const CommitmentCheckpoint expired = checkpoint(AuthorityState::expired{start}, 9);
  const struct {
    const char* name;
    std::optional<CommitmentCheckpoint> current;
    bool currentIsUnreadable;
    std::optional<CommitmentCheckpoint> lastKnownGood;
    Source source;
    bool isActive;
    EnforcementHealthStatus enforcement;
  } rows[]{
      {"a fresh disk", {}, false, {}, Source::current, false, healthy},
      {"current idle",
       checkpoint(AuthorityState::idle{}),
       false,
       {},
       Source::current,
       false,
       healthy},
      {"current expired", expired, false, {}, Source::current, false, healthy},
      {"current active", activeCheckpoint(), false, {}, Source::current, true, corrupted},
      {"current damaged, good copy active",
       {},
       true,
       activeCheckpoint(),
       Source::lastKnownGood,
       true,
       corrupted},
      {"current damaged, good copy idle",
       {},
       true,
       checkpoint(AuthorityState::idle{}),
       Source::lastKnownGood,
       false,
       corrupted},
      {"current gone, good copy active",
       {},
       false,
       activeCheckpoint(),
       Source::lastKnownGood,
       true,
       corrupted},
      {"both damaged", {}, true, {}, Source::failedOpen, false, opened},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    AuthorityWorld world(1, row.current, row.lastKnownGood);
    world.currentStore->isUnreadable = row.currentIsUnreadable;
    world.begin();
    const DaemonStatus status = world.status();
    EXPECT_EQ(status.enforcement, row.enforcement);
    EXPECT_EQ(status.active() != nullptr, row.isActive);
    if (row.isActive) {
      EXPECT_EQ(status.active()->health, CommitmentHealth::degraded);
    }
    EXPECT_EQ(status.readiness, ipc::EnforcementReadinessReport{});
    EXPECT_EQ(world.run(world.authority->recoverySource()), row.source);
    EXPECT_TRUE(world.currentStore->all.empty()) << "starting writes nothing";
  }
}

TEST(CommitmentAuthority, showsEnforcementAsUnprovenAfterARestartWithAnActiveCommitment) {
  AuthorityWorld world;
  world.begin();
  ASSERT_TRUE(world.activate().has_value());
  ASSERT_EQ(world.status().active()->health, CommitmentHealth::healthy);
  world.begin();
  const DaemonStatus status = world.status();
  EXPECT_EQ(status.enforcement, degraded(DegradedReason::recoveringFromCorruption));
  EXPECT_EQ(status.active()->health, CommitmentHealth::degraded);
}

TEST(CommitmentAuthority, numbersCheckpointsFromOneOnAFreshDisk) {
  AuthorityWorld world;
  world.begin();
  ASSERT_TRUE(world.activate().has_value());
  world.passTime(3);
  ASSERT_TRUE(world.strengthen(domains({"b.example"})).has_value());
  ASSERT_EQ(world.currentStore->all.size(), 2U);
  EXPECT_EQ(world.currentStore->all[0].sequence, 1);
  EXPECT_EQ(world.currentStore->all[1].sequence, 2);
  EXPECT_EQ(world.currentStore->all[1].writtenAt, start + 3);
  EXPECT_EQ(world.currentStore->all[1].state.commitment()->scope.generation, 2);
  ASSERT_EQ(world.goodStore->all.size(), 1U);
  EXPECT_EQ(world.goodStore->content, world.currentStore->all[0]);
}

TEST(CommitmentAuthority, continuesTheNumbersOfTheRecoveredCheckpoint) {
  AuthorityWorld world(0, activeCheckpoint(41));
  world.begin();
  ASSERT_TRUE(world.strengthen(domains({"b.example"})).has_value());
  ASSERT_TRUE(world.strengthen(domains({"c.example"})).has_value());
  ASSERT_EQ(world.currentStore->all.size(), 2U);
  EXPECT_EQ(world.currentStore->all[0].sequence, 42);
  EXPECT_EQ(world.currentStore->all[1].sequence, 43);
}

TEST(CommitmentAuthority, savesAndTellsEveryChangeAndNothingElse) {
  AuthorityWorld world(3);
  world.begin();
  world.observe();
  // The number of saves and of statuses told after each operation.
  const auto expect = [&](const char* after, std::size_t saves, std::size_t statuses) {
    EXPECT_EQ(world.currentStore->all.size(), saves) << after;
    EXPECT_EQ(world.told.size(), statuses) << after;
  };
  const auto record = [&](EnforcementHealthStatus health) {
    return world.run(world.authority->recordEnforcement(health));
  };
  (void)record(EnforcementHealthStatus::healthy{});
  expect("the enforcement already held", 0, 0);
  (void)record(degraded(DegradedReason::pathUnverified));
  expect("another enforcement while idle", 0, 1);
  EXPECT_EQ(world.told.back().enforcement, degraded(DegradedReason::pathUnverified));
  (void)record(EnforcementHealthStatus::healthy{});
  expect("healthy again while idle", 0, 2);
  (void)world.run(world.authority->acknowledgeExpiry());
  expect("nothing to acknowledge", 0, 2);
  ASSERT_TRUE(world.activate().has_value());
  expect("an activation", 1, 3);
  EXPECT_EQ(world.told.back(), world.status());
  (void)record(degraded(DegradedReason::pathUnverified));
  expect("the health of the Commitment", 2, 4);
  (void)record(degraded(DegradedReason::failedOpen));
  expect("another reason, the same health", 2, 5);
  ASSERT_TRUE(world.run(world.authority->extend({start + 7'200})).has_value());
  expect("an extension", 3, 6);
  ASSERT_TRUE(world.strengthen(domains({"b.example"})).has_value());
  expect("a strengthening", 4, 7);
  (void)world.run(world.authority->recordRunningTime(10, RunningTimeRecording::inMemory));
  expect("running time in memory", 4, 7);
  (void)world.run(world.authority->recordRunningTime(10, RunningTimeRecording::durable));
  expect("running time to disk", 5, 8);
  EXPECT_EQ(world.currentStore->content->state.commitment()->remainingDuration, 7'180);
  (void)world.run(world.authority->recordRunningTime(0, RunningTimeRecording::durable));
  expect("no running time", 5, 8);
  (void)world.run(world.authority->recordRunningTime(7'180, RunningTimeRecording::inMemory));
  expect("the end of a Commitment", 6, 9);
  EXPECT_TRUE(core::is<AuthorityState::expired>(world.currentStore->content->state));
  (void)world.run(world.authority->acknowledgeExpiry());
  expect("an acknowledgement", 7, 10);
  (void)world.status();
  expect("asking for the status", 7, 10);
  (void)world.run(world.authority->publishStatus());
  expect("publishing the status", 7, 11);
}

TEST(CommitmentAuthority, recordsAValidationForTheNextStatusAndTellsNobody) {
  AuthorityWorld world;
  world.begin();
  world.observe();
  const EnforcementValidation failed =
      EnforcementValidation::failed{core::EnforcementValidationFailure::filterNotArmed};
  world.run(world.authority->record(failed, start + 1));
  EXPECT_EQ(world.status().readiness.validation, failed);
  EXPECT_EQ(world.status().readiness.validatedAt, start + 1);
  EXPECT_TRUE(world.told.empty());
  EXPECT_TRUE(world.currentStore->all.empty());
}

TEST(CommitmentAuthority, tellsOfTheFilterConfigurationOnlyWhenAskedTo) {
  AuthorityWorld world;
  world.begin();
  world.observe();
  const DaemonStatus quiet = world.run(world.authority->recordFilterConfiguration(true, false));
  EXPECT_TRUE(quiet.readiness.filterConfigurationIsEnabled);
  EXPECT_TRUE(world.told.empty());
  const DaemonStatus loud = world.run(world.authority->recordFilterConfiguration(false, true));
  EXPECT_EQ(world.told, std::vector{loud});
  EXPECT_FALSE(loud.readiness.filterConfigurationIsEnabled);
}

TEST(CommitmentAuthority, neitherSavesNorTellsWhatItRefuses) {
  AuthorityWorld world;
  world.begin();
  world.observe();
  world.passValidation();
  const auto refusal = [](const CommitmentAuthority::StatusResult& result) {
    return result.has_value() ? std::nullopt : std::optional(result.error());
  };
  EXPECT_EQ(refusal(world.activate({})), DaemonError(DaemonError::scopeResolvedEmpty{}));
  EXPECT_EQ(refusal(world.strengthen(domains({"b.example"}))),
            DaemonError(DaemonError::noActiveCommitment{}));
  EXPECT_EQ(refusal(world.run(world.authority->extend({start + 7'200}))),
            DaemonError(DaemonError::noActiveCommitment{}));
  EXPECT_TRUE(world.told.empty());
  ASSERT_TRUE(world.activate().has_value());
  world.told.clear();
  world.currentStore->all.clear();
  const DaemonStatus before = world.status();
  EXPECT_EQ(refusal(world.activate(domains({"z.example"}))),
            DaemonError(DaemonError::commitmentAlreadyActive{*before.active()}));
  EXPECT_EQ(refusal(world.strengthen(domains({"a.example"}))),
            DaemonError(DaemonError::strengtheningAddsNoWebsites{}));
  EXPECT_EQ(refusal(world.run(world.authority->extend({start + 3'600}))),
            DaemonError(DaemonError::extensionDoesNotStrengthen{{start + 3'600}}));
  EXPECT_EQ(refusal(world.run(world.authority->extend({start + 86'401}))),
            DaemonError(DaemonError::extensionExceedsActivationBoundary{start + 86'400}));
  EXPECT_TRUE(world.told.empty());
  EXPECT_TRUE(world.currentStore->all.empty());
  EXPECT_EQ(world.status(), before);
}

TEST(CommitmentAuthority, resolvesSelectionsAgainstTheCollectionThatCameWithThem) {
  AuthorityWorld world;
  world.begin();
  world.passValidation();
  core::Group::ID work;
  work.rawValue.bytes[0] = 1;
  const std::vector<core::Website> collection{
      {*core::Domain::make("news.example"), core::GroupIDSet({work})},
      {*core::Domain::make("games.example"), {}}};
  const auto selection =
      core::CommitmentSelection::groups{*core::NonEmptySet<core::Group::ID>::make({work})};
  const auto activated = world.run(world.authority->activate(
      {selection, collection, *core::CommitmentDuration::fromSeconds(60)}));
  ASSERT_TRUE(activated.has_value());
  EXPECT_EQ(activated->active()->scope, domains({"news.example"}));
  const auto strengthened = world.run(world.authority->strengthen(
      ipc::ScopeAddition::selection{core::CommitmentSelection::allWebsites{}, collection}));
  ASSERT_TRUE(strengthened.has_value());
  EXPECT_EQ(strengthened->active()->scope, domains({"games.example", "news.example"}));
}

TEST(CommitmentAuthority, activatesOnlyOnAValidationThatIsFreshInItsOwnTurn) {
  using Refusal = ipc::ActivationValidationRefusal;
  AuthorityWorld world;
  world.begin();
  const auto activate = [&] {
    return world.run(world.authority->activate(testing::activationRequest(domains({"a.example"}))));
  };
  const auto refused = [](Refusal refusal) {
    return CommitmentAuthority::StatusResult(
        std::unexpected(DaemonError::enforcementNotValidated{std::move(refusal)}));
  };
  const auto judged = [&] { return world.run(world.authority->activationRefusal()); };

  EXPECT_EQ(judged(), Refusal(Refusal::neverValidated{}));
  EXPECT_EQ(activate(), refused(Refusal::neverValidated{}));
  world.passValidation();
  EXPECT_EQ(judged(), std::nullopt);
  world.passTime(120.001);
  EXPECT_EQ(judged(), Refusal(Refusal::validationStale{start}));
  EXPECT_EQ(activate(), refused(Refusal::validationStale{start}));
  EXPECT_TRUE(world.currentStore->all.empty());
  world.setTime(start + 120);
  EXPECT_TRUE(activate().has_value());
}

// ---- failed saves

TEST(CommitmentAuthority, keepsAChangeThatCouldNotBeSavedAndReportsTheLoss) {
  for (std::uint64_t seed = 0; seed < seedCount; ++seed) {
    SCOPED_TRACE(seed);
    AuthorityWorld world(seed, activeCheckpoint(7));
    world.begin();
    world.observe();
    const auto faults = std::make_shared<testing::RecordingFaultReporter>();
    // It records the new health, in the very turn's wake: that must not deadlock.
    faults->authority = world.authority;
    world.run(world.authority->setFaultReporter(faults));

    world.currentStore->refusesSaves = true;
    const auto strengthened = world.strengthen(domains({"b.example"}));
    ASSERT_TRUE(strengthened.has_value());
    EXPECT_EQ(strengthened->active()->scopeGeneration, 2);
    EXPECT_EQ(faults->reasons, std::vector{DegradedReason::recoveringFromCorruption});
    ASSERT_FALSE(world.told.empty());
    EXPECT_EQ(world.told.front(), *strengthened);
    EXPECT_EQ(world.currentStore->content, activeCheckpoint(7));

    // The number of the save that failed is taken by the next one that succeeds.
    world.currentStore->refusesSaves = false;
    ASSERT_TRUE(world.strengthen(domains({"c.example"})).has_value());
    ASSERT_EQ(world.currentStore->all.size(), 1U);
    EXPECT_EQ(world.currentStore->all[0].sequence, 8);
    EXPECT_EQ(world.currentStore->all[0].state.commitment()->scope.domains,
              domains({"a.example", "b.example", "c.example"}));
    EXPECT_EQ(world.goodStore->content, activeCheckpoint(7));
  }
}

TEST(CommitmentAuthority, dropsTheLossOfASaveWhenNobodyIsThereToHearOfIt) {
  AuthorityWorld world(0, activeCheckpoint());
  world.begin();
  auto faults = std::make_shared<testing::RecordingFaultReporter>();
  world.run(world.authority->setFaultReporter(faults));
  faults.reset();
  world.currentStore->refusesSaves = true;
  EXPECT_TRUE(world.strengthen(domains({"b.example"})).has_value());
  EXPECT_EQ(world.status().active()->scopeGeneration, 2);
}

TEST(CommitmentAuthority, copiesOnlyASoundCurrentCheckpointIntoTheLastKnownGoodOne) {
  AuthorityWorld world(0, {}, activeCheckpoint(3));
  world.currentStore->isUnreadable = true;
  world.begin();
  ASSERT_TRUE(world.strengthen(domains({"b.example"})).has_value());
  EXPECT_TRUE(world.goodStore->all.empty());
  EXPECT_EQ(world.goodStore->content, activeCheckpoint(3));
  EXPECT_EQ(world.currentStore->content->sequence, 4);
}

TEST(CommitmentAuthority, standsOnTheCurrentCheckpointAgainOnceItHasSavedOne) {
  AuthorityWorld world(0, {}, activeCheckpoint(3));
  world.begin();
  ASSERT_EQ(world.run(world.authority->recoverySource()), Source::lastKnownGood);
  ASSERT_TRUE(world.strengthen(domains({"b.example"})).has_value());
  EXPECT_EQ(world.run(world.authority->recoverySource()), Source::current);
}

// ---- turns

/// Asserts, each time it is told, that the status is the one just saved.
struct OrderWitness {
  Task<void> see(StatusPointer status) {
    core::require(!isInside, "two turns at once");
    isInside = true;
    co_await boost::asio::post(co_await boost::asio::this_coro::executor,
                               boost::asio::use_awaitable);
    isInside = false;
    sequences.push_back(store->content ? store->content->sequence : 0);
    generations.push_back(status->active() == nullptr ? 0 : status->active()->scopeGeneration);
    savedGenerations.push_back(store->content && store->content->state.isActive()
                                   ? store->content->state.commitment()->scope.generation
                                   : 0);
  }
  testing::ScriptedCheckpointStore* store;
  bool isInside = false;
  std::vector<std::int64_t> sequences;
  std::vector<std::int64_t> generations;
  std::vector<std::int64_t> savedGenerations;
};

TEST(CommitmentAuthority, rulesSavesAndTellsAsOneUnitThatNothingElseEnters) {
  for (std::uint64_t seed = 0; seed < seedCount; ++seed) {
    SCOPED_TRACE(seed);
    AuthorityWorld world(seed);
    world.begin();
    ASSERT_TRUE(world.activate().has_value());
    OrderWitness witness{world.currentStore.get()};
    (void)world.run(
        world.authority->subscribe([&](StatusPointer status) { return witness.see(status); }));
    constexpr std::int64_t count = 8;
    std::vector<std::shared_ptr<std::optional<CommitmentAuthority::StatusResult>>> results;
    for (std::int64_t i = 0; i < count; ++i) {
      results.push_back(world.executor.start(world.authority->strengthen(
          ipc::ScopeAddition::websites{domains({"s" + std::to_string(i) + ".example"})})));
      world.executor.start(world.authority->status());
      world.executor.start(world.authority->recordFilterConfiguration(i % 2 == 0, true));
      world.executor.start(world.authority->recordRunningTime(1, RunningTimeRecording::inMemory));
    }
    world.executor.runReady();
    for (const auto& result : results) ASSERT_TRUE(result->has_value() && (*result)->has_value());
    ASSERT_EQ(witness.generations.size(), 2U * count);
    EXPECT_TRUE(std::ranges::is_sorted(witness.generations));
    EXPECT_EQ(witness.generations.back(), count + 1);
    EXPECT_EQ(witness.generations, witness.savedGenerations);
    EXPECT_EQ(witness.generations, witness.sequences);
    EXPECT_EQ(world.currentStore->all.size(), count + 1U);
  }
}

/// An observer that keeps the turn until it is let go.
struct Gate {
  Task<void> pass(StatusPointer) {
    if (isOpen) co_return;
    isOpen = true;
    (void)co_await opened.wait();
  }
  bool isOpen = false;
  OneShot<bool> opened;
};

TEST(CommitmentAuthority, letsTurnsComeInOrderOfArrival) {
  for (std::uint64_t seed = 0; seed < seedCount; ++seed) {
    SCOPED_TRACE(seed);
    AuthorityWorld world(seed, activeCheckpoint(1));
    world.begin();
    Gate gate;
    (void)world.run(
        world.authority->subscribe([&](StatusPointer status) { return gate.pass(status); }));
    const auto first = world.executor.start(world.authority->publishStatus());
    world.executor.runReady();
    ASSERT_FALSE(first->has_value()) << "the observer is awaited inside the turn";
    for (int i = 0; i < 5; ++i) {
      world.executor.start(world.authority->strengthen(
          ipc::ScopeAddition::websites{domains({"s" + std::to_string(i) + ".example"})}));
      world.executor.runReady();
    }
    EXPECT_TRUE(world.currentStore->all.empty());
    gate.opened.settle(true);
    world.executor.runReady();
    ASSERT_EQ(world.currentStore->all.size(), 5U);
    core::DomainSet expected = domains({"a.example"});
    for (int i = 0; i < 5; ++i) {
      expected = expected.united(domains({"s" + std::to_string(i) + ".example"}));
      EXPECT_EQ(
          world.currentStore->all[static_cast<std::size_t>(i)].state.commitment()->scope.domains,
          expected);
    }
  }
}

TEST(CommitmentAuthority, runsABodyInATurnOfItsOwnWithTheStatusOfThen) {
  for (std::uint64_t seed = 0; seed < seedCount; ++seed) {
    SCOPED_TRACE(seed);
    AuthorityWorld world(seed, activeCheckpoint(1));
    world.begin();
    struct Body {
      Task<std::int64_t> run(StatusPointer status) {
        (void)co_await gate.wait();
        co_return status->active()->scopeGeneration;
      }
      Task<void> note(StatusPointer status) {
        noted = status->active()->scopeGeneration;
        co_return;
      }
      OneShot<bool> gate;
      std::int64_t noted = 0;
    } body;
    const auto generation = world.executor.start(world.authority->inTurn<std::int64_t>(
        [&](StatusPointer status) { return body.run(std::move(status)); }));
    world.executor.runReady();
    const auto strengthened = world.executor.start(
        world.authority->strengthen(ipc::ScopeAddition::websites{domains({"b.example"})}));
    world.executor.runReady();
    EXPECT_FALSE(strengthened->has_value());
    EXPECT_TRUE(world.currentStore->all.empty());
    body.gate.settle(true);
    world.executor.runReady();
    EXPECT_EQ(*generation, 1);
    EXPECT_TRUE(strengthened->has_value());
    world.run(world.authority->inTurn<void>(
        [&](StatusPointer status) { return body.note(std::move(status)); }));
    EXPECT_EQ(body.noted, 2);
  }
}

TEST(CommitmentAuthority, tellsEachSubscriberUntilItUnsubscribes) {
  AuthorityWorld world(5);
  world.begin();
  std::vector<DaemonStatus> first;
  std::vector<DaemonStatus> second;
  const auto subscribe = [&](std::vector<DaemonStatus>& into) {
    return world.run(world.authority->subscribe(
        [&into](StatusPointer status) { return AuthorityWorld::keep(&into, std::move(status)); }));
  };
  const auto one = subscribe(first);
  const auto two = subscribe(second);
  EXPECT_NE(one.token, two.token);
  EXPECT_EQ(*one.status, world.status());
  EXPECT_TRUE(first.empty()) << "the status of the subscription itself is not told";
  (void)world.run(world.authority->publishStatus());
  EXPECT_EQ(first.size(), 1U);
  EXPECT_EQ(first, second);
  world.run(world.authority->unsubscribe(one.token));
  (void)world.run(world.authority->publishStatus());
  EXPECT_EQ(first.size(), 1U);
  EXPECT_EQ(second.size(), 2U);
  world.run(world.authority->unsubscribe(one.token));
  world.run(world.authority->unsubscribe(core::UUID{}));
  const auto three = subscribe(first);
  EXPECT_NE(three.token, one.token) << "a token is never used again";
}

TEST(CommitmentAuthority, isKeptAliveByAnOperationUnderWay) {
  AuthorityWorld world(0, activeCheckpoint());
  world.begin();
  const auto result = world.executor.start(
      world.authority->strengthen(ipc::ScopeAddition::websites{domains({"b.example"})}));
  const std::weak_ptr<CommitmentAuthority> weak = world.authority;
  world.authority.reset();
  world.executor.runReady();
  ASSERT_TRUE(result->has_value());
  EXPECT_TRUE((*result)->has_value());
  EXPECT_EQ(world.currentStore->all.size(), 1U);
  EXPECT_TRUE(weak.expired());
}

// ---- the cost of a second

TEST(CommitmentAuthority, chargesRunningTimeWithoutCopyingTheScope) {
  auto running = commitment();
  running.scope.domains = testing::manyDomains(1'000);
  AuthorityWorld world(0, checkpoint(AuthorityState::active{running}));
  world.begin();
  const auto status =
      world.run(world.authority->recordRunningTime(1, RunningTimeRecording::inMemory));
  ASSERT_NE(status.active(), nullptr);
  EXPECT_TRUE(status.active()->scope.isSameSetAs(running.scope.domains));
  (void)world.run(world.authority->recordRunningTime(1, RunningTimeRecording::durable));
  EXPECT_TRUE(world.currentStore->content->state.commitment()->scope.domains.isSameSetAs(
      running.scope.domains));
}

}  // namespace
}  // namespace stillow::authority
