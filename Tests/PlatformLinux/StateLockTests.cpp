#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "StillowFiltering/Storage/PosixFileSystem.hpp"
#include "StillowFiltering/Storage/StateDirectoryLock.hpp"
#include "TestSupport/TemporaryDirectory.hpp"

namespace stillow::platform {
namespace {

using filtering::StateDirectoryLock;
using test::TemporaryDirectory;

filtering::PosixFileSystem& fileSystem() {
  static filtering::PosixFileSystem shared;
  return shared;
}

auto acquire(const std::string& directory, const std::function<void()>& onWaiting = {}) {
  return StateDirectoryLock::acquire(fileSystem(), directory, onWaiting);
}

/// Whether somebody holds the lock, found out without taking it for longer than a moment.
bool isHeld(const std::string& directory) {
  const core::FileDescriptor file(
      ::open((directory + "/" + StateDirectoryLock::lockFileName).c_str(), O_RDWR | O_CLOEXEC));
  EXPECT_TRUE(file);
  return ::flock(file.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

unsigned modeOf(const std::string& path) {
  struct stat found{};
  EXPECT_EQ(::stat(path.c_str(), &found), 0) << path;
  return found.st_mode & 07777U;
}

std::vector<std::string> namesIn(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    names.push_back(entry.path().filename());
  }
  return names;
}

TEST(StateDirectoryLock, makesTheDirectoryForItsOwnerAndTouchesNothingButItsFile) {
  const TemporaryDirectory temporary;
  const std::string directory = temporary.path("outer/state");
  bool hasWaited = false;
  const auto lock = acquire(directory, [&] { hasWaited = true; });
  ASSERT_TRUE(lock.has_value());
  EXPECT_FALSE(hasWaited);
  EXPECT_EQ(modeOf(directory), 0700U);
  EXPECT_EQ(modeOf(directory + "/" + StateDirectoryLock::lockFileName), 0600U);
  EXPECT_EQ(namesIn(directory), std::vector<std::string>{StateDirectoryLock::lockFileName});
  EXPECT_TRUE(isHeld(directory));
}

TEST(StateDirectoryLock, isGivenBackWhenItIsDestroyedAndItsFileStays) {
  const TemporaryDirectory temporary;
  {
    auto first = acquire(temporary.path());
    ASSERT_TRUE(first.has_value());
    const StateDirectoryLock moved = std::move(*first);
    EXPECT_TRUE(isHeld(temporary.path()));
  }
  EXPECT_FALSE(isHeld(temporary.path()));
  EXPECT_TRUE(acquire(temporary.path()).has_value());
}

TEST(StateDirectoryLock, letsTheSecondWaitAndSaySoOnce) {
  const TemporaryDirectory temporary;
  std::optional first(acquire(temporary.path()));
  ASSERT_TRUE(first->has_value());
  std::promise<void> waiting;
  std::atomic<int> timesTold = 0;
  std::atomic<bool> isFirstDone = false;
  std::thread second([&] {
    const auto lock = acquire(temporary.path(), [&] {
      ++timesTold;
      waiting.set_value();
    });
    EXPECT_TRUE(lock.has_value());
    EXPECT_TRUE(isFirstDone) << "both held it at once";
    EXPECT_TRUE(isHeld(temporary.path()));
  });
  waiting.get_future().wait();
  EXPECT_EQ(namesIn(temporary.path()), std::vector<std::string>{StateDirectoryLock::lockFileName});
  isFirstDone = true;
  first.reset();
  second.join();
  EXPECT_EQ(timesTold, 1);
}

TEST(StateDirectoryLock, isFreeAgainWhenTheProcessThatHeldItIsKilled) {
  const TemporaryDirectory temporary;
  std::array<int, 2> pipe{};
  ASSERT_EQ(::pipe2(pipe.data(), O_CLOEXEC), 0);
  const pid_t holder = ::fork();
  ASSERT_GE(holder, 0);
  if (holder == 0) {
    const auto lock = acquire(temporary.path());
    if (lock) (void)!::write(pipe[1], "x", 1);
    while (true) ::pause();
  }
  char byte = 0;
  ASSERT_EQ(::read(pipe[0], &byte, 1), 1);
  bool hasWaited = false;
  const auto lock = acquire(temporary.path(), [&] {
    hasWaited = true;
    EXPECT_EQ(::kill(holder, SIGKILL), 0);
  });
  EXPECT_TRUE(lock.has_value());
  EXPECT_TRUE(hasWaited);
  EXPECT_EQ(::waitpid(holder, nullptr, 0), holder);
  (void)::close(pipe[0]);
  (void)::close(pipe[1]);
}

// As uninstalling does while a second daemon waits. A lock on a file that no longer has a name
// would keep nobody out.
TEST(StateDirectoryLock, takesAnotherFileWhenTheOneItWaitedForWasRemoved) {
  const TemporaryDirectory temporary;
  const std::string directory = temporary.path("state");
  std::optional first(acquire(directory));
  ASSERT_TRUE(first->has_value());
  int timesTold = 0;
  const auto second = acquire(directory, [&] {
    ++timesTold;
    std::filesystem::remove_all(directory);
    first.reset();
  });
  ASSERT_TRUE(second.has_value());
  EXPECT_EQ(timesTold, 1);
  EXPECT_TRUE(isHeld(directory));
  EXPECT_EQ(modeOf(directory), 0700U);
}

TEST(StateDirectoryLock, isNotInheritedByProgramsThatAreRun) {
  const TemporaryDirectory temporary;
  const auto lock = acquire(temporary.path());
  ASSERT_TRUE(lock.has_value());
  const std::filesystem::path file = temporary.path(StateDirectoryLock::lockFileName);
  std::size_t found = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry.path(), gone) != file) continue;
    ++found;
    const int descriptor = std::stoi(entry.path().filename());
    EXPECT_NE(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
  }
  EXPECT_EQ(found, 1U);
}

TEST(StateDirectoryLock, saysWhyThereIsNone) {
  const TemporaryDirectory temporary;
  std::ofstream(temporary.path("file")) << "in the way";
  const auto blocked = acquire(temporary.path("file/state"));
  ASSERT_FALSE(blocked.has_value());
  EXPECT_EQ(blocked.error().description,
            "Could not create the directory " + temporary.path("file") + ": File exists");

  const std::string lockPath = temporary.path(StateDirectoryLock::lockFileName);
  std::filesystem::create_symlink(temporary.path("file"), lockPath);
  const auto linked = acquire(temporary.path());
  ASSERT_FALSE(linked.has_value()) << "a link in its place is not followed";
  EXPECT_EQ(linked.error().description,
            "Could not open " + lockPath + ": Too many levels of symbolic links");
}

}  // namespace
}  // namespace stillow::platform
