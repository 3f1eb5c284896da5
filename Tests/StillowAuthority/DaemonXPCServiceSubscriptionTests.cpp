#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "DaemonXPCServiceTesting.hpp"

namespace stillow::authority {
namespace {

using ipc::DaemonOperation;
using testing::domains;
using testing::Message;
using testing::ServiceWorld;
using testing::start;
using Kind = Message::Kind;

struct DaemonXPCServiceSubscriptionTest : ServiceWorld, ::testing::Test {
  void SetUp() override { serve(); }
};

TEST_F(DaemonXPCServiceSubscriptionTest, answersWithThePresentStatusAndPushesEachChange) {
  const auto connection = connect();
  const auto first = call(connection, DaemonOperation::subscribeToStatusChanges);
  EXPECT_EQ(first.status(), status());
  EXPECT_TRUE(connection->messages->empty());
  ASSERT_TRUE(activate());
  executor.runReady();
  ASSERT_EQ(connection->messages->size(), 1U);
  EXPECT_EQ(connection->messages->at(0).kind, Kind::push);
  EXPECT_EQ(connection->messages->at(0).status(), status());
  ASSERT_TRUE(strengthen(domains({"b.example"})));
  executor.runReady();
  EXPECT_EQ(connection->messages->size(), 2U);
}

TEST_F(DaemonXPCServiceSubscriptionTest, pushesOnlyToThoseWhoSubscribed) {
  const auto quiet = connect();
  (void)call(quiet, DaemonOperation::status);
  const auto listening = subscriber();
  publish();
  EXPECT_TRUE(quiet->messages->empty());
  EXPECT_EQ(listening->messages->size(), 1U);
}

TEST_F(DaemonXPCServiceSubscriptionTest, leavesOneObserverToAConnectionThatSubscribesAgain) {
  const auto connection = subscriber();
  for (int again = 0; again < 5; ++again) {
    EXPECT_TRUE(call(connection, DaemonOperation::subscribeToStatusChanges).status());
  }
  publish();
  EXPECT_EQ(connection->messages->size(), 1U);
  // Held by this test, by the one observer's outlet, and by nobody else.
  EXPECT_EQ(connection.use_count(), 2);
}

TEST_F(DaemonXPCServiceSubscriptionTest, removesTheObserverOfAConnectionThatEnds) {
  const auto connection = subscriber();
  service->ended(connection->identity());
  executor.runReady();
  EXPECT_EQ(connection.use_count(), 1);
  publish();
  EXPECT_TRUE(connection->messages->empty());
  const auto later = subscriber();
  publish();
  EXPECT_EQ(later->messages->size(), 1U);
}

TEST_F(DaemonXPCServiceSubscriptionTest, encodesAStatusOnceForEverybody) {
  const auto first = subscriber();
  const auto second = subscriber();
  passValidation();
  const auto caller = std::make_shared<std::vector<Message>>();
  send(connect(), DaemonOperation::activate,
       testing::encoded(testing::activationRequest(domains({"a.example"}))), caller);
  executor.runReady();
  ASSERT_EQ(first->messages->size(), 1U);
  ASSERT_EQ(second->messages->size(), 1U);
  const auto* const bytes = first->messages->at(0).content.bytes.get();
  EXPECT_EQ(second->messages->at(0).content.bytes.get(), bytes);
  // The answer tells of the same moment.
  ASSERT_EQ(caller->size(), 1U);
  EXPECT_EQ(caller->at(0).content.bytes.get(), bytes);
}

TEST_F(DaemonXPCServiceSubscriptionTest, dropsAPushThatDoesNotEncode) {
  const auto connection = subscriber();
  setTime({std::nan("")});
  publish();
  EXPECT_TRUE(connection->messages->empty());
  setTime(start);
  publish();
  EXPECT_EQ(connection->messages->size(), 1U);
}

TEST(DaemonXPCServiceSubscriptions, leaveNothingBehindThemWhenTheyEndInTheMiddleOfAPush) {
  for (std::uint64_t seed = 0; seed < 100; ++seed) {
    SCOPED_TRACE(seed);
    ServiceWorld world(seed);
    world.serve();
    const auto connection = world.connect();
    (void)world.call(connection, DaemonOperation::subscribeToStatusChanges);
    (void)world.executor.start(world.authority->publishStatus());
    for (std::uint64_t step = 0; step < seed % 20; ++step) (void)world.executor.step();
    world.service->ended(connection->identity());
    world.executor.runReady();
    EXPECT_LE(connection->messages->size(), 1U);
    EXPECT_EQ(connection.use_count(), 1);
  }
}

TEST(DaemonXPCServiceSubscriptions, undoARegistrationWhoseConnectionEndsMeanwhile) {
  for (std::uint64_t seed = 0; seed < 300; ++seed) {
    SCOPED_TRACE(seed);
    ServiceWorld world(seed);
    world.serve();
    auto connection = world.connect();
    const auto messages = connection->messages;
    world.send(connection, DaemonOperation::subscribeToStatusChanges, std::nullopt, messages);
    for (std::uint64_t step = 0; step < seed % 15; ++step) (void)world.executor.step();
    world.service->ended(connection->identity());
    world.executor.runReady();
    EXPECT_EQ(connection.use_count(), 1);
    EXPECT_EQ(messages->size(), 1U);
    (void)world.run(world.authority->publishStatus());
    world.executor.runReady();
    EXPECT_EQ(messages->size(), 1U);
  }
}

// A client takes the answer for the truth and each push for a later one.
TEST(DaemonXPCServiceSubscriptions, answerBeforeAnyPushAndTellOfEveryChangeInOrder) {
  for (std::uint64_t seed = 0; seed < 300; ++seed) {
    SCOPED_TRACE(seed);
    ServiceWorld world(seed);
    world.serve();
    ASSERT_TRUE(world.activate());
    const auto connection = world.connect();
    // Each change shows in the Scope's generation.
    const auto change = [&](int number) {
      return world.executor.start(world.authority->strengthen(
          ipc::ScopeAddition::websites{domains({std::to_string(number) + ".example"})}));
    };
    for (int number = 0; number < 4; ++number) (void)change(number);
    world.send(connection, DaemonOperation::subscribeToStatusChanges, std::nullopt,
               connection->messages);
    for (int number = 4; number < 8; ++number) (void)change(number);
    world.executor.runReady();

    const auto& messages = *connection->messages;
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(messages[0].kind, Kind::answer);
    std::int64_t generation = 0;
    for (const Message& message : messages) {
      const auto status = message.status();
      ASSERT_TRUE(status);
      EXPECT_GT(status->active()->scopeGeneration, generation);
      generation = status->active()->scopeGeneration;
    }
    EXPECT_EQ(generation, world.status().active()->scopeGeneration);
  }
}

TEST(DaemonXPCServiceSubscriptions, pushNothingOldBehindTheAnswerToTheirSuccessor) {
  for (std::uint64_t seed = 0; seed < 300; ++seed) {
    SCOPED_TRACE(seed);
    ServiceWorld world(seed);
    world.serve();
    ASSERT_TRUE(world.activate());
    const auto connection = world.connect();
    (void)world.call(connection, DaemonOperation::subscribeToStatusChanges);
    for (int number = 0; number < 3; ++number) {
      (void)world.executor.start(world.authority->strengthen(
          ipc::ScopeAddition::websites{domains({std::to_string(number) + ".example"})}));
    }
    world.send(connection, DaemonOperation::subscribeToStatusChanges, std::nullopt,
               connection->messages);
    world.executor.runReady();
    std::int64_t generation = 0;
    for (const Message& message : *connection->messages) {
      const std::int64_t shown = message.status()->active()->scopeGeneration;
      // The second answer may show what a push before it showed; no push shows less than it.
      EXPECT_GE(shown, generation);
      generation = shown;
    }
    EXPECT_EQ(generation, 4);
  }
}

// Several streams of one client share a connection, and only the one that asked sees the answer.
TEST(DaemonXPCServiceSubscriptions, keepNothingFromThoseWhoFollowedTheEarlierOne) {
  for (std::uint64_t seed = 0; seed < 300; ++seed) {
    SCOPED_TRACE(seed);
    ServiceWorld world(seed);
    world.serve();
    ASSERT_TRUE(world.activate());
    const auto connection = world.connect();
    (void)world.call(connection, DaemonOperation::subscribeToStatusChanges);
    connection->messages->clear();
    (void)world.executor.start(
        world.authority->strengthen(ipc::ScopeAddition::websites{domains({"b.example"})}));
    const auto elsewhere = std::make_shared<std::vector<Message>>();
    world.send(connection, DaemonOperation::subscribeToStatusChanges, std::nullopt, elsewhere);
    world.executor.runReady();
    ASSERT_EQ(elsewhere->size(), 1U);
    ASSERT_FALSE(connection->messages->empty());
    for (const Message& message : *connection->messages) EXPECT_EQ(message.kind, Kind::push);
    EXPECT_EQ(connection->messages->back().status()->active()->scopeGeneration, 2);
  }
}

}  // namespace
}  // namespace stillow::authority
