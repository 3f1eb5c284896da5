#include <algorithm>
#include <expected>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "StillowFiltering/Storage/DurableFile.hpp"
#include "TestSupport/SimulatedFileSystem.hpp"

namespace stillow::filtering {
namespace {

using test::SimulatedFileSystem;
using testing::Contains;
using testing::ElementsAre;
using testing::IsSupersetOf;
using Operation = FileError::Operation;
using Read = std::expected<std::optional<std::string>, FileError>;

const std::string directory = "/Library/State";
const std::string path = directory + "/file.json";

/// A disk that has the directory and, in it, the file.
SimulatedFileSystem diskWithOldFile() {
  SimulatedFileSystem disk;
  disk.placeDirectory(directory, 0700);
  disk.placeFile(path, "the old content");
  return disk;
}
SimulatedFileSystem diskWithLibrary() {
  SimulatedFileSystem disk;
  disk.placeDirectory("/Library");
  return disk;
}
std::vector<std::string> operations(const SimulatedFileSystem& disk) {
  std::vector<std::string> operations;
  for (const auto& call : disk.calls()) operations.push_back(call.operation);
  return operations;
}

TEST(DurableFile, isNoneWhereThereIsNoFile) {
  SimulatedFileSystem disk;
  EXPECT_EQ(DurableFile(disk, path).read(100), Read(std::nullopt));
}

TEST(DurableFile, readsNoMoreThanTheLimit) {
  SimulatedFileSystem disk = diskWithOldFile();
  EXPECT_EQ(DurableFile(disk, path).read(15), Read("the old content"));
  EXPECT_EQ(DurableFile(disk, path).read(14),
            std::unexpected(
                FileError{Operation::read, path, std::make_error_code(std::errc::file_too_large)}));
}

TEST(DurableFile, isWrittenAsideFlushedRenamedAndItsDirectoryFlushed) {
  SimulatedFileSystem disk = diskWithOldFile();
  DurableFile file(disk, path);
  ASSERT_TRUE(file.replace("first").has_value());
  disk.forgetCalls();
  ASSERT_TRUE(file.replace("second").has_value());
  EXPECT_THAT(operations(disk), ElementsAre("isDirectory", "names", "create", "write", "sync",
                                            "rename", "syncDirectory"));
  EXPECT_EQ(disk.content(path), "second");
  EXPECT_EQ(disk.mode(path), 0600U);
  EXPECT_THAT(disk.namesIn(directory), ElementsAre("file.json"));
}

TEST(DurableFile, canBeEmpty) {
  SimulatedFileSystem disk = diskWithOldFile();
  ASSERT_TRUE(DurableFile(disk, path).replace("").has_value());
  EXPECT_EQ(disk.content(path), "");
}

TEST(DurableFile, makesEveryMissingDirectoryWithMode0700) {
  SimulatedFileSystem disk = diskWithLibrary();
  const std::string deep = "/Library/One/Two/file.json";
  ASSERT_TRUE(DurableFile(disk, deep).replace("content").has_value());
  EXPECT_EQ(disk.mode("/Library"), 0755U);
  EXPECT_EQ(disk.mode("/Library/One"), 0700U);
  EXPECT_EQ(disk.mode("/Library/One/Two"), 0700U);
  EXPECT_EQ(disk.content(deep), "content");
}

TEST(DurableFile, worksInTheRootDirectory) {
  SimulatedFileSystem disk;
  DurableFile file(disk, "/file.json");
  ASSERT_TRUE(file.replace("content").has_value());
  EXPECT_EQ(file.read(100), Read("content"));
  EXPECT_THAT(disk.namesIn("/"), ElementsAre("file.json"));
}

TEST(DurableFile, keepsTheOldContentOrHasTheNewAfterAPowerCut) {
  bool wasOld = false;
  bool wasNew = false;
  std::string after;
  SimulatedFileSystem::forEachPowerCut(
      diskWithOldFile(),
      [](SimulatedFileSystem& disk) {
        ASSERT_TRUE(DurableFile(disk, path).replace("the new content").has_value());
      },
      [&](SimulatedFileSystem& disk, const std::string& how) {
        SCOPED_TRACE(how);
        const auto content = disk.content(path);
        ASSERT_TRUE(content == "the old content" || content == "the new content");
        (content == "the old content" ? wasOld : wasNew) = true;
        after = *content;
        // Whatever a cut leaves behind does not stand in the way.
        ASSERT_TRUE(DurableFile(disk, path).replace("again").has_value());
        EXPECT_EQ(disk.content(path), "again");
        EXPECT_THAT(disk.namesIn(directory), ElementsAre("file.json"));
      });
  EXPECT_TRUE(wasOld);
  EXPECT_TRUE(wasNew);
  // The last state seen is one after success: nothing may be lost any more.
  EXPECT_EQ(after, "the new content");
}

TEST(DurableFile, losesNothingOnceAReplacementHasSucceeded) {
  for (const SimulatedFileSystem& before : {diskWithOldFile(), diskWithLibrary()}) {
    SimulatedFileSystem disk = before;
    ASSERT_TRUE(DurableFile(disk, path).replace("the new content").has_value());
    for (const SimulatedFileSystem& state : disk.statesAfterPowerCut()) {
      EXPECT_EQ(state.content(path), "the new content");
    }
  }
}

TEST(DurableFile, flushesADirectoryThatAProcessMadeWhichDiedAtOnce) {
  const auto replace = [](SimulatedFileSystem& disk) {
    ASSERT_TRUE(DurableFile(disk, "/Library/One/Two/file.json").replace("content").has_value());
  };
  SimulatedFileSystem::forEachProcessDeath(
      diskWithLibrary(), replace, [&](SimulatedFileSystem& disk, const std::string& how) {
        SCOPED_TRACE(how);
        replace(disk);
        for (const SimulatedFileSystem& state : disk.statesAfterPowerCut()) {
          ASSERT_EQ(state.content("/Library/One/Two/file.json"), "content");
        }
      });
}

TEST(DurableFile, looksAfterADirectoryThatWasRemovedMeanwhile) {
  SimulatedFileSystem disk = diskWithLibrary();
  DurableFile file(disk, path);
  ASSERT_TRUE(file.replace("first").has_value());
  SimulatedFileSystem bare = diskWithLibrary();
  disk = bare;
  ASSERT_TRUE(file.replace("second").has_value());
  for (const SimulatedFileSystem& state : disk.statesAfterPowerCut()) {
    EXPECT_EQ(state.content(path), "second");
  }
}

TEST(DurableFile, keepsTheOldContentAndLeavesNothingWhenACallFails) {
  for (const SimulatedFileSystem& before : {diskWithOldFile(), diskWithLibrary()}) {
    const auto old = before.content(path);
    std::expected<void, FileError> result;
    std::size_t failed = 0;
    SimulatedFileSystem::forEachFailedCall(
        before,
        [&](SimulatedFileSystem& disk) {
          result = DurableFile(disk, path).replace("the new content");
        },
        [&](SimulatedFileSystem& disk, const std::string& how) {
          SCOPED_TRACE(how);
          if (disk.exists(directory)) {
            for (const std::string& name : disk.namesIn(directory)) EXPECT_EQ(name, "file.json");
          }
          if (result) {
            EXPECT_EQ(disk.content(path), "the new content");
            return;
          }
          ++failed;
          const bool lastStepFailed = result.error().operation == Operation::syncDirectory &&
                                      result.error().path == directory;
          EXPECT_EQ(disk.content(path), lastStepFailed ? "the new content" : old);
          // And the next one succeeds, for good.
          ASSERT_TRUE(DurableFile(disk, path).replace("again").has_value());
          for (const SimulatedFileSystem& state : disk.statesAfterPowerCut()) {
            EXPECT_EQ(state.content(path), "again");
          }
        });
    EXPECT_GT(failed, 15U);
  }
}

TEST(DurableFile, survivesAPowerCutAfterACallFailed) {
  std::expected<void, FileError> result;
  SimulatedFileSystem::forEachFailedCall(
      diskWithOldFile(),
      [&](SimulatedFileSystem& disk) {
        result = DurableFile(disk, path).replace("the new content");
      },
      [&](SimulatedFileSystem& disk, const std::string& how) {
        SCOPED_TRACE(how);
        for (const SimulatedFileSystem& state : disk.statesAfterPowerCut()) {
          const auto content = state.content(path);
          EXPECT_TRUE(content == "the old content" || content == "the new content");
          if (result) {
            EXPECT_EQ(content, "the new content");
          }
        }
      });
}

TEST(DurableFile, reportsTheStepThePathAndTheReason) {
  struct Row {
    std::string operation;
    Operation reported;
    std::string text;
  };
  const Row rows[]{
      {"isDirectory", Operation::createDirectory,
       "Could not create the directory /Library/State: "},
      {"create", Operation::create, "Could not create /Library/State/.file.json.new-"},
      {"write", Operation::write, "Could not write /Library/State/.file.json.new-"},
      {"sync", Operation::sync, "Could not flush /Library/State/.file.json.new-"},
      {"rename", Operation::rename, "Could not replace /Library/State/file.json: "},
  };
  SimulatedFileSystem whole = diskWithOldFile();
  ASSERT_TRUE(DurableFile(whole, path).replace("new").has_value());
  const auto calls = operations(whole);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.operation);
    const auto index =
        static_cast<std::size_t>(std::ranges::find(calls, row.operation) - calls.begin());
    SimulatedFileSystem disk = diskWithOldFile();
    disk.failCall(index, std::errc::no_space_on_device);
    const auto result = DurableFile(disk, path).replace("new");
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error().operation, row.reported);
    EXPECT_EQ(result.error().code, std::errc::no_space_on_device);
    EXPECT_TRUE(describe(result.error()).starts_with(row.text)) << describe(result.error());
    EXPECT_TRUE(describe(result.error()).ends_with(": No space left on device"));
  }
}

TEST(DurableFile, repeatsAnInterruptedCall) {
  SimulatedFileSystem whole = diskWithOldFile();
  ASSERT_TRUE(DurableFile(whole, path).replace("new").has_value());
  const auto calls = operations(whole);
  for (std::size_t i = 0; i < calls.size(); ++i) {
    SCOPED_TRACE(calls[i]);
    SimulatedFileSystem disk = diskWithOldFile();
    disk.failCall(i, std::errc::interrupted);
    disk.failCall(i + 1, std::errc::interrupted);
    EXPECT_TRUE(DurableFile(disk, path).replace("new").has_value());
    EXPECT_EQ(disk.content(path), "new");
  }
}

TEST(DurableFile, givesUpOnACallThatIsInterruptedForever) {
  SimulatedFileSystem disk = diskWithOldFile();
  for (std::size_t i = 0; i < 1'000; ++i) disk.failCall(i, std::errc::interrupted);
  const auto result = DurableFile(disk, path).replace("new");
  ASSERT_FALSE(result.has_value());
  EXPECT_EQ(result.error().code, std::errc::interrupted);
  EXPECT_LT(disk.calls().size(), 1'000U);
}

TEST(DurableFile, writesOnAfterAShortWrite) {
  SimulatedFileSystem disk = diskWithOldFile();
  ASSERT_TRUE(DurableFile(disk, path).replace("x").has_value());
  const auto calls = operations(disk);
  const auto write = static_cast<std::size_t>(std::ranges::find(calls, "write") - calls.begin());
  disk = diskWithOldFile();
  for (std::size_t i = 0; i < 4; ++i) disk.shortenWrite(write + i, i + 1);
  ASSERT_TRUE(DurableFile(disk, path).replace("the new content").has_value());
  EXPECT_EQ(disk.content(path), "the new content");
}

TEST(DurableFile, removesWhatADeadWriterLeftAndNothingElse) {
  SimulatedFileSystem disk = diskWithOldFile();
  const std::vector<std::string> others{".file.json.new-",      ".file.json.new-1a",
                                        ".file.json.new-1.bak", "file.json.new-1",
                                        ".other.json.new-1",    ".file.json"};
  for (const std::string& name : others) disk.placeFile(directory + "/" + name, "mine");
  disk.placeFile(directory + "/.file.json.new-1", "remnant");
  disk.placeFile(directory + "/.file.json.new-18446744073709551615", "remnant");
  ASSERT_TRUE(DurableFile(disk, path).replace("new").has_value());
  const auto names = disk.namesIn(directory);
  EXPECT_EQ(names.size(), others.size() + 1);
  EXPECT_THAT(names, IsSupersetOf(others));
  EXPECT_THAT(names, Contains("file.json"));
}

TEST(DurableFile, isReplacedEvenWhereRemnantsCannotBeRemoved) {
  SimulatedFileSystem disk = diskWithOldFile();
  // Numbers go up by one within a process: the next ones are taken.
  ASSERT_TRUE(DurableFile(disk, path).replace("a").has_value());
  std::string last;
  for (const auto& call : disk.calls()) {
    if (call.operation == "create") last = call.path;
  }
  const std::size_t dash = last.find_last_of('-');
  const std::uint64_t number = std::stoull(last.substr(dash + 1));
  disk = diskWithOldFile();
  for (std::uint64_t i = 1; i <= 5; ++i) {
    disk.placeFile(last.substr(0, dash + 1) + std::to_string(number + i), "remnant");
  }
  // The directory cannot be listed, so nobody knows of them.
  disk.failCall(3, std::errc::io_error);
  ASSERT_TRUE(DurableFile(disk, path).replace("new").has_value());
  EXPECT_EQ(disk.calls()[3].operation, "names");
  EXPECT_EQ(disk.content(path), "new");
  EXPECT_EQ(disk.namesIn(directory).size(), 6U);
}

TEST(DurableFile, acceptsDirectoriesAboveItThatItMayNotOpen) {
  SimulatedFileSystem disk = diskWithOldFile();
  disk.failCall(1, std::errc::permission_denied);
  ASSERT_TRUE(DurableFile(disk, path).replace("new").has_value());
  EXPECT_EQ(disk.calls()[1].operation, "syncDirectory");
  EXPECT_EQ(disk.calls()[1].path, "/");
}

TEST(DurableFileDeathTest, wantsAnAbsolutePathOfAFile) {
  SimulatedFileSystem disk;
  EXPECT_DEATH(DurableFile(disk, "file"), "absolute path");
  EXPECT_DEATH(DurableFile(disk, "/directory/"), "absolute path");
  EXPECT_DEATH(DurableFile(disk, ""), "absolute path");
}

}  // namespace
}  // namespace stillow::filtering
