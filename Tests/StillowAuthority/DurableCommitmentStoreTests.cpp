#include <algorithm>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "AuthorityTesting.hpp"
#include "StillowAuthority/DurableCommitmentStore.hpp"
#include "TestSupport/SimulatedFileSystem.hpp"

namespace stillow::authority {
namespace {

using core::DegradedReason;
using core::EnforcementHealthStatus;
using test::SimulatedFileSystem;
using testing::checkpoint;
using testing::commitment;
using testing::degraded;
using testing::domains;
using testing::start;
using Source = CommitmentStateRecovery::Source;
using FileStore = FileCommitmentCheckpointStore;

const std::string directory = "/Library/Application Support/Stillow";
const std::string currentPath = directory + "/commitment-checkpoint.json";
const std::string goodPath = directory + "/commitment-checkpoint.last-known-good.json";

CommitmentCheckpoint numbered(std::int64_t sequence) {
  return checkpoint(AuthorityState::active{commitment(1'000 + static_cast<double>(sequence))},
                    sequence);
}
std::string sealed(const CommitmentCheckpoint& value) { return *FileStore::seal(value); }

CommitmentStateRecovery recover(SimulatedFileSystem& disk) {
  return DurableCommitmentStore(disk, directory).recover();
}

TEST(CommitmentStateRecovery, impliesAHealth) {
  EXPECT_EQ(enforcementHealth(Source::current),
            EnforcementHealthStatus(EnforcementHealthStatus::healthy{}));
  EXPECT_EQ(enforcementHealth(Source::lastKnownGood),
            degraded(DegradedReason::recoveringFromCorruption));
  EXPECT_EQ(enforcementHealth(Source::failedOpen), degraded(DegradedReason::failedOpen));
}

TEST(CommitmentStateRecovery, isHashedAndComparedByBothFields) {
  const std::hash<CommitmentStateRecovery> hash;
  const CommitmentStateRecovery values[]{{numbered(1), Source::current},
                                         {numbered(2), Source::current},
                                         {numbered(1), Source::lastKnownGood},
                                         {std::nullopt, Source::current},
                                         {std::nullopt, Source::failedOpen}};
  for (const auto& left : values) {
    for (const auto& right : values) {
      EXPECT_EQ(left == right, &left == &right);
      EXPECT_EQ(hash(left) == hash(right), &left == &right);
    }
  }
}

/// A way in which a file can be, and whether a checkpoint comes out of it.
struct Condition {
  const char* name;
  enum class Kind : std::uint8_t { absent, sound, damaged } kind;
  std::string content;
};

std::vector<Condition> conditions(const CommitmentCheckpoint& held) {
  using Kind = Condition::Kind;
  const std::string good = sealed(held);
  std::string flipped = good;
  const std::size_t digit = good.find("\"payload\":\"") + 15;
  flipped[digit] = flipped[digit] == 'A' ? 'B' : 'A';
  auto exhausted = held;
  exhausted.sequence = std::numeric_limits<std::int64_t>::max();
  return {{"absent", Kind::absent, ""},
          {"sound", Kind::sound, good},
          {"empty", Kind::damaged, ""},
          {"cut in half", Kind::damaged, good.substr(0, good.size() / 2)},
          {"zeroed", Kind::damaged, std::string(good.size(), '\0')},
          {"of version 2", Kind::damaged, *FileStore::seal(held, 2)},
          {"one digit flipped", Kind::damaged, flipped},
          {"counter exhausted", Kind::damaged, sealed(exhausted)}};
}

TEST(DurableCommitmentStore, recoversByTheRulesFromEveryPairOfFiles) {
  using Kind = Condition::Kind;
  for (const Condition& current : conditions(numbered(8))) {
    for (const Condition& good : conditions(numbered(7))) {
      SCOPED_TRACE(std::string("current ") + current.name + ", last known good " + good.name);
      SimulatedFileSystem disk;
      if (current.kind != Kind::absent) disk.placeFile(currentPath, current.content);
      if (good.kind != Kind::absent) disk.placeFile(goodPath, good.content);
      CommitmentStateRecovery expected;
      if (current.kind == Kind::sound) {
        expected = {numbered(8), Source::current};
      } else if (good.kind == Kind::sound) {
        expected = {numbered(7), Source::lastKnownGood};
      } else if (current.kind == Kind::damaged) {
        expected = {std::nullopt, Source::failedOpen};
      } else {
        expected = {std::nullopt, Source::current};
      }
      EXPECT_EQ(recover(disk), expected);
    }
  }
}

TEST(DurableCommitmentStore, takesAFileThatCannotBeReadForADamagedOne) {
  SimulatedFileSystem disk;
  disk.placeFile(currentPath, sealed(numbered(8)));
  disk.placeFile(goodPath, sealed(numbered(7)));
  disk.failCall(0, std::errc::io_error);
  EXPECT_EQ(recover(disk), (CommitmentStateRecovery{numbered(7), Source::lastKnownGood}));
  disk.forgetCalls();
  disk.failCall(0, std::errc::io_error);
  disk.failCall(1, std::errc::permission_denied);
  EXPECT_EQ(recover(disk), (CommitmentStateRecovery{std::nullopt, Source::failedOpen}));
}

TEST(DurableCommitmentStore, fallsBackFromAFileOfAnotherVersion) {
  SimulatedFileSystem disk;
  disk.placeFile(currentPath, *FileStore::seal(numbered(8), 2));
  disk.placeFile(goodPath, sealed(numbered(7)));
  EXPECT_EQ(recover(disk), (CommitmentStateRecovery{numbered(7), Source::lastKnownGood}));
}

TEST(DurableCommitmentStore, recoversFromTheGoodCopyWhenTheCurrentFileIsMerelyAbsent) {
  SimulatedFileSystem disk;
  disk.placeFile(goodPath, sealed(numbered(7)));
  EXPECT_EQ(recover(disk), (CommitmentStateRecovery{numbered(7), Source::lastKnownGood}));
}

TEST(DurableCommitmentStore, holdsTheFirstOfTwoSavesAsTheLastKnownGood) {
  SimulatedFileSystem disk;
  const DurableCommitmentStore store(disk, directory);
  ASSERT_TRUE(store.save(numbered(5)).has_value());
  EXPECT_FALSE(disk.exists(goodPath));
  ASSERT_TRUE(store.save(numbered(6)).has_value());
  EXPECT_EQ(FileStore(disk, goodPath).load().value(), numbered(5));
  EXPECT_EQ(FileStore(disk, currentPath).load().value(), numbered(6));
  EXPECT_EQ(disk.namesIn(directory),
            (std::vector<std::string>{"commitment-checkpoint.json",
                                      "commitment-checkpoint.last-known-good.json"}));
  EXPECT_EQ(disk.mode(directory), 0700U);
  EXPECT_EQ(disk.mode(currentPath), 0600U);
  EXPECT_EQ(disk.mode(goodPath), 0600U);
}

TEST(DurableCommitmentStore, neverLetsADamagedFileDisplaceTheGoodCopy) {
  for (const Condition& current : conditions(numbered(8))) {
    if (current.kind != Condition::Kind::damaged) continue;
    SCOPED_TRACE(current.name);
    SimulatedFileSystem disk;
    disk.placeFile(currentPath, current.content);
    disk.placeFile(goodPath, sealed(numbered(7)));
    const DurableCommitmentStore store(disk, directory);
    ASSERT_TRUE(store.save(numbered(9)).has_value());
    EXPECT_EQ(disk.content(goodPath), sealed(numbered(7)));
    EXPECT_EQ(disk.content(currentPath), sealed(numbered(9)));
  }
}

TEST(DurableCommitmentStore, tellsTheLogWhatTheRulesPassOver) {
  SimulatedFileSystem disk;
  disk.placeFile(currentPath, *FileStore::seal(numbered(8), 2));
  disk.placeFile(goodPath, "{");
  std::vector<std::string> lines;
  const DurableCommitmentStore store(disk, directory,
                                     [&](const std::string& line) { lines.push_back(line); });
  (void)store.recover();
  disk.forgetCalls();
  disk.failCall(0, std::errc::permission_denied);
  disk.failCall(1, std::errc::read_only_file_system);
  EXPECT_FALSE(store.save(numbered(9)).has_value());
  EXPECT_EQ(lines,
            (std::vector<std::string>{
                "The current checkpoint cannot be used: schema version 2 is not supported",
                "The last known good checkpoint cannot be used: The given data was not valid JSON.",
                "The last known good checkpoint was not renewed: Could not read " + currentPath +
                    ": Permission denied",
                "The checkpoint could not be saved: Could not create the directory " + directory +
                    ": Read-only file system"}));
}

// ---- crashes and failures

/// The disk before a save, and what a recovery from it gives.
struct Before {
  const char* name;
  SimulatedFileSystem disk;
  CommitmentStateRecovery recovery;
  bool currentIsSound;
};

std::vector<Before> disksBefore() {
  std::vector<Before> all;
  SimulatedFileSystem fresh;
  fresh.placeDirectory("/Library");
  all.push_back({"a fresh disk", fresh, {std::nullopt, Source::current}, false});
  SimulatedFileSystem once = fresh;
  once.placeFile(currentPath, sealed(numbered(5)));
  all.push_back({"one save", once, {numbered(5), Source::current}, true});
  SimulatedFileSystem twice = once;
  twice.placeFile(goodPath, sealed(numbered(4)));
  all.push_back({"two saves", twice, {numbered(5), Source::current}, true});
  SimulatedFileSystem damaged = twice;
  damaged.placeFile(currentPath, "{");
  all.push_back({"a damaged current file", damaged, {numbered(4), Source::lastKnownGood}, false});
  SimulatedFileSystem hopeless = damaged;
  hopeless.placeFile(goodPath, "{");
  all.push_back({"two damaged files", hopeless, {std::nullopt, Source::failedOpen}, false});
  SimulatedFileSystem littered = twice;
  littered.placeFile(directory + "/.commitment-checkpoint.json.new-1", "half a fi");
  all.push_back({"a save that was cut short", littered, {numbered(5), Source::current}, true});
  return all;
}

const CommitmentCheckpoint newState = numbered(6);

void saveNewState(SimulatedFileSystem& disk) {
  (void)DurableCommitmentStore(disk, directory).save(newState);
}

/// The old state or the new one, each from the source that the rules demand; and a store that
/// works.
void expectOldOrNew(const Before& before, SimulatedFileSystem& disk) {
  const CommitmentStateRecovery found = recover(disk);
  const CommitmentStateRecovery renewed{newState, Source::current};
  EXPECT_TRUE(found == before.recovery || found == renewed)
      << "source " << static_cast<int>(found.source) << ", sequence "
      << (found.checkpoint ? found.checkpoint->sequence : 0);
  if (before.currentIsSound) {
    const auto current = disk.content(currentPath);
    EXPECT_TRUE(current == before.disk.content(currentPath) || current == sealed(newState));
  }
  // No more than one state is ever lost from the good copy, and it is never less than sound.
  const auto good = disk.content(goodPath);
  const auto current = before.disk.content(currentPath);
  EXPECT_TRUE(good == before.disk.content(goodPath) || (before.currentIsSound && good == current));

  const DurableCommitmentStore store(disk, directory);
  ASSERT_TRUE(store.save(numbered(50)).has_value());
  EXPECT_EQ(store.recover(), (CommitmentStateRecovery{numbered(50), Source::current}));
  std::set<std::string> names;
  for (const std::string& name : disk.namesIn(directory)) names.insert(name);
  names.erase("commitment-checkpoint.last-known-good.json");
  EXPECT_EQ(names, std::set<std::string>{"commitment-checkpoint.json"}) << "nothing is left over";
}

TEST(DurableCommitmentStore, holdsTheOldStateOrTheNewAfterAPowerCutAtAnyMoment) {
  for (const Before& before : disksBefore()) {
    SCOPED_TRACE(before.name);
    const std::size_t calls = SimulatedFileSystem::forEachPowerCut(
        before.disk, saveNewState, [&](SimulatedFileSystem& disk, const std::string& how) {
          SCOPED_TRACE(how);
          expectOldOrNew(before, disk);
        });
    EXPECT_GE(calls, 8U);
  }
}

TEST(DurableCommitmentStore, holdsTheOldStateOrTheNewWhenItsProcessDiesAtAnyMoment) {
  for (const Before& before : disksBefore()) {
    SCOPED_TRACE(before.name);
    SimulatedFileSystem::forEachProcessDeath(
        before.disk, saveNewState, [&](SimulatedFileSystem& disk, const std::string& how) {
          SCOPED_TRACE(how);
          expectOldOrNew(before, disk);
        });
  }
}

TEST(DurableCommitmentStore, holdsTheNewStateAfterAPowerCutOnceTheSaveHasSucceeded) {
  for (const Before& before : disksBefore()) {
    SCOPED_TRACE(before.name);
    SimulatedFileSystem disk = before.disk;
    ASSERT_TRUE(DurableCommitmentStore(disk, directory).save(newState).has_value());
    for (SimulatedFileSystem& state : disk.statesAfterPowerCut()) {
      EXPECT_EQ(recover(state), (CommitmentStateRecovery{newState, Source::current}));
    }
  }
}

TEST(DurableCommitmentStore, holdsTheOldStateOrTheNewWhicheverCallFails) {
  for (const Before& before : disksBefore()) {
    SCOPED_TRACE(before.name);
    bool isSaved = false;
    const std::size_t calls = SimulatedFileSystem::forEachFailedCall(
        before.disk,
        [&](SimulatedFileSystem& disk) {
          isSaved = DurableCommitmentStore(disk, directory).save(newState).has_value();
        },
        [&](SimulatedFileSystem& disk, const std::string& how) {
          SCOPED_TRACE(how);
          const auto found = recover(disk);
          const bool isRenewed = found == CommitmentStateRecovery{newState, Source::current};
          if (isSaved) {
            EXPECT_TRUE(isRenewed) << "what was acknowledged is there";
            for (SimulatedFileSystem& state : disk.statesAfterPowerCut()) {
              EXPECT_EQ(recover(state).checkpoint, newState);
            }
          } else if (isRenewed) {
            EXPECT_NE(how.find("syncDirectory"), std::string::npos)
                << "only an unflushed directory leaves the new state after a failure";
          }
          expectOldOrNew(before, disk);
        });
    EXPECT_GE(calls, 8U);
  }
}

TEST(CommitmentAuthority, keepsAChangeAndReportsTheLossWhicheverCallOfItsSaveFails) {
  SimulatedFileSystem before;
  before.placeFile(currentPath, sealed(numbered(5)));
  before.placeFile(goodPath, sealed(numbered(4)));
  bool isSaved = false;
  std::vector<DegradedReason> reported;
  const auto strengthenOnce = [&](SimulatedFileSystem& disk) {
    isSaved = true;
    const DurableCommitmentStore store(disk, directory, [&](const std::string& line) {
      if (line.starts_with("The checkpoint could not be saved: ")) isSaved = false;
    });
    test::DeterministicExecutor executor;
    const auto authority = CommitmentAuthority::make(
        executor.executor(), executor.blockingExecutor(), store, [] { return start; });
    const auto faults = std::make_shared<testing::RecordingFaultReporter>();
    executor.run(authority->setFaultReporter(faults));
    const auto strengthened =
        executor.run(authority->strengthen(ipc::ScopeAddition::websites{domains({"b.example"})}));
    ASSERT_TRUE(strengthened.has_value());
    EXPECT_EQ(executor.run(authority->status()).active()->scope,
              domains({"a.example", "b.example"}));
    reported = faults->reasons;
  };
  std::size_t losses = 0;
  SimulatedFileSystem::forEachFailedCall(
      before, strengthenOnce, [&](SimulatedFileSystem& disk, const std::string& how) {
        SCOPED_TRACE(how);
        EXPECT_EQ(reported, isSaved ? std::vector<DegradedReason>{}
                                    : std::vector{DegradedReason::recoveringFromCorruption});
        const CommitmentStateRecovery found = recover(disk);
        EXPECT_EQ(found.source, Source::current);
        ASSERT_TRUE(found.checkpoint && found.checkpoint->state.isActive());
        const bool isRenewed = found.checkpoint->state.commitment()->scope.generation == 2;
        if (isSaved) {
          EXPECT_TRUE(isRenewed);
          return;
        }
        ++losses;
        if (!isRenewed) {
          EXPECT_EQ(found.checkpoint, numbered(5));
        }
      });
  EXPECT_GT(losses, 10U);
}

}  // namespace
}  // namespace stillow::authority
