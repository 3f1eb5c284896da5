#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "StillowFiltering/EnforcementDirectiveStore.hpp"
#include "StillowFiltering/EnforcementDirectiveWatcher.hpp"
#include "TestSupport/SimulatedFileSystem.hpp"

namespace stillow::filtering {
namespace {

using core::Date;
using core::DegradedReason;
using core::EnforcementHealthStatus;
using Health = EnforcementHealthStatus;

const Health healthy{Health::healthy{}};
const Health recovering{Health::degraded{DegradedReason::recoveringFromCorruption}};
const Health failedOpen{Health::degraded{DegradedReason::failedOpen}};

EnforcementDirective published(double seconds) {
  return {.scope = std::nullopt, .validation = std::nullopt, .publishedAt = Date{seconds}};
}

class ManualDirectoryEvents final : public DirectoryEventSource {
 public:
  std::expected<void, std::error_code> start(std::function<void()> changed) override {
    ++starts;
    if (failure) return std::unexpected(failure);
    changed_ = std::move(changed);
    if (duringStart) duringStart();
    return {};
  }
  void stop() override {
    ++stops;
    changed_ = nullptr;
  }
  [[nodiscard]] bool isStarted() const { return changed_ != nullptr; }
  void fire() const {
    if (changed_) changed_();
  }

  std::error_code failure;
  std::function<void()> duringStart;
  int starts = 0;
  int stops = 0;

 private:
  std::function<void()> changed_;
};

/// A watcher over a file on a simulated disk, and what it said.
class EnforcementDirectiveWatcherTest : public testing::Test {
 protected:
  static constexpr const char* path = "/state/enforcement-directive.json";

  EnforcementDirectiveWatcherTest() { disk.placeDirectory("/state", 0700); }

  void publish(double seconds) { ASSERT_TRUE(store.publish(published(seconds)).has_value()); }
  void damage() { disk.placeFile(path, R"({"publishedAt":7)"); }
  void removeFile() { ASSERT_TRUE(disk.remove(path).has_value()); }

  void start() { ASSERT_TRUE(watcher.start().has_value()); }
  /// What was said since the last call.
  std::vector<Health> takeHealth() { return std::exchange(health, {}); }
  std::vector<double> takeAdopted() { return std::exchange(adopted, {}); }

  test::SimulatedFileSystem disk;
  FileEnforcementDirectiveStore store{disk, path};
  ManualDirectoryEvents events;
  std::vector<double> adopted;
  std::vector<Health> health;
  std::function<void()> duringHandler;
  EnforcementDirectiveWatcher watcher{
      store, events,
      [this](const EnforcementDirective& directive) {
        adopted.push_back(directive.publishedAt.secondsSinceReferenceDate);
        if (const auto hook = std::exchange(duringHandler, nullptr)) hook();
      },
      [this](const EnforcementHealthStatus& status) { health.push_back(status); }};
};

TEST_F(EnforcementDirectiveWatcherTest, isStoppedUntilItIsStarted) {
  publish(1);
  EXPECT_EQ(events.starts, 0);
  EXPECT_TRUE(adopted.empty());
}

TEST_F(EnforcementDirectiveWatcherTest, adoptsWhatIsPublishedAlreadyBeforeStartReturns) {
  publish(1);
  start();
  EXPECT_EQ(takeAdopted(), (std::vector<double>{1}));
  EXPECT_EQ(takeHealth(), std::vector{healthy});
}

TEST_F(EnforcementDirectiveWatcherTest, adoptsEachDirectiveThatIsPublished) {
  start();
  publish(1);
  events.fire();
  publish(2);
  publish(3);
  events.fire();
  EXPECT_EQ(takeAdopted(), (std::vector<double>{1, 3}));
  EXPECT_EQ(takeHealth(), (std::vector{healthy, healthy}));
}

TEST_F(EnforcementDirectiveWatcherTest, saysNothingAboutAFileThatNeverWas) {
  start();
  events.fire();
  EXPECT_TRUE(adopted.empty());
  EXPECT_TRUE(health.empty());
  EXPECT_EQ(watcher.lastReadError(), std::nullopt);
}

TEST_F(EnforcementDirectiveWatcherTest, keepsTheAdoptedDirectiveWhenTheFileIsDeleted) {
  publish(1);
  start();
  takeAdopted();
  takeHealth();
  removeFile();
  events.fire();
  EXPECT_TRUE(adopted.empty());
  EXPECT_EQ(takeHealth(), std::vector{recovering});
  publish(2);
  events.fire();
  EXPECT_EQ(takeAdopted(), (std::vector<double>{2}));
  EXPECT_EQ(takeHealth(), std::vector{healthy});
}

TEST_F(EnforcementDirectiveWatcherTest, keepsTheAdoptedDirectiveWhenTheFileIsDamaged) {
  publish(1);
  start();
  takeAdopted();
  takeHealth();
  for (const char* const content :
       {"", R"({"publishedAt":7)", "{}", "null",
        R"({"scope":{"generation":1,"domains":["a b"]},"publishedAt":7})"}) {
    SCOPED_TRACE(content);
    disk.placeFile(path, content);
    events.fire();
    EXPECT_TRUE(adopted.empty());
    EXPECT_EQ(takeHealth(), std::vector{recovering});
    EXPECT_NE(watcher.lastReadError(), std::nullopt);
  }
  publish(2);
  events.fire();
  EXPECT_EQ(takeAdopted(), (std::vector<double>{2}));
  EXPECT_EQ(watcher.lastReadError(), std::nullopt);
}

TEST_F(EnforcementDirectiveWatcherTest, failsOpenWhenNothingReadableWasEverThere) {
  damage();
  start();
  EXPECT_EQ(takeHealth(), std::vector{failedOpen});
  EXPECT_TRUE(adopted.empty());
  disk.placeFile(path, "");
  events.fire();
  EXPECT_EQ(takeHealth(), std::vector{failedOpen});
  // A file that goes before it was ever read leaves what was: nothing.
  removeFile();
  events.fire();
  EXPECT_TRUE(takeHealth().empty());
  publish(1);
  events.fire();
  EXPECT_EQ(takeAdopted(), (std::vector<double>{1}));
  EXPECT_EQ(takeHealth(), std::vector{healthy});
}

TEST_F(EnforcementDirectiveWatcherTest, keepsTheAdoptedDirectiveWhenTheFileCannotBeRead) {
  publish(1);
  start();
  takeHealth();
  takeAdopted();
  disk.failCall(disk.calls().size(), std::errc::permission_denied);
  events.fire();
  EXPECT_TRUE(adopted.empty());
  EXPECT_EQ(takeHealth(), std::vector{recovering});
  EXPECT_EQ(watcher.lastReadError(),
            EnforcementDirectiveError{
                "Could not read /state/enforcement-directive.json: Permission denied"});
}

TEST_F(EnforcementDirectiveWatcherTest, missesNothingThatIsPublishedWhileItStarts) {
  publish(1);
  events.duringStart = [this] { publish(2); };
  start();
  EXPECT_EQ(takeAdopted(), (std::vector<double>{2}));
}

TEST_F(EnforcementDirectiveWatcherTest, handsOverTheNewestLastWhenAnEventComesDuringAReload) {
  publish(1);
  duringHandler = [this] {
    publish(2);
    events.fire();
    // Not before the older one was dealt with.
    EXPECT_EQ(adopted.size(), 1U);
  };
  start();
  EXPECT_EQ(takeAdopted(), (std::vector<double>{1, 2}));
  EXPECT_EQ(takeHealth(), (std::vector{healthy, healthy}));
}

TEST_F(EnforcementDirectiveWatcherTest, standsWithWhatItReadWhereNothingCanBeWatched) {
  events.failure = std::make_error_code(std::errc::permission_denied);
  publish(1);
  EXPECT_EQ(watcher.start(), std::unexpected(std::make_error_code(std::errc::permission_denied)));
  EXPECT_EQ(takeAdopted(), (std::vector<double>{1}));
}

TEST_F(EnforcementDirectiveWatcherTest, startsOnceAndStopsOnce) {
  start();
  start();
  EXPECT_EQ(events.starts, 1);
  watcher.stop();
  EXPECT_FALSE(events.isStarted());
  watcher.stop();
  EXPECT_EQ(events.stops, 1);
}

TEST_F(EnforcementDirectiveWatcherTest, remembersAcrossAStopThatSomethingWasAdopted) {
  publish(1);
  start();
  watcher.stop();
  takeHealth();
  takeAdopted();
  publish(2);
  EXPECT_TRUE(adopted.empty());
  removeFile();
  start();
  EXPECT_EQ(takeHealth(), std::vector{recovering});
}

TEST_F(EnforcementDirectiveWatcherTest, stopsWhenItIsReleased) {
  {
    EnforcementDirectiveWatcher other(
        store, events, [](const EnforcementDirective&) {}, [](const EnforcementHealthStatus&) {});
    ASSERT_TRUE(other.start().has_value());
    EXPECT_TRUE(events.isStarted());
  }
  EXPECT_FALSE(events.isStarted());
}

}  // namespace
}  // namespace stillow::filtering
