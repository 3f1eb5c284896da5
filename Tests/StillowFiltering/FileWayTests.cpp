#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "StillowFiltering/FileWay.hpp"
#include "TestSupport/TemporaryDirectory.hpp"

namespace stillow::filtering {
namespace {

namespace fs = std::filesystem;

class FileWayTest : public ::testing::Test {
 protected:
  void SetUp() override { fs::create_directories(directory_); }

  void write(const std::string& name, std::string_view bytes) const {
    std::ofstream(fs::path(directory_) / name, std::ios::binary) << bytes;
  }
  /// As the daemon does it: written aside, renamed over the old one.
  void replace(std::string_view bytes) const {
    write("aside", bytes);
    fs::rename(fs::path(directory_) / "aside", fs::path(directory_) / "file");
  }

  test::TemporaryDirectory temporary_;
  std::string directory_ = temporary_.path("outer/state");
  FileWay way_{directory_, "file"};
};

TEST_F(FileWayTest, namesEachDirectoryFromTheRootOn) {
  const FileWay way("/Library//Application Support/Stillow/", "file");
  EXPECT_EQ(way.directories(),
            (std::vector<std::string>{"/", "/Library", "/Library//Application Support",
                                      "/Library//Application Support/Stillow"}));
  EXPECT_EQ(FileWay("/", "file").directories(), std::vector<std::string>{"/"});
}

TEST_F(FileWayTest, looksTheSameWhileNothingHappens) {
  replace("one");
  EXPECT_EQ(way_.look(), way_.look());
  EXPECT_EQ(way_.look().directories.size(), way_.directories().size());
}

TEST_F(FileWayTest, seesTheFileComeGoAndBeReplaced) {
  const auto before = way_.look();
  EXPECT_FALSE(before.file.has_value());
  replace("one");
  const auto first = way_.look();
  EXPECT_NE(first, before);
  EXPECT_EQ(first.directories, before.directories);
  replace("two");
  const auto second = way_.look();
  EXPECT_NE(second.file, first.file) << "of the same length, written within the same moment";
  fs::remove(fs::path(directory_) / "file");
  EXPECT_EQ(way_.look(), before);
}

TEST_F(FileWayTest, seesEveryOneOfManyReplacements) {
  replace("0");
  for (int i = 1; i < 200; ++i) {
    const auto before = way_.lookAtFile();
    replace(std::to_string(i % 10));
    ASSERT_NE(way_.lookAtFile(), before) << "replacement " << i;
  }
}

TEST_F(FileWayTest, seesAFileThatBecomesUnreadable) {
  replace("one");
  const auto before = way_.look();
  fs::permissions(fs::path(directory_) / "file", fs::perms::none);
  EXPECT_NE(way_.look(), before);
}

TEST_F(FileWayTest, isNotConcernedWithOtherFiles) {
  replace("one");
  const auto before = way_.look();
  write("another", "two");
  EXPECT_EQ(way_.look(), before);
}

TEST_F(FileWayTest, endsWhereADirectoryIsMissing) {
  fs::remove_all(temporary_.path("outer"));
  const auto gone = way_.look();
  EXPECT_EQ(gone.directories.size(), way_.directories().size() - 2);
  EXPECT_FALSE(gone.file.has_value());
  std::ofstream(temporary_.path("outer")) << "a file in the place of a directory";
  EXPECT_EQ(way_.look(), gone);
}

TEST_F(FileWayTest, seesADirectoryThatWasExchanged) {
  const auto before = way_.look();
  fs::rename(directory_, directory_ + "-old");
  fs::create_directory(directory_);
  EXPECT_NE(way_.look().directories, before.directories);
}

}  // namespace
}  // namespace stillow::filtering
