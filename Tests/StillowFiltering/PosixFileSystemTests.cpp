#include <algorithm>
#include <cerrno>
#include <expected>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "StillowFiltering/Storage/DurableFile.hpp"
#include "StillowFiltering/Storage/PosixFileSystem.hpp"
#include "TestSupport/TemporaryDirectory.hpp"

namespace stillow::filtering {
namespace {

namespace fs = std::filesystem;
using testing::UnorderedElementsAre;
using Read = std::expected<std::optional<std::string>, std::error_code>;

unsigned modeOf(const std::string& path) {
  return static_cast<unsigned>(fs::symlink_status(path).permissions());
}
void write(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}
std::vector<std::string> openDescriptors() {
  std::vector<std::string> descriptors;
  for (int i = 0; i < 256; ++i) {
    if (::fcntl(i, F_GETFD) >= 0) descriptors.push_back(std::to_string(i));
  }
  return descriptors;
}

/// Sets the process's mask as long as it lives.
class Mask {
 public:
  explicit Mask(::mode_t mask) : before_(::umask(mask)) {}
  Mask(const Mask&) = delete;
  Mask& operator=(const Mask&) = delete;
  ~Mask() { (void)::umask(before_); }

 private:
  ::mode_t before_;
};

class PosixFileSystemTest : public testing::Test {
 protected:
  test::TemporaryDirectory directory;
  PosixFileSystem fileSystem;
};

TEST_F(PosixFileSystemTest, createsWithExactlyTheModeWhateverTheMask) {
  for (const ::mode_t mask : {0000U, 0022U, 0077U, 0777U}) {
    SCOPED_TRACE(mask);
    const Mask guard(mask);
    const std::string file = directory.path("file" + std::to_string(mask));
    const std::string made = directory.path("directory" + std::to_string(mask));
    ASSERT_TRUE(fileSystem.createExclusively(file, 0640).has_value());
    ASSERT_TRUE(fileSystem.createDirectory(made, 0750).has_value());
    EXPECT_EQ(modeOf(file), 0640U);
    EXPECT_EQ(modeOf(made), 0750U);
  }
}

TEST_F(PosixFileSystemTest, createsNothingWhereThereIsSomething) {
  const std::string file = directory.path("file");
  write(file, "content");
  fs::create_symlink(directory.path("nowhere"), directory.path("link"));
  for (const std::string& path : {file, directory.path("link"), directory.path()}) {
    const auto created = fileSystem.createExclusively(path, 0600);
    ASSERT_FALSE(created.has_value());
    EXPECT_EQ(created.error(), std::errc::file_exists);
    EXPECT_EQ(fileSystem.createDirectory(path, 0700).error(), std::errc::file_exists);
  }
  EXPECT_EQ(fileSystem.read(file, 100), Read("content"));
  EXPECT_FALSE(fs::exists(directory.path("nowhere")));
}

TEST_F(PosixFileSystemTest, writesFlushesAndReadsBack) {
  const std::string path = directory.path("file");
  const auto before = openDescriptors();
  {
    auto file = fileSystem.createExclusively(path, 0600);
    ASSERT_TRUE(file.has_value());
    EXPECT_EQ((*file)->write("first"), 5U);
    EXPECT_EQ((*file)->write(" second"), 7U);
    EXPECT_TRUE((*file)->sync().has_value());
  }
  EXPECT_EQ(fileSystem.read(path, 12), Read("first second"));
  EXPECT_TRUE(fileSystem.syncDirectory(directory.path()).has_value());
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(PosixFileSystemTest, readsWhatIsRegularAndWithinTheLimit) {
  const std::string path = directory.path("file");
  EXPECT_EQ(fileSystem.read(path, 100), Read(std::nullopt));
  EXPECT_EQ(fileSystem.read(path + "/below", 100), Read(std::nullopt));
  write(path, "");
  EXPECT_EQ(fileSystem.read(path, 0), Read(""));
  EXPECT_EQ(fileSystem.read(path + "/below", 100), Read(std::nullopt));
  const std::string large(300'000, 'x');
  write(path, large);
  EXPECT_EQ(fileSystem.read(path, large.size()), Read(large));
  EXPECT_EQ(fileSystem.read(path, large.size() - 1).error(), std::errc::file_too_large);
}

TEST_F(PosixFileSystemTest, readsNoLinkNoDirectoryAndNoPipe) {
  write(directory.path("file"), "content");
  fs::create_symlink(directory.path("file"), directory.path("link"));
  ASSERT_EQ(::mkfifo(directory.path("pipe").c_str(), 0600), 0);
  EXPECT_EQ(fileSystem.read(directory.path("link"), 100).error(),
            std::errc::too_many_symbolic_link_levels);
  EXPECT_EQ(fileSystem.read(directory.path(), 100).error(), std::errc::is_a_directory);
  // Does not wait for a writer either.
  EXPECT_EQ(fileSystem.read(directory.path("pipe"), 100).error(), std::errc::invalid_argument);
  // A link on the way is the administrator's choice.
  fs::create_directory_symlink(directory.path(), directory.path("way"));
  EXPECT_EQ(fileSystem.read(directory.path("way/file"), 100), Read("content"));
}

TEST_F(PosixFileSystemTest, readsFilesWhoseSizeIsNotKnownBeforehand) {
  // The kernel's own files say 0.
  const auto read = fileSystem.read("/proc/self/status", 1'000'000);
  ASSERT_TRUE(read.has_value() && read->has_value());
  EXPECT_GT((*read)->size(), 100U);
  EXPECT_EQ(fileSystem.read("/proc/self/status", 10).error(), std::errc::file_too_large);
}

TEST_F(PosixFileSystemTest, tellsDirectoriesFromAllElse) {
  write(directory.path("file"), "");
  fs::create_directory_symlink(directory.path(), directory.path("link"));
  EXPECT_EQ(fileSystem.isDirectory(directory.path()), true);
  EXPECT_EQ(fileSystem.isDirectory(directory.path("link")), true);
  EXPECT_EQ(fileSystem.isDirectory(directory.path("file")), false);
  EXPECT_EQ(fileSystem.isDirectory(directory.path("file/below")), false);
  EXPECT_EQ(fileSystem.isDirectory(directory.path("nothing")), false);
}

TEST_F(PosixFileSystemTest, listsRenamesAndRemoves) {
  write(directory.path("one"), "1");
  write(directory.path("two"), "2");
  const auto before = openDescriptors();
  EXPECT_THAT(*fileSystem.names(directory.path()), UnorderedElementsAre("one", "two"));
  EXPECT_TRUE(fileSystem.rename(directory.path("one"), directory.path("two")).has_value());
  EXPECT_EQ(fileSystem.read(directory.path("two"), 10), Read("1"));
  EXPECT_TRUE(fileSystem.remove(directory.path("two")).has_value());
  EXPECT_THAT(*fileSystem.names(directory.path()), UnorderedElementsAre());
  EXPECT_EQ(fileSystem.remove(directory.path("two")).error(), std::errc::no_such_file_or_directory);
  EXPECT_EQ(fileSystem.rename(directory.path("two"), directory.path("one")).error(),
            std::errc::no_such_file_or_directory);
  EXPECT_EQ(fileSystem.names(directory.path("nothing")).error(),
            std::errc::no_such_file_or_directory);
  EXPECT_EQ(fileSystem.syncDirectory(directory.path("nothing")).error(),
            std::errc::no_such_file_or_directory);
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(PosixFileSystemTest, opensNothingThatAChildWouldInherit) {
  // A test runner may hand down descriptors of its own.
  const auto before = openDescriptors();
  auto file = fileSystem.createExclusively(directory.path("file"), 0600);
  ASSERT_TRUE(file.has_value());
  const auto descriptors = openDescriptors();
  const auto isInherited = [&](const std::string& descriptor) {
    if (std::ranges::find(before, descriptor) != before.end()) return false;
    struct ::stat status{};
    const int number = std::stoi(descriptor);
    return ::fstat(number, &status) == 0 && S_ISREG(status.st_mode) && number > 2 &&
           (::fcntl(number, F_GETFL) & O_ACCMODE) == O_WRONLY &&
           (::fcntl(number, F_GETFD) & FD_CLOEXEC) == 0;
  };
  EXPECT_TRUE(std::ranges::none_of(descriptors, isInherited));
}

TEST_F(PosixFileSystemTest, flushesFilesAndDirectoriesThroughOneHook) {
  class Counting final : public PosixFileSystem {
   public:
    int flushes = 0;

   protected:
    int flushToDisk(int descriptor) override {
      ++flushes;
      return PosixFileSystem::flushToDisk(descriptor);
    }
  };
  Counting counting;
  DurableFile file(counting, directory.path("file"));
  ASSERT_TRUE(file.replace("first").has_value());
  counting.flushes = 0;
  ASSERT_TRUE(file.replace("second").has_value());
  EXPECT_EQ(counting.flushes, 2);
}

TEST_F(PosixFileSystemTest, keepsTheOldFileWhenTheDiskRefusesToFlush) {
  class FullDisk final : public PosixFileSystem {
   protected:
    int flushToDisk(int) override {
      errno = ENOSPC;
      return -1;
    }
  };
  FullDisk fullDisk;
  write(directory.path("file"), "old");
  DurableFile file(fullDisk, directory.path("file"));
  const auto result = file.replace("new");
  ASSERT_FALSE(result.has_value());
  EXPECT_EQ(result.error().code, std::errc::no_space_on_device);
  EXPECT_EQ(fileSystem.read(directory.path("file"), 10), Read("old"));
  EXPECT_THAT(*fileSystem.names(directory.path()), UnorderedElementsAre("file"));
}

}  // namespace
}  // namespace stillow::filtering
