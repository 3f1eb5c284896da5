#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "AuthorityTesting.hpp"

namespace stillow::authority {
namespace {

using core::CommitmentHealth;
using core::DegradedReason;
using ipc::DaemonStatus;
using testing::AuthorityWorld;
using testing::checkpoint;
using testing::commitment;
using testing::degraded;
using testing::domains;
using testing::start;
using Source = CommitmentStateRecovery::Source;

CommitmentCheckpoint activeCheckpoint(std::int64_t sequence, double remaining) {
  return checkpoint(AuthorityState::active{commitment(remaining)}, sequence);
}

bool retry(AuthorityWorld& world) { return world.run(world.authority->retryRecovery()); }

TEST(CommitmentAuthority, hasNothingToRecoverWhereTheDiskHoldsWhatWasSaved) {
  for (const bool isFresh : {true, false}) {
    SCOPED_TRACE(isFresh);
    AuthorityWorld world(1, isFresh ? std::nullopt : std::optional(activeCheckpoint(4, 3'600)));
    world.begin();
    world.observe();
    EXPECT_TRUE(retry(world));
    EXPECT_TRUE(world.currentStore->all.empty());
    EXPECT_TRUE(world.told.empty());
  }
}

// A retry is asked for whenever health is bad, for whatever reason. It must not give the seconds
// back that were charged since the last save.
TEST(CommitmentAuthority, keepsChargedSecondsAcrossARetry) {
  AuthorityWorld world(1, activeCheckpoint(4, 3'600));
  world.begin();
  for (int i = 0; i < 30; ++i) {
    (void)world.run(world.authority->recordRunningTime(1, RunningTimeRecording::inMemory));
    EXPECT_TRUE(retry(world));
  }
  EXPECT_EQ(world.status().active()->remainingDuration, 3'570);
}

TEST(CommitmentAuthority, adoptsACurrentCheckpointThatHasBecomeReadable) {
  for (const bool hasGoodCopy : {true, false}) {
    SCOPED_TRACE(hasGoodCopy);
    AuthorityWorld world(
        2, activeCheckpoint(9, 3'600),
        hasGoodCopy ? std::optional(checkpoint(AuthorityState::idle{}, 8)) : std::nullopt);
    world.currentStore->isUnreadable = true;
    world.begin();
    world.observe();
    ASSERT_EQ(world.status().active(), nullptr);
    world.currentStore->isUnreadable = false;
    EXPECT_TRUE(retry(world));
    const DaemonStatus status = world.status();
    ASSERT_NE(status.active(), nullptr);
    EXPECT_EQ(status.active()->remainingDuration, 3'600);
    EXPECT_EQ(status.active()->health, CommitmentHealth::degraded);
    EXPECT_EQ(world.told, std::vector{status});
    EXPECT_EQ(world.run(world.authority->recoverySource()), Source::current);
    EXPECT_TRUE(world.currentStore->all.empty()) << "what is on disk need not be written";
    ASSERT_TRUE(world.strengthen(domains({"b.example"})).has_value());
    EXPECT_EQ(world.currentStore->content->sequence, 10);
  }
}

TEST(CommitmentAuthority, writesItsOwnStateWhereTheCurrentCheckpointStaysUnreadable) {
  for (const bool hasGoodCopy : {true, false}) {
    SCOPED_TRACE(hasGoodCopy);
    AuthorityWorld world(3, std::nullopt,
                         hasGoodCopy ? std::optional(activeCheckpoint(8, 100)) : std::nullopt);
    world.currentStore->isUnreadable = true;
    world.begin();
    world.observe();
    EXPECT_TRUE(retry(world));
    ASSERT_EQ(world.currentStore->all.size(), 1U);
    EXPECT_EQ(world.currentStore->all[0].sequence, hasGoodCopy ? 9 : 1);
    EXPECT_EQ(world.currentStore->all[0].state.isActive(), hasGoodCopy);
    EXPECT_EQ(world.run(world.authority->recoverySource()), Source::current);
    EXPECT_TRUE(world.told.empty()) << "the state is what it was";
    EXPECT_TRUE(retry(world));
    EXPECT_EQ(world.currentStore->all.size(), 1U);
  }
}

TEST(CommitmentAuthority, writesItsOwnStateOnceAClientHasChangedIt) {
  AuthorityWorld world(4, activeCheckpoint(9, 3'600));
  world.currentStore->isUnreadable = true;
  world.begin();
  world.currentStore->refusesSaves = true;
  ASSERT_TRUE(world.activate(domains({"mine.example"})).has_value());
  world.currentStore->refusesSaves = false;
  world.currentStore->isUnreadable = false;
  EXPECT_TRUE(retry(world));
  EXPECT_EQ(world.status().active()->scope, domains({"mine.example"}));
  EXPECT_EQ(world.currentStore->content->state.commitment()->scope.domains,
            domains({"mine.example"}));
  EXPECT_EQ(world.goodStore->content, activeCheckpoint(9, 3'600));
}

TEST(CommitmentAuthority, saysThatARetryFailedAndReportsNoNewFault) {
  AuthorityWorld world(5);
  world.currentStore->isUnreadable = true;
  world.currentStore->refusesSaves = true;
  world.begin();
  const auto faults = std::make_shared<testing::RecordingFaultReporter>();
  world.run(world.authority->setFaultReporter(faults));
  EXPECT_FALSE(retry(world));
  EXPECT_FALSE(retry(world));
  EXPECT_TRUE(faults->reasons.empty()) << "a failed retry must not ask for its own successor";
  EXPECT_EQ(world.run(world.authority->recoverySource()), Source::failedOpen);
  world.currentStore->refusesSaves = false;
  EXPECT_TRUE(retry(world));
  EXPECT_EQ(world.run(world.authority->recoverySource()), Source::current);
}

TEST(CommitmentAuthority, writesAgainWhatAFailedSaveLeftUnwritten) {
  AuthorityWorld world(6, activeCheckpoint(4, 3'600));
  world.begin();
  world.currentStore->refusesSaves = true;
  ASSERT_TRUE(world.strengthen(domains({"b.example"})).has_value());
  EXPECT_FALSE(retry(world));
  world.currentStore->refusesSaves = false;
  world.passTime(5);
  EXPECT_TRUE(retry(world));
  EXPECT_EQ(world.currentStore->content->state.commitment()->scope.generation, 2);
  EXPECT_EQ(world.currentStore->content->sequence, 5);
  EXPECT_EQ(world.currentStore->content->writtenAt, start + 5);
}

TEST(CommitmentAuthority, writesAgainWhatSomebodyElseTookAway) {
  AuthorityWorld world(7, activeCheckpoint(4, 3'600));
  world.begin();
  world.currentStore->content.reset();
  EXPECT_TRUE(retry(world));
  EXPECT_EQ(world.currentStore->content->sequence, 5);
  EXPECT_TRUE(world.currentStore->content->state.isActive());
}

// A passing read error must not bury a good checkpoint under an older state, not even when the
// daemon saves before anybody asked for a retry.
TEST(CommitmentAuthority, looksAtTheCurrentFileOnceMoreBeforeItWritesAnOlderStateOverIt) {
  for (std::uint64_t seed = 0; seed < testing::seedCount; ++seed) {
    SCOPED_TRACE(seed);
    AuthorityWorld world(seed, activeCheckpoint(9, 3'600), activeCheckpoint(8, 2));
    world.currentStore->isUnreadable = true;
    world.begin();
    world.observe();
    world.currentStore->isUnreadable = false;
    // By the older state this is the end; by the newer one it is three seconds.
    const DaemonStatus status =
        world.run(world.authority->recordRunningTime(3, RunningTimeRecording::inMemory));
    ASSERT_NE(status.active(), nullptr);
    EXPECT_EQ(status.active()->remainingDuration, 3'597);
    EXPECT_EQ(world.status(), status);
    ASSERT_EQ(world.told, std::vector{status});
    EXPECT_EQ(world.currentStore->content->sequence, 10);
    EXPECT_EQ(world.currentStore->content->state.commitment()->remainingDuration, 3'597);
    EXPECT_EQ(world.goodStore->content, activeCheckpoint(9, 3'600));
  }
}

TEST(CommitmentAuthority, writesTheOlderStateWhereTheCurrentFileIsReallyDamaged) {
  AuthorityWorld world(8, std::nullopt, activeCheckpoint(8, 2));
  world.currentStore->isUnreadable = true;
  world.begin();
  const DaemonStatus status =
      world.run(world.authority->recordRunningTime(3, RunningTimeRecording::inMemory));
  EXPECT_EQ(status.active(), nullptr);
  EXPECT_TRUE(core::is<AuthorityState::expired>(world.currentStore->content->state));
}

// An input/output error says nothing about the file. Neither the daemon's own records nor a retry
// may write over it.
TEST(CommitmentAuthority, writesNothingOverACurrentFileThatCannotBeReadForTheMoment) {
  for (const bool hasGoodCopy : {true, false}) {
    SCOPED_TRACE(hasGoodCopy);
    AuthorityWorld world(9, activeCheckpoint(9, 3'600),
                         hasGoodCopy ? std::optional(activeCheckpoint(8, 100)) : std::nullopt);
    world.currentStore->isOutOfReach = true;
    world.begin();
    EXPECT_FALSE(retry(world));
    (void)world.run(world.authority->recordRunningTime(60, RunningTimeRecording::durable));
    (void)world.run(world.authority->recordRunningTime(60, RunningTimeRecording::durable));
    EXPECT_EQ(world.status().active(), nullptr);
    EXPECT_FALSE(retry(world));
    EXPECT_TRUE(world.currentStore->all.empty());
    world.currentStore->isOutOfReach = false;
    EXPECT_TRUE(retry(world));
    ASSERT_NE(world.status().active(), nullptr);
    EXPECT_EQ(world.status().active()->remainingDuration, 3'600);
  }
}

TEST(CommitmentAuthority, letsAClientReplaceACurrentFileThatCannotBeRead) {
  AuthorityWorld world(10, activeCheckpoint(9, 3'600));
  world.currentStore->isOutOfReach = true;
  world.begin();
  ASSERT_TRUE(world.activate(domains({"mine.example"})).has_value());
  ASSERT_EQ(world.currentStore->all.size(), 1U);
  EXPECT_EQ(world.run(world.authority->recoverySource()), Source::current);
}

}  // namespace
}  // namespace stillow::authority
