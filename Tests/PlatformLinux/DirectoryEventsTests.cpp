#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include "PlatformLinuxFilter/DirectoryEvents.hpp"
#include "StillowFiltering/EnforcementDirectiveStore.hpp"
#include "StillowFiltering/EnforcementDirectiveWatcher.hpp"
#include "StillowFiltering/Storage/PosixFileSystem.hpp"
#include "TestSupport/TemporaryDirectory.hpp"

namespace stillow::platform {
namespace {

namespace fs = std::filesystem;

void write(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

class DirectoryEventsTest : public testing::Test {
 protected:
  void start() {
    ASSERT_TRUE(events.start([this] { ++calls; }).has_value());
  }
  /// How often `changed` was called for what is pending.
  int drain() {
    calls = 0;
    EXPECT_TRUE(events.drain().has_value());
    // Giving up a watch is an event of its own, which comes behind and says nothing.
    const int seen = calls;
    EXPECT_TRUE(events.drain().has_value());
    EXPECT_EQ(calls, seen);
    EXPECT_TRUE(comesToRest()) << "something stayed behind";
    EXPECT_EQ(calls, seen);
    return seen;
  }
  /// Whether a look leaves nothing behind. The directory of all temporary files is on the way as
  /// well, and other programs work in it meanwhile: their events may come between look and
  /// question, but not a thousand times in a row.
  bool comesToRest() {
    for (int i = 0; i < 1'000; ++i) {
      if (!isReadable()) return true;
      EXPECT_TRUE(events.drain().has_value());
    }
    return false;
  }
  bool isReadable() const {
    ::pollfd descriptor{.fd = events.descriptor(), .events = POLLIN, .revents = 0};
    return ::poll(&descriptor, 1, 0) == 1;
  }
  void publish(const std::string& content = "content") const {
    write(aside, content);
    fs::rename(aside, file);
  }

  test::TemporaryDirectory root;
  std::string state = root.path("Application Support/State");
  std::string file = state + "/directive.json";
  std::string aside = state + "/.directive.json.new-1";
  DirectoryEvents events{state, "directive.json"};
  int calls = 0;
};

TEST_F(DirectoryEventsTest, callsForWhatConcernsTheFileOnceForEachDrain) {
  fs::create_directories(state);
  start();
  EXPECT_EQ(drain(), 0);
  publish();
  publish();
  EXPECT_EQ(drain(), 1);
  write(file, "written in place");
  EXPECT_EQ(drain(), 1);
  fs::permissions(file, fs::perms::none);
  EXPECT_EQ(drain(), 1);
  fs::rename(file, state + "/elsewhere");
  EXPECT_EQ(drain(), 1);
  fs::create_hard_link(state + "/elsewhere", file);
  EXPECT_EQ(drain(), 1);
  fs::remove(file);
  EXPECT_EQ(drain(), 1);
  EXPECT_EQ(drain(), 0);
}

TEST_F(DirectoryEventsTest, sleepsThroughEverythingElse) {
  fs::create_directories(state);
  publish();
  start();
  write(aside, "content");
  write(state + "/checkpoint.json", "content");
  write(state + "/directive.json.bak", "content");
  write(state + "/directive.jso", "content");
  fs::rename(state + "/checkpoint.json", state + "/other");
  fs::create_directory(root.path("neighbour"));
  write(root.path("Application Support/file"), "content");
  EXPECT_EQ(drain(), 0);

  // Reading the file, as we do after each event, is no event.
  std::string content;
  std::ifstream(file) >> content;
  EXPECT_EQ(drain(), 0);
}

TEST_F(DirectoryEventsTest, waitsForADirectoryThatIsNotThereYet) {
  start();
  EXPECT_EQ(drain(), 0);
  fs::create_directory(root.path("Application Support"));
  EXPECT_EQ(drain(), 1);
  fs::create_directory(state);
  EXPECT_EQ(drain(), 1);
  publish();
  EXPECT_EQ(drain(), 1);
}

TEST_F(DirectoryEventsTest, findsTheFileThoughTheWholeWayWasMadeAtOnce) {
  start();
  fs::create_directories(state);
  publish("one");
  EXPECT_EQ(drain(), 1);
  publish("two");
  EXPECT_EQ(drain(), 1);
}

TEST_F(DirectoryEventsTest, followsADirectoryThatIsRemovedAndMadeAgain) {
  fs::create_directories(state);
  publish();
  start();
  fs::remove_all(state);
  EXPECT_EQ(drain(), 1);
  fs::create_directory(state);
  EXPECT_EQ(drain(), 1);
  publish();
  EXPECT_EQ(drain(), 1);

  // Both before anybody looks.
  fs::remove_all(state);
  fs::create_directory(state);
  publish();
  EXPECT_EQ(drain(), 1);
  publish();
  EXPECT_EQ(drain(), 1);
}

TEST_F(DirectoryEventsTest, followsTheWayAndNotTheDirectoryThatWasMovedAway) {
  fs::create_directories(state);
  start();
  // In turn the directory itself and one above it.
  for (const std::string& moved : {state, root.path("Application Support")}) {
    SCOPED_TRACE(moved);
    const std::string away = root.path("away");
    fs::rename(moved, away);
    EXPECT_EQ(drain(), 1);
    write(moved == state ? away + "/directive.json" : away + "/State/directive.json", "content");
    EXPECT_EQ(drain(), 0);
    fs::create_directories(state);
    EXPECT_EQ(drain(), 1);
    publish();
    EXPECT_EQ(drain(), 1);
    fs::remove_all(away);
    EXPECT_EQ(drain(), 0);
  }
}

TEST_F(DirectoryEventsTest, noticesADirectoryThatIsMovedIntoPlaceWithItsFile) {
  fs::create_directories(root.path("prepared"));
  write(root.path("prepared/directive.json"), "content");
  fs::create_directory(root.path("Application Support"));
  start();
  fs::rename(root.path("prepared"), state);
  EXPECT_EQ(drain(), 1);
  publish();
  EXPECT_EQ(drain(), 1);
}

TEST_F(DirectoryEventsTest, waitsWhereAFileStandsInTheDirectorysPlace) {
  fs::create_directory(root.path("Application Support"));
  write(state, "no directory");
  start();
  EXPECT_EQ(drain(), 0);
  fs::remove(state);
  fs::create_directory(state);
  EXPECT_EQ(drain(), 1);
  publish();
  EXPECT_EQ(drain(), 1);
}

TEST_F(DirectoryEventsTest, callsWhenTheKernelsQueueRanOver) {
  fs::create_directories(state);
  publish();
  start();
  std::size_t queued = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> queued;
  ASSERT_GT(queued, 0U);
  const std::string one = state + "/one";
  const std::string two = state + "/two";
  write(one, "");
  // Two events each; the kernel joins only equal ones.
  for (std::size_t i = 0; i <= queued / 4 + 1; ++i) {
    ASSERT_EQ(::rename(one.c_str(), two.c_str()), 0);
    ASSERT_EQ(::rename(two.c_str(), one.c_str()), 0);
  }
  // These came too late to be told, and the directory is another by now.
  fs::remove_all(state);
  fs::create_directories(state);
  publish();
  EXPECT_EQ(drain(), 1);
  publish();
  EXPECT_EQ(drain(), 1);
}

TEST_F(DirectoryEventsTest, isSilentAfterStopAndCanStartAgain) {
  fs::create_directories(state);
  start();
  EXPECT_GE(events.descriptor(), 0);
  publish();
  events.stop();
  EXPECT_EQ(events.descriptor(), -1);
  EXPECT_TRUE(events.drain().has_value());
  EXPECT_EQ(calls, 0);
  start();
  EXPECT_EQ(drain(), 0);
  publish();
  EXPECT_EQ(drain(), 1);
}

TEST_F(DirectoryEventsTest, canBeStoppedByWhomItCalls) {
  fs::create_directories(state);
  ASSERT_TRUE(events.start([this] { events.stop(); }).has_value());
  publish();
  EXPECT_TRUE(events.drain().has_value());
  EXPECT_EQ(events.descriptor(), -1);
}

TEST_F(DirectoryEventsTest, takesSuperfluousSlashesInThePath) {
  fs::create_directories(state);
  DirectoryEvents other("/" + root.path() + "//Application Support///State//", "directive.json");
  int otherCalls = 0;
  ASSERT_TRUE(other.start([&] { ++otherCalls; }).has_value());
  publish();
  EXPECT_TRUE(other.drain().has_value());
  EXPECT_EQ(otherCalls, 1);
}

/// What the filter promises, without the packets: what was published before a look at the events is
/// adopted after it.
TEST_F(DirectoryEventsTest, hasTheWatcherAdoptEveryDirectiveThatWasPublishedBefore) {
  filtering::PosixFileSystem fileSystem;
  filtering::FileEnforcementDirectiveStore store(fileSystem, file);
  std::optional<double> adopted;
  std::vector<core::EnforcementHealthStatus> health;
  filtering::EnforcementDirectiveWatcher watcher(
      store, events,
      [&](const filtering::EnforcementDirective& directive) {
        adopted = directive.publishedAt.secondsSinceReferenceDate;
      },
      [&](const core::EnforcementHealthStatus& status) { health.push_back(status); });
  // Started before there is any directory.
  ASSERT_TRUE(watcher.start().has_value());
  EXPECT_TRUE(health.empty());
  for (int round = 1; round <= 200; ++round) {
    // From another thread, as the daemon is another process.
    std::thread([&] {
      ASSERT_TRUE(store
                      .publish({.scope = std::nullopt,
                                .validation = std::nullopt,
                                .publishedAt = core::Date{static_cast<double>(round)}})
                      .has_value());
    }).join();
    ASSERT_TRUE(events.drain().has_value());
    ASSERT_EQ(adopted, round);
  }
  EXPECT_EQ(health.size(), 200U);
  fs::remove_all(state);
  ASSERT_TRUE(events.drain().has_value());
  using Health = core::EnforcementHealthStatus;
  EXPECT_EQ(health.back(),
            Health(Health::degraded{core::DegradedReason::recoveringFromCorruption}));
}

using DirectoryEventsDeathTest = DirectoryEventsTest;

TEST_F(DirectoryEventsDeathTest, reportsADirectoryThatItMayNotWatch) {
  fs::create_directories(state);
  const auto mayWatch = [this] {
    // In a process of its own: nobody may read a directory of mode 0000, but for root.
    fs::permissions(root.path(), fs::perms::none);
    if (::geteuid() == 0 && (::setgid(65'534) != 0 || ::setuid(65'534) != 0)) ::_exit(2);
    const auto started = events.start([] {});
    const bool isRefused = !started && started.error() == std::errc::permission_denied;
    ::_exit(isRefused && events.descriptor() == -1 ? 0 : 1);
  };
  EXPECT_EXIT(mayWatch(), testing::ExitedWithCode(0), "");
  fs::permissions(root.path(), fs::perms::owner_all);
}

TEST_F(DirectoryEventsDeathTest, saysWhenTheDirectoryCameToAPlaceThatItMayNotWatch) {
  const auto comesToNoGood = [this] {
    const std::string hidden = root.path("hidden");
    fs::create_directory(hidden);
    fs::permissions(root.path(), fs::perms::all);
    fs::permissions(hidden, fs::perms::none);
    if (::geteuid() == 0 && (::setgid(65'534) != 0 || ::setuid(65'534) != 0)) ::_exit(2);
    if (!events.start([this] { ++calls; })) ::_exit(3);
    fs::rename(hidden, root.path("Application Support"));
    const auto drained = events.drain();
    const bool isTold = !drained && drained.error() == std::errc::permission_denied;
    ::_exit(isTold && calls == 1 ? 0 : 1);
  };
  EXPECT_EXIT(comesToNoGood(), testing::ExitedWithCode(0), "");
}

TEST_F(DirectoryEventsDeathTest, reportsThatThereIsNoDescriptorLeft) {
  const auto failsToStart = [this] {
    const ::rlimit none{.rlim_cur = 0, .rlim_max = 0};
    if (::setrlimit(RLIMIT_NOFILE, &none) != 0) ::_exit(2);
    const auto started = events.start([] {});
    ::_exit(!started && started.error() == std::errc::too_many_files_open ? 0 : 1);
  };
  EXPECT_EXIT(failsToStart(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace stillow::platform
