#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_future.hpp>
#include <gtest/gtest.h>

#include "NamespaceTesting.hpp"
#include "PeerTestProcess.hpp"
#include "PlatformLinuxDaemon/BoottimeSleeper.hpp"
#include "PlatformLinuxDaemon/SystemFilterPathObserver.hpp"
#include "TestSupport/TemporaryDirectory.hpp"

namespace stillow::platform {
namespace {

using authority::FilterPathObservation;
using stillow::test::TemporaryDirectory;
using testing::inOwnNamespaces;
using testing::shell;

PinnedProcess pinned(const test::ChildProcess& child) {
  auto process = PinnedProcess::withID(child.pid());
  EXPECT_TRUE(process) << process.error();
  return std::move(*process);
}

test::ChildProcess sleeping() { return test::spawn("/bin/sleep", "600"); }

/// An observer on a real thread, with a directive in a directory of its own.
class Observing {
 public:
  ~Observing() {
    observer.reset();
    pool.join();
  }

  /// The next observation; none if there is none within half a minute.
  std::optional<FilterPathObservation> next() {
    auto future = boost::asio::co_spawn(pool, channel.next(), boost::asio::use_future);
    if (future.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
      channel.finish();
      ADD_FAILURE() << "nothing was observed";
    }
    return future.get();
  }
  /// Returns when everything that the kernel had to tell by now was taken: the one thread takes
  /// events in the order in which they came, and a timer's comes last.
  void settle() {
    const auto sleeper = std::make_shared<BoottimeSleeper>(pool.get_executor());
    (void)boost::asio::co_spawn(
        pool, sleeper->sleep(std::chrono::milliseconds(1), concurrency::Cancellation()),
        boost::asio::use_future)
        .get();
  }

  TemporaryDirectory directory;
  std::string directive = directory.path("enforcement-directive.json");
  boost::asio::thread_pool pool{1};
  std::unique_ptr<SystemFilterPathObserver> observer =
      std::make_unique<SystemFilterPathObserver>(pool.get_executor(), directive);
  std::shared_ptr<FilterProcessWatch> watch = observer->processWatch();
  concurrency::Channel<FilterPathObservation> channel = observer->observations();
};

TEST(FilterProcessWatch, tellsTheEndOfTheProcessThatItFollows) {
  Observing observing;
  EXPECT_FALSE(observing.watch->isFollowing());
  auto filter = sleeping();
  observing.watch->follow(pinned(filter));
  filter.kill();
  EXPECT_EQ(observing.next(), (FilterPathObservation{.filterEndings = 1}));
  EXPECT_FALSE(observing.watch->isFollowing());
}

TEST(FilterProcessWatch, tellsTheEndOfAProcessThatHadEndedBeforeItWasFollowed) {
  Observing observing;
  auto filter = sleeping();
  auto process = pinned(filter);
  filter.kill();
  observing.watch->follow(std::move(process));
  EXPECT_EQ(observing.next(), (FilterPathObservation{.filterEndings = 1}));
}

TEST(FilterProcessWatch, tellsEachEndOnceHoweverOftenTheProcessIsGiven) {
  Observing observing;
  auto filter = sleeping();
  for (int times = 0; times < 5; ++times) observing.watch->follow(pinned(filter));
  filter.kill();
  EXPECT_EQ(observing.next(), (FilterPathObservation{.filterEndings = 1}));
  EXPECT_EQ(observing.channel.takeReady(), std::nullopt);
}

TEST(FilterProcessWatch, tellsTheEndOfThePredecessorWhenTheNextOneIsFollowed) {
  Observing observing;
  auto first = sleeping();
  auto second = sleeping();
  observing.watch->follow(pinned(first));
  auto next = pinned(second);
  first.kill();
  observing.watch->follow(std::move(next));
  EXPECT_EQ(observing.next()->filterEndings, 1U);
  second.kill();
  EXPECT_EQ(observing.next()->filterEndings, 2U);
}

TEST(FilterProcessWatch, doesNotCountTheLaterEndOfAProcessThatAnotherReplaced) {
  Observing observing;
  auto first = sleeping();
  auto second = sleeping();
  observing.watch->follow(pinned(first));
  observing.watch->follow(pinned(second));
  second.kill();
  EXPECT_EQ(observing.next()->filterEndings, 1U);
  first.kill();
  auto third = sleeping();
  observing.watch->follow(pinned(third));
  third.kill();
  EXPECT_EQ(observing.next()->filterEndings, 2U);
}

// Timers that expire just as they are closed must not be taken for the end of a process.
TEST(FilterProcessWatch, takesNoEventOfAnotherDescriptorForTheEndOfItsProcess) {
  // They end only when nobody can hear of it any more.
  auto first = sleeping();
  auto second = sleeping();
  std::atomic<int> endings = 0;
  boost::asio::thread_pool pool(4);
  {
    FilterProcessWatch watch(pool.get_executor(), [&endings] { ++endings; });
    const auto sleeper = std::make_shared<BoottimeSleeper>(pool.get_executor());
    constexpr int rounds = 1'500;
    constexpr int sleepsOfARound = 16;
    for (int round = 0; round < rounds; ++round) {
      const concurrency::Cancellation end;
      std::vector<std::future<concurrency::SleepOutcome>> sleeps;
      for (int index = 0; index < sleepsOfARound; ++index) {
        sleeps.push_back(boost::asio::co_spawn(
            pool, sleeper->sleep(std::chrono::microseconds((round * 37 + index * 23) % 300), end),
            boost::asio::use_future));
        // Each takes a descriptor up that was closed a moment ago.
        if (index % 2 == 0) watch.follow(pinned(index % 4 == 0 ? first : second));
      }
      end.cancel();
      for (auto& sleep : sleeps) (void)sleep.get();
    }
  }
  pool.join();
  EXPECT_EQ(endings, 0);
}

TEST(SystemFilterPathObserver, tellsWhenSomebodyOpensTheDirectiveWhileNoFilterRuns) {
  Observing observing;
  EXPECT_EQ(observing.observer->problems(), "");
  std::ofstream(observing.directive) << "{}";
  EXPECT_EQ(observing.next()->filterBeginnings, 1U);
  shell("cat " + observing.directive + " > /dev/null");
  EXPECT_EQ(observing.next()->filterBeginnings, 2U);
}

TEST(SystemFilterPathObserver, isNotMovedByOtherFilesOrByTheFilterThatIsKnown) {
  Observing observing;
  std::ofstream(observing.directory.path("commitment-checkpoint.json")) << "{}";
  auto filter = sleeping();
  observing.watch->follow(pinned(filter));
  while (!observing.watch->isFollowing()) std::this_thread::yield();
  std::ofstream(observing.directive) << "{}";
  shell("cat " + observing.directive + " > /dev/null");
  observing.settle();
  filter.kill();
  EXPECT_EQ(observing.next(), (FilterPathObservation{.filterEndings = 1}));
}

TEST(SystemFilterPathObserver, tellsWhenRulesAreDeleted) {
  inOwnNamespaces([] {
    shell("iptables -t mangle -A OUTPUT -j MARK --set-mark 1");
    Observing observing;
    ASSERT_EQ(observing.observer->problems(), "");
    shell("iptables -t mangle -F OUTPUT");
    EXPECT_EQ(observing.next()->configurationChanges, 1U);
  });
}

TEST(SystemFilterPathObserver, isNotMovedByRulesThatAreAdded) {
  inOwnNamespaces([] {
    shell("iptables -t mangle -A OUTPUT -j MARK --set-mark 1");
    Observing observing;
    shell("iptables -t mangle -A OUTPUT -j MARK --set-mark 2");
    shell("ip6tables -t filter -N OTHER");
    observing.settle();
    auto filter = sleeping();
    observing.watch->follow(pinned(filter));
    filter.kill();
    EXPECT_EQ(observing.next(), (FilterPathObservation{.filterEndings = 1}));
  });
}

TEST(SystemFilterPathObserver, losesNoCountWhenTheReaderIsSlow) {
  inOwnNamespaces([] {
    Observing observing;
    for (int filters = 0; filters < 5; ++filters) {
      auto filter = sleeping();
      observing.watch->follow(pinned(filter));
      filter.kill();
    }
    std::uint64_t endings = 0;
    while (endings < 5) {
      const auto observation = observing.next();
      ASSERT_TRUE(observation);
      endings = observation->filterEndings;
    }
    EXPECT_EQ(endings, 5U);
  });
}

TEST(SystemFilterPathObserver, saysWhatItCannotWatch) {
  boost::asio::thread_pool pool(1);
  {
    const SystemFilterPathObserver observer(pool.get_executor(), "/no/such/directory/file");
    EXPECT_EQ(observer.problems(),
              "A filter that starts is not noticed at once: No such file or directory.");
  }
  pool.join();
}

TEST(SystemFilterPathObserver, endsItsStreamsWhenItGoes) {
  Observing observing;
  observing.observer.reset();
  EXPECT_EQ(observing.next(), std::nullopt);
}

}  // namespace
}  // namespace stillow::platform
