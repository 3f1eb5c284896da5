#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "PlatformLinuxIPC/ByteBudget.hpp"
#include "PlatformLinuxIPC/ConnectionLedger.hpp"
#include "PlatformLinuxIPC/FairGate.hpp"
#include "PlatformLinuxIPC/OutgoingQueue.hpp"
#include "TestSupport/DeterministicExecutor.hpp"

namespace stillow::platform {
namespace {

using concurrency::Cancellation;
using concurrency::Task;
using Charge = ByteBudget::Charge;

ipc::SharedBytes bytes(std::size_t count) {
  return std::make_shared<const std::string>(count, 'x');
}

// ---- ByteBudget

TEST(ByteBudget, countsSharedBytesOnce) {
  const auto budget = ByteBudget::make(1'000);
  const auto one = budget->open([] { FAIL(); });
  const auto two = budget->open([] { FAIL(); });
  auto shared = bytes(600);
  {
    const Charge first(one, 10, shared);
    const Charge again(one, 10, shared);
    const Charge second(two, 20, shared);
    EXPECT_EQ(budget->bytesUsed(), 640U);
    {
      const auto reserved = budget->reserve(300);
      EXPECT_EQ(budget->bytesUsed(), 940U);
    }
    EXPECT_EQ(budget->bytesUsed(), 640U);
  }
  EXPECT_EQ(budget->bytesUsed(), 0U);
}

TEST(ByteBudget, keepsSharedBytesAliveWhileTheyAreCharged) {
  const auto budget = ByteBudget::make(1'000);
  const auto account = budget->open([] {});
  auto shared = bytes(10);
  const std::weak_ptr<const std::string> weak = shared;
  std::optional<Charge> charge(std::in_place, account, 0, std::move(shared));
  EXPECT_FALSE(weak.expired());
  charge.reset();
  EXPECT_TRUE(weak.expired());
}

TEST(ByteBudget, evictsTheOneWhoKeepsTheMostAndNobodyElse) {
  const auto budget = ByteBudget::make(1'000);
  std::vector<std::string> evicted;
  const auto small = budget->open([&] { evicted.push_back("small"); });
  const auto large = budget->open([&] { evicted.push_back("large"); });
  const auto other = budget->open([&] { evicted.push_back("other"); });
  const Charge smallText(small, 300, nullptr);
  std::optional<Charge> largeText(std::in_place, large, 100, bytes(400));
  EXPECT_TRUE(evicted.empty());
  const Charge otherText(other, 201, nullptr);
  EXPECT_EQ(evicted, std::vector<std::string>{"large"});
  EXPECT_EQ(budget->bytesUsed(), 501U);
  // Whoever was evicted counts no more, whatever it does until it is gone, and is told once.
  const Charge late(large, 5'000, bytes(5'000));
  EXPECT_EQ(budget->bytesUsed(), 501U);
  largeText.reset();
  EXPECT_EQ(budget->bytesUsed(), 501U);
  EXPECT_EQ(evicted.size(), 1U);
}

TEST(ByteBudget, evictsNobodyForWhatIsOnlyReserved) {
  const auto budget = ByteBudget::make(100);
  int evictions = 0;
  const auto account = budget->open([&] { ++evictions; });
  const auto reserved = budget->reserve(500);
  EXPECT_EQ(evictions, 0);
  const Charge text(account, 1, nullptr);
  EXPECT_EQ(evictions, 1);
  EXPECT_EQ(budget->bytesUsed(), 500U);
}

TEST(ByteBudget, movesAChargeWithItsText) {
  const auto budget = ByteBudget::make(100);
  const auto account = budget->open([] {});
  Charge second;
  {
    Charge first(account, 10, bytes(20));
    second = std::move(first);
  }
  EXPECT_EQ(budget->bytesUsed(), 30U);
  second = Charge();
  EXPECT_EQ(budget->bytesUsed(), 0U);
}

// ---- ConnectionLedger

constexpr ConnectionLedger::Limits ledgerLimits{.connectionsMax = 3,
                                                .connectionsPerUserMax = 2,
                                                .callsPerUserMax = 2,
                                                .callsMax = 3,
                                                .requestBytesPerUserMax = 100,
                                                .requestBytesMax = 150};

TEST(ConnectionLedger, countsConnectionsOfOneUserAndOfAll) {
  const auto ledger = std::make_shared<ConnectionLedger>(ledgerLimits);
  auto first = ledger->addConnection(1);
  const auto second = ledger->addConnection(1);
  EXPECT_EQ(ledger->addConnection(1), nullptr);
  const auto third = ledger->addConnection(2);
  EXPECT_EQ(ledger->addConnection(3), nullptr);
  EXPECT_EQ(ledger->connections(), 3U);
  first = nullptr;
  EXPECT_NE(ledger->addConnection(1), nullptr);
}

TEST(ConnectionLedger, namesTheLimitThatACallIsOver) {
  using enum ConnectionLedger::CallLimit;
  const auto ledger = std::make_shared<ConnectionLedger>(ledgerLimits);
  auto first = ledger->addCall(1, 100);
  ASSERT_TRUE(first.has_value());
  EXPECT_EQ(ledger->addCall(1, 1).error(), requestBytesOfUser);
  auto second = ledger->addCall(1, 0);
  ASSERT_TRUE(second.has_value());
  EXPECT_EQ(ledger->addCall(1, 0).error(), callsOfUser);
  EXPECT_EQ(ledger->addCall(2, 51).error(), requestBytes);
  const auto third = ledger->addCall(2, 50);
  ASSERT_TRUE(third.has_value());
  EXPECT_EQ(ledger->addCall(3, 0).error(), calls);
  EXPECT_EQ(ledger->calls(), 3U);
  first->reset();
  EXPECT_TRUE(ledger->addCall(3, 100).has_value());
}

// ---- FairGate

class FairGateTest : public testing::Test {
 protected:
  using Pass = std::shared_ptr<FairGate::Pass>;
  /// Somebody who has come to the gate.
  struct Visitor {
    std::optional<Pass> pass;
    Cancellation givesUp;
    [[nodiscard]] bool isInside() const { return pass && *pass; }
    void leave() { pass.reset(); }
  };

  std::shared_ptr<Visitor> come(uid_t user) {
    const auto visitor = std::make_shared<Visitor>();
    concurrency::spawn(executor.executor(), enter(gate, user, visitor));
    executor.runReady();
    return visitor;
  }
  static Task<void> enter(FairGate gate, uid_t user, std::shared_ptr<Visitor> visitor) {
    auto pass = co_await gate.enter(user, visitor->givesUp);
    visitor->pass.emplace(std::move(pass));
  }
  void leave(Visitor& visitor) {
    visitor.leave();
    executor.runReady();
  }

  test::DeterministicExecutor executor{1};
  FairGate gate{3, 2};
};

TEST_F(FairGateTest, keepsAUserOfManyFromTheWayOfOthers) {
  const auto first = come(1);
  const auto second = come(1);
  const auto third = come(1);
  const auto other = come(2);
  EXPECT_TRUE(first->isInside() && second->isInside() && other->isInside());
  EXPECT_FALSE(third->isInside());
  const auto late = come(3);
  EXPECT_FALSE(late->isInside());
  EXPECT_EQ(gate.waiting(), 2U);
  leave(*other);
  EXPECT_TRUE(late->isInside());
  EXPECT_FALSE(third->isInside());
  leave(*first);
  EXPECT_TRUE(third->isInside());
  EXPECT_EQ(gate.waiting(), 0U);
}

TEST_F(FairGateTest, letsInWhoWaitsLongestAmongThoseWhoMay) {
  std::vector<std::shared_ptr<Visitor>> inside{come(1), come(2), come(3)};
  const auto first = come(4);
  const auto second = come(5);
  leave(*inside[0]);
  EXPECT_TRUE(first->isInside());
  EXPECT_FALSE(second->isInside());
  leave(*inside[1]);
  EXPECT_TRUE(second->isInside());
}

TEST_F(FairGateTest, forgetsWhoeverGivesUp) {
  std::vector<std::shared_ptr<Visitor>> inside{come(1), come(2), come(3)};
  const auto impatient = come(4);
  const auto patient = come(5);
  impatient->givesUp.cancel();
  executor.runReady();
  ASSERT_TRUE(impatient->pass.has_value());
  EXPECT_FALSE(impatient->isInside());
  EXPECT_EQ(gate.waiting(), 1U);
  leave(*inside[0]);
  EXPECT_TRUE(patient->isInside());
  // Too late to give up what it has.
  patient->givesUp.cancel();
  executor.runReady();
  EXPECT_TRUE(patient->isInside());
}

// ---- OutgoingQueue

OutgoingLine lineOf(std::string text, const std::shared_ptr<ByteBudget::Account>& account) {
  std::vector<rpc::Text> texts;
  texts.push_back({.head = std::move(text), .body = nullptr, .tail = ""});
  return OutgoingLine::of(std::move(texts), false, 1, account);
}

class OutgoingQueueTest : public testing::Test {
 protected:
  std::string taken(std::size_t textsMax) {
    std::string all;
    for (const auto& line : queue.take(textsMax)) {
      for (const auto& text : line.texts) all += text.string();
    }
    return all;
  }
  std::shared_ptr<ByteBudget> budget = ByteBudget::make(100'000);
  std::shared_ptr<ByteBudget::Account> account = budget->open([] {});
  OutgoingQueue queue;
};

TEST_F(OutgoingQueueTest, keepsOnlyTheNewestPushBehindEveryAnswerBeforeIt) {
  queue.append(lineOf("answer 1", account));
  queue.appendPush(lineOf("push 1", account));
  queue.append(lineOf("answer 2", account));
  queue.appendPush(lineOf("push 2", account));
  queue.append(lineOf("answer 3", account));
  EXPECT_EQ(taken(10), "answer 1\nanswer 2\npush 2\nanswer 3\n");
  EXPECT_TRUE(queue.empty());
  EXPECT_EQ(budget->bytesUsed(), 0U);
}

TEST_F(OutgoingQueueTest, doesNotTakeBackAPushThatIsBeingWritten) {
  queue.appendPush(lineOf("push 1", account));
  EXPECT_EQ(taken(10), "push 1\n");
  queue.appendPush(lineOf("push 2", account));
  queue.appendPush(lineOf("push 3", account));
  EXPECT_EQ(taken(10), "push 3\n");
}

TEST_F(OutgoingQueueTest, isTakenAFewTextsAtATime) {
  for (int index = 0; index < 5; ++index) queue.append(lineOf(std::to_string(index), account));
  EXPECT_EQ(taken(2), "0\n1\n");
  EXPECT_EQ(taken(0), "2\n");
  queue.clear();
  EXPECT_TRUE(queue.empty());
  EXPECT_EQ(budget->bytesUsed(), 0U);
}

TEST_F(OutgoingQueueTest, writesABatchAsOneLine) {
  std::vector<rpc::Text> texts;
  for (const char* head : {"1", "2", "3"}) {
    texts.push_back({.head = head, .body = bytes(1), .tail = "."});
  }
  queue.append(OutgoingLine::of(std::move(texts), true, 3, account));
  EXPECT_EQ(taken(1), "[1x.,2x.,3x.]\n");
}

}  // namespace
}  // namespace stillow::platform
