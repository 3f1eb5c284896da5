#include <array>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "AuthorityTesting.hpp"
#include "StillowAuthority/RemovalRuling.hpp"
#include "StillowFiltering/Storage/PosixFileSystem.hpp"
#include "TestSupport/TemporaryDirectory.hpp"

namespace stillow::authority {
namespace {

using ipc::UninstallRefusalCause;
using ipc::UninstallRuling;
using testing::checkpoint;
using testing::commitment;
using testing::start;
using FileStore = FileCommitmentCheckpointStore;

constexpr double remaining = 1'800;

/// What can be where a checkpoint file is looked for; empty: no file.
std::string fileWith(std::string_view kind) {
  if (kind == "missing") return {};
  if (kind == "damaged") {
    std::string bytes = *FileStore::seal(checkpoint(AuthorityState::active{commitment()}));
    const auto at = bytes.find("\"payload\":\"") + 20;
    bytes[at] = bytes[at] == 'A' ? 'B' : 'A';
    return bytes;
  }
  if (kind == "future") {
    return *FileStore::seal(checkpoint(AuthorityState::active{commitment()}), 2);
  }
  if (kind == "idle") return *FileStore::seal(checkpoint(AuthorityState::idle{}));
  if (kind == "expired") return *FileStore::seal(checkpoint(AuthorityState::expired{start}));
  if (kind == "active") {
    return *FileStore::seal(checkpoint(AuthorityState::active{commitment(remaining)}));
  }
  // Active with nothing left to run: the daemon was ended just before it would have said so.
  return *FileStore::seal(checkpoint(AuthorityState::active{commitment(0)}));
}

/// P: permitted, A: refused because one is active, U: refused because nobody knows.
char letterOf(const UninstallRuling& ruling) {
  const auto* const refused = core::getIf<UninstallRuling::refused>(ruling);
  if (refused == nullptr) return 'P';
  return core::is<UninstallRefusalCause::commitmentActive>(refused->cause) ? 'A' : 'U';
}

struct CheckpointFiles {
  test::TemporaryDirectory directory;
  filtering::PosixFileSystem fileSystem;

  void put(const char* name, const std::string& bytes) {
    if (!bytes.empty()) std::ofstream(directory.path(name), std::ios::binary) << bytes;
  }
  UninstallRuling ruling(core::Date now) {
    return rulingFromCheckpoints(DurableCommitmentStore(fileSystem, directory.path()).recover(),
                                 now);
  }
};

TEST(RemovalRuling, followsTheCheckpointFilesInEveryCombination) {
  constexpr std::array<std::string_view, 7> kinds{"missing", "damaged", "future", "idle",
                                                  "expired", "active",  "spent"};
  // One row for each state of the current file; in it one letter for each of the file before it.
  constexpr std::array<std::string_view, 7> expected{
      "PPPPPAP",  // missing: what cannot be read beside it is no reason to refuse
      "UUUPPAP",  // damaged
      "UUUPPAP",  // of a later version
      "PPPPPPP",  // idle
      "PPPPPPP",  // expired
      "AAAAAAA",  // active
      "PPPPPPP",  // active with nothing left to run
  };
  for (std::size_t current = 0; current < kinds.size(); ++current) {
    for (std::size_t before = 0; before < kinds.size(); ++before) {
      SCOPED_TRACE(std::string(kinds[current]) + " before " + std::string(kinds[before]));
      CheckpointFiles files;
      files.put(DurableCommitmentStore::currentFileName, fileWith(kinds[current]));
      files.put(DurableCommitmentStore::lastKnownGoodFileName, fileWith(kinds[before]));
      EXPECT_EQ(letterOf(files.ruling(start)), expected[current][before]);
    }
  }
}

TEST(RemovalRuling, refusesForEveryWayInWhichBothFilesCanBeDamaged) {
  const std::string good = fileWith("active");
  std::string upperCase = good;
  const auto checksum = upperCase.find("\"checksum\":\"") + 12;
  for (auto at = checksum; at < checksum + 64; ++at) {
    if (upperCase[at] >= 'a') upperCase[at] = static_cast<char>(upperCase[at] - 'a' + 'A');
  }
  for (const std::string& bytes : {std::string("{"), std::string("\0", 1), std::string("[]"),
                                   good.substr(0, good.size() / 2), good + "x", upperCase}) {
    CheckpointFiles files;
    files.put(DurableCommitmentStore::currentFileName, bytes);
    files.put(DurableCommitmentStore::lastKnownGoodFileName, bytes);
    EXPECT_EQ(letterOf(files.ruling(start)), 'U') << bytes;
  }
}

TEST(RemovalRuling, countsTheRemainderOfTheFileFromNow) {
  CheckpointFiles files;
  files.put(DurableCommitmentStore::currentFileName, fileWith("active"));
  // The machine was off since the file was written: that time does not count.
  const core::Date now = start + 100'000;
  EXPECT_EQ(files.ruling(now), UninstallRuling(UninstallRuling::refused{
                                   UninstallRefusalCause::commitmentActive{{now + remaining}}}));
}

TEST(RemovalRuling, permitsWhereThereIsNoStateDirectory) {
  filtering::PosixFileSystem fileSystem;
  const test::TemporaryDirectory directory;
  const DurableCommitmentStore store(fileSystem, directory.path("never made"));
  EXPECT_EQ(rulingFromCheckpoints(store.recover(), start),
            UninstallRuling(UninstallRuling::mayUninstall{}));
}

TEST(RemovalRuling, leavesTheFilesAsTheyAre) {
  for (const auto* const kind : {"active", "damaged", "future"}) {
    CheckpointFiles files;
    const std::string bytes = fileWith(kind);
    files.put(DurableCommitmentStore::currentFileName, bytes);
    EXPECT_NE(letterOf(files.ruling(start)), 'P');
    std::ifstream file(files.directory.path(DurableCommitmentStore::currentFileName),
                       std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), bytes);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(files.directory.path()), {}), 1);
  }
}

}  // namespace
}  // namespace stillow::authority
