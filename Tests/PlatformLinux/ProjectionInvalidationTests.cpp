#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "DescriptorTesting.hpp"
#include "PlatformLinuxDaemon/SystemProjectionInvalidationSource.hpp"
#include "TestSupport/TemporaryDirectory.hpp"

namespace stillow::platform {
namespace {

using authority::ProjectionInvalidation;
using concurrency::Channel;
using concurrency::Task;
using test::TemporaryDirectory;
using testing::openDescriptors;

/// Stands in for the timer, because no test may set the clock of the machine.
class EventClockChangeNotifier final : public ClockChangeNotifying {
 public:
  core::FileDescriptor open() override {
    return core::FileDescriptor(::fcntl(event_.get(), F_DUPFD_CLOEXEC, 0));
  }
  bool takeChange(int descriptor) override {
    ++asked;
    std::uint64_t count = 0;
    return ::read(descriptor, &count, sizeof count) == sizeof count && isRealChange;
  }
  void change() {
    const std::uint64_t one = 1;
    ASSERT_EQ(::write(event_.get(), &one, sizeof one), static_cast<ssize_t>(sizeof one));
  }

  bool isRealChange = true;
  int asked = 0;

 private:
  core::FileDescriptor event_{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
};

struct InvalidationWorld {
  InvalidationWorld() {
    link("/usr/share/zoneinfo/UTC");
    const boost::asio::steady_timer first(context);  // makes the context open its own descriptors
    descriptorsBefore = openDescriptors();
    source = std::make_unique<SystemProjectionInvalidationSource>(
        context.get_executor(), clock, TimeZoneLink{directory.path(), "localtime"});
  }

  /// As a tool that changes the zone does it: a new link beside, renamed over the old one.
  void link(const std::string& target) {
    std::filesystem::create_symlink(target, directory.path("localtime.new"));
    std::filesystem::rename(directory.path("localtime.new"), directory.path("localtime"));
  }
  std::optional<ProjectionInvalidation> next(Channel<ProjectionInvalidation> stream) {
    bool isDone = false;
    std::optional<ProjectionInvalidation> received;
    concurrency::spawn(context.get_executor(), receive(stream, &received, &isDone));
    context.restart();  // it stops whenever there is nothing left to do
    while (!isDone && context.run_one() > 0) continue;
    EXPECT_TRUE(isDone) << "nothing can come any more";
    return received;
  }
  static Task<void> receive(Channel<ProjectionInvalidation> stream,
                            std::optional<ProjectionInvalidation>* into, bool* isDone) {
    *into = co_await stream.next();
    *isDone = true;
  }
  /// Everything that has happened so far is in the stream afterwards.
  std::vector<ProjectionInvalidation> ready(const Channel<ProjectionInvalidation>& stream) {
    context.restart();
    context.poll();
    std::vector<ProjectionInvalidation> all;
    while (auto one = stream.takeReady()) all.push_back(*one);
    return all;
  }

  TemporaryDirectory directory;
  boost::asio::io_context context;
  std::size_t descriptorsBefore = 0;
  std::shared_ptr<EventClockChangeNotifier> clock = std::make_shared<EventClockChangeNotifier>();
  std::unique_ptr<SystemProjectionInvalidationSource> source;
};

TEST(SystemProjectionInvalidationSource, tellsOfAClockThatWasSet) {
  InvalidationWorld world;
  const auto stream = world.source->invalidations();
  world.clock->change();
  EXPECT_EQ(world.next(stream), ProjectionInvalidation::systemClockChanged);
  EXPECT_TRUE(world.ready(stream).empty());
  world.clock->change();
  EXPECT_EQ(world.next(stream), ProjectionInvalidation::systemClockChanged);
}

TEST(SystemProjectionInvalidationSource, doesNotTakeEveryWakeUpForAChange) {
  InvalidationWorld world;
  const auto stream = world.source->invalidations();
  world.clock->isRealChange = false;
  world.clock->change();
  EXPECT_TRUE(world.ready(stream).empty());
  EXPECT_EQ(world.clock->asked, 1) << "and waits for the next one, not in a loop";
}

TEST(SystemProjectionInvalidationSource, tellsOfAZoneLinkThatWasReplacedMadeOrRemoved) {
  InvalidationWorld world;
  const auto stream = world.source->invalidations();
  const std::vector changed{ProjectionInvalidation::timeZoneChanged};
  EXPECT_TRUE(world.ready(stream).empty());
  world.link("/usr/share/zoneinfo/Europe/Berlin");
  EXPECT_EQ(world.ready(stream), changed);
  std::filesystem::remove(world.directory.path("localtime"));
  EXPECT_EQ(world.ready(stream), changed);
  std::filesystem::create_symlink("/usr/share/zoneinfo/UTC", world.directory.path("localtime"));
  EXPECT_EQ(world.ready(stream), changed);
  std::filesystem::remove(world.directory.path("localtime"));
  (void)world.ready(stream);
  std::ofstream(world.directory.path("localtime")) << "a copy of a zone file";
  EXPECT_EQ(world.ready(stream), changed);
}

TEST(SystemProjectionInvalidationSource, isIndifferentToOtherNamesInTheDirectory) {
  InvalidationWorld world;
  const auto stream = world.source->invalidations();
  for (const char* const name : {"passwd", "localtime.bak", "local", "localtim"}) {
    std::ofstream(world.directory.path(name)) << name;
    std::filesystem::remove(world.directory.path(name));
  }
  EXPECT_TRUE(world.ready(stream).empty());
  world.link("/usr/share/zoneinfo/Asia/Tokyo");
  EXPECT_EQ(world.ready(stream).size(), 1U);
}

TEST(SystemProjectionInvalidationSource, tellsOnceOfAChangeAmongThousandsOfOthers) {
  InvalidationWorld world;
  const auto stream = world.source->invalidations();
  for (int i = 0; i < 2'000; ++i) {
    const std::string path = world.directory.path("file-with-a-rather-long-name");
    std::ofstream{path};
    std::filesystem::remove(path);
    if (i == 1'000) world.link("/usr/share/zoneinfo/Asia/Tokyo");
  }
  EXPECT_EQ(world.ready(stream).size(), 1U);
}

TEST(SystemProjectionInvalidationSource, keepsTheNewestForAReaderThatDoesNotCome) {
  InvalidationWorld world;
  const auto stream = world.source->invalidations();
  for (int i = 0; i < 50; ++i) {
    world.clock->change();
    world.context.restart();
    world.context.poll();
  }
  EXPECT_EQ(world.ready(stream).size(), SystemProjectionInvalidationSource::pendingMax);
}

TEST(SystemProjectionInvalidationSource, givesEveryStreamWhatHappens) {
  InvalidationWorld world;
  const auto first = world.source->invalidations();
  const auto second = world.source->invalidations();
  world.link("/usr/share/zoneinfo/Asia/Tokyo");
  EXPECT_EQ(world.ready(first).size(), 1U);
  EXPECT_EQ(world.ready(second).size(), 1U);
}

TEST(SystemProjectionInvalidationSource, endsItsStreamsAndClosesTheirDescriptorsWithItself) {
  InvalidationWorld world;
  const auto stream = world.source->invalidations();
  world.context.poll();
  EXPECT_GT(openDescriptors(), world.descriptorsBefore);
  world.source.reset();
  EXPECT_TRUE(stream.isFinished());
  world.context.restart();
  world.context.run();  // returns: nothing waits any more
  EXPECT_EQ(world.next(stream), std::nullopt);
  EXPECT_EQ(openDescriptors(), world.descriptorsBefore);
}

TEST(SystemProjectionInvalidationSource, stopsWatchingAtTheEventAfterItsStreamWasFinished) {
  InvalidationWorld world;
  const auto stream = world.source->invalidations();
  stream.finish();
  world.clock->change();
  world.context.restart();
  world.context.run();
  EXPECT_EQ(openDescriptors(), world.descriptorsBefore);
}

TEST(SystemProjectionInvalidationSource, tellsOfTheClockWhereNoZoneCanBeWatched) {
  InvalidationWorld world;
  SystemProjectionInvalidationSource source(world.context.get_executor(), world.clock,
                                            {world.directory.path("missing"), "localtime"});
  const auto stream = source.invalidations();
  world.clock->change();
  EXPECT_EQ(world.next(stream), ProjectionInvalidation::systemClockChanged);
}

TEST(TimerClockChangeNotifier, setsARealTimeTimerThatTheKernelCancelsWhenTheClockIsSet) {
  TimerClockChangeNotifier notifier;
  // Absolute, and cancelled on set.
  const std::vector<std::string> lines{"clockid: 0\n", "settime flags: 03\n"};
  ASSERT_EQ(testing::descriptorsWith(lines), 0U);
  const core::FileDescriptor timer = notifier.open();
  ASSERT_TRUE(timer);
  EXPECT_EQ(testing::descriptorsWith(lines), 1U);
  EXPECT_NE(::fcntl(timer.get(), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_FALSE(notifier.takeChange(timer.get())) << "nobody has set the clock";
}

}  // namespace
}  // namespace stillow::platform
