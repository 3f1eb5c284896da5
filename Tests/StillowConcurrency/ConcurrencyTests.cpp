#include <string>
#include <vector>

#include <boost/asio/post.hpp>
#include <boost/asio/use_future.hpp>
#include <gtest/gtest.h>

#include "StillowConcurrency/Channel.hpp"
#include "StillowConcurrency/Deadline.hpp"
#include "StillowConcurrency/OneShot.hpp"
#include "StillowConcurrency/Strand.hpp"
#include "StillowConcurrency/ThreadBlockingExecutor.hpp"
#include "StillowConcurrency/Turn.hpp"
#include "TestSupport/DeterministicExecutor.hpp"

namespace stillow::concurrency {
namespace {

using namespace std::chrono_literals;
using test::DeterministicExecutor;

TEST(OneShot, givesTheFirstValueWhetherItCameBeforeOrAfterTheWait) {
  DeterministicExecutor world;
  OneShot<int> before;
  EXPECT_TRUE(before.settle(1));
  EXPECT_FALSE(before.settle(2));
  EXPECT_EQ(world.run(before.wait()), 1);

  OneShot<int> after;
  const auto result = world.start(after.wait());
  world.runReady();
  EXPECT_FALSE(result->has_value());
  EXPECT_TRUE(after.settle(3));
  EXPECT_FALSE(after.settle(4));
  world.runReady();
  EXPECT_EQ(*result, 3);
}

TEST(OneShot, isWaitedForInVainWithoutLeaking) {
  DeterministicExecutor world;
  const auto result = world.start(OneShot<int>().wait());
  world.runReady();
  EXPECT_FALSE(result->has_value());
}

Task<void> takeTurn(Turn& turn, std::shared_ptr<Sleeper> sleeper, int id, std::vector<int>& order) {
  const Turn::Holder holder = co_await turn.take();
  order.push_back(id);
  (void)co_await sleeper->sleep(1s, {});
  order.push_back(id);
}

TEST(Turn, letsInOneTaskAtATimeInOrderOfArrival) {
  DeterministicExecutor world(7);
  Turn turn;
  std::vector<int> order;
  for (int id = 0; id < 4; ++id) {
    spawn(world.executor(), takeTurn(turn, world.sleeper(), id, order));
    world.runReady();
  }
  world.advance(10s);
  EXPECT_EQ(order, (std::vector{0, 0, 1, 1, 2, 2, 3, 3}));
}

TEST(Sleeper, wakesAtItsMomentAndEndsPromptlyWhenCancelled) {
  DeterministicExecutor world;
  const Cancellation cancellation;
  const auto slept = world.start(world.sleeper()->sleep(5s, {}));
  const auto cancelled = world.start(world.sleeper()->sleep(5s, cancellation));
  world.advance(4s);
  EXPECT_FALSE(slept->has_value());
  cancellation.cancel();
  world.runReady();
  EXPECT_EQ(*cancelled, SleepOutcome::cancelled);
  world.advance(1s);
  EXPECT_EQ(*slept, SleepOutcome::elapsed);
  EXPECT_EQ(world.sleeperCount(), 0U);
  EXPECT_EQ(world.run(world.sleeper()->sleep(5s, cancellation)), SleepOutcome::cancelled);
}

TEST(Channel, keepsOnlyTheNewestValuesAndEndsAfterThem) {
  DeterministicExecutor world;
  Channel<int> channel(2);
  for (const int value : {1, 2, 3}) channel.give(value);
  channel.finish();
  EXPECT_FALSE(channel.give(4));
  EXPECT_EQ(world.run(channel.next()), 2);
  EXPECT_EQ(world.run(channel.next()), 3);
  EXPECT_EQ(world.run(channel.next()), std::nullopt);
}

TEST(Channel, resumesAWaitingReader) {
  DeterministicExecutor world;
  Channel<std::string> channel(1);
  const auto value = world.start(channel.next());
  world.runReady();
  channel.give("now");
  world.runReady();
  EXPECT_EQ(**value, "now");
}

TEST(within, givesTheResultOrNoneAtTheLimit) {
  DeterministicExecutor world;
  OneShot<int> quick;
  quick.settle(1);
  EXPECT_EQ(world.run(within(5s, world.sleeper(), quick.wait())), 1);
  EXPECT_EQ(world.sleeperCount(), 0U);

  const OneShot<int> slow;
  const auto result = world.start(within(5s, world.sleeper(), slow.wait()));
  world.advance(5s);
  ASSERT_TRUE(result->has_value());
  EXPECT_EQ(**result, std::nullopt);
  slow.settle(2);
  world.runReady();
}

struct Counter {
  Strand strand;
  int value = 0;

  Task<int> increment() { return strand.run(body()); }
  Task<int> body() { co_return ++value; }
};

TEST(Strand, runsBodiesAndReturnsTheirResults) {
  DeterministicExecutor world;
  Counter counter{Strand(world.executor())};
  EXPECT_EQ(world.run(counter.increment()), 1);
  EXPECT_EQ(world.run(counter.increment()), 2);
}

TEST(DeterministicExecutor, repeatsARunFromItsSeedAndVariesWithIt) {
  const auto runOnce = [](std::uint64_t seed) {
    DeterministicExecutor world(seed);
    std::string order;
    for (char c = 'a'; c < 'i'; ++c) {
      boost::asio::post(world.executor(), [&order, c] { order += c; });
    }
    world.runReady();
    return order;
  };
  EXPECT_EQ(runOnce(1), runOnce(1));
  EXPECT_NE(runOnce(1), runOnce(2));
}

TEST(ThreadBlockingExecutor, runsWorkOffTheExecutorOfTheCaller) {
  // One thread of its own, so that work comes in order of submission.
  const auto blocking = std::make_shared<ThreadBlockingExecutor>(1);
  std::vector<int> order;
  OneShot<int> last;
  for (int i = 0; i < 100; ++i) blocking->submit([&order, i] { order.push_back(i); });
  boost::asio::thread_pool pool(1);
  auto done = boost::asio::co_spawn(
      pool,
      runBlocking(std::shared_ptr<BlockingExecutor>(blocking), [&order] { return order.size(); }),
      boost::asio::use_future);
  EXPECT_EQ(done.get(), 100U);
}

}  // namespace
}  // namespace stillow::concurrency
