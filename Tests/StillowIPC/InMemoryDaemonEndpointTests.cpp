#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "StillowIPC/InMemoryDaemonEndpoint.hpp"
#include "TestSupport/DeterministicExecutor.hpp"

namespace stillow::ipc {
namespace {

/// Keeps what it is handed.
struct Recorder final : DaemonListenerDelegate {
  std::optional<ConnectionTerms> shouldAcceptNewConnection(
      const std::shared_ptr<ServedConnection>& connection) override {
    connections.push_back(connection);
    return terms;
  }
  void received(std::shared_ptr<ServedConnection>, DaemonCall call) override {
    calls.push_back(std::move(call));
  }
  void ended(ConnectionID connection) override { endings.push_back(connection); }

  std::optional<ConnectionTerms> terms{{CodeSigningRequirement::trustedPeers()}};
  std::vector<std::shared_ptr<ServedConnection>> connections;
  std::vector<DaemonCall> calls;
  std::vector<ConnectionID> endings;
};

class InMemoryDaemonEndpointTest : public ::testing::Test {
 protected:
  void begin(InMemoryDaemonEndpoint::Identities identities =
                 InMemoryDaemonEndpoint::Identities::signedByMaker()) {
    endpoint = InMemoryDaemonEndpoint::make(executor.executor(), std::move(identities));
    ASSERT_TRUE(endpoint->start(daemon));
  }
  std::shared_ptr<DaemonConnection> connect(bool requiresDaemon = true) {
    auto connection = endpoint->makeConnection(
        {.statusChanged = [this](const SharedBytes& bytes) { arrived.push_back("push " + *bytes); },
         .lost = [this] { arrived.push_back("lost"); }});
    if (requiresDaemon)
      connection->setCodeSigningRequirement(CodeSigningRequirement::trustedPeers());
    connection->resume();
    executor.runReady();
    return connection;
  }
  void send(DaemonConnection& connection) {
    connection
        .remoteProxy([this](const PlatformError& error) { arrived.push_back(error.description); })
        ->send(DaemonOperation::status, nullptr, [this](const DaemonReply& reply) {
          arrived.push_back(reply.bytes   ? "reply " + *reply.bytes
                            : reply.error ? "error " + reply.error->description
                                          : "nothing");
        });
    executor.runReady();
  }

  test::DeterministicExecutor executor;
  std::shared_ptr<Recorder> daemon = std::make_shared<Recorder>();
  std::shared_ptr<InMemoryDaemonEndpoint> endpoint;
  std::vector<std::string> arrived;
};

const std::string interrupted = "The connection to the daemon was interrupted.";

TEST_F(InMemoryDaemonEndpointTest, keepsTheOrderOfRepliesAndPushes) {
  for (std::uint64_t seed = 0; seed < 50; ++seed) {
    test::DeterministicExecutor seeded(seed);
    const auto recorder = std::make_shared<Recorder>();
    const auto place = InMemoryDaemonEndpoint::make(seeded.executor());
    ASSERT_TRUE(place->start(recorder));
    std::vector<std::string> seen;
    const auto connection = place->makeConnection(
        {.statusChanged = [&](const SharedBytes& bytes) { seen.push_back(*bytes); },
         .lost = [] {}});
    connection->resume();
    const auto proxy = connection->remoteProxy([](const PlatformError&) {});
    const auto onReply = [&](const DaemonReply& reply) { seen.push_back(*reply.bytes); };
    proxy->send(DaemonOperation::status, nullptr, onReply);
    seeded.runReady();
    recorder->connections[0]->push(std::make_shared<const std::string>("1"));
    recorder->calls[0].answer.settle(DaemonReply::of(std::string("2")));
    recorder->connections[0]->push(std::make_shared<const std::string>("3"));
    seeded.runReady();
    EXPECT_EQ(seen, (std::vector<std::string>{"1", "2", "3"}));
  }
}

TEST_F(InMemoryDaemonEndpointTest, letsNoCallOfAStrangerThrough) {
  auto identities = InMemoryDaemonEndpoint::Identities::signedByMaker();
  identities.client.identifier = "com.example.stranger";
  begin(identities);
  const auto connection = connect();
  send(*connection);
  EXPECT_TRUE(daemon->calls.empty());
  EXPECT_EQ(daemon->endings.size(), 1U);
  EXPECT_EQ(arrived, (std::vector<std::string>{"lost", interrupted}));
}

TEST_F(InMemoryDaemonEndpointTest, letsEverybodyInWithoutARequirement) {
  begin({});
  daemon->terms = ConnectionTerms{};
  const auto connection = connect(false);
  send(*connection);
  EXPECT_EQ(daemon->calls.size(), 1U);
}

TEST_F(InMemoryDaemonEndpointTest, saysNothingToADaemonThatIsAStranger) {
  begin({InMemoryDaemonEndpoint::Identities::signedByMaker().client, {}});
  const auto connection = connect();
  send(*connection);
  EXPECT_TRUE(daemon->calls.empty());
  EXPECT_EQ(arrived, (std::vector<std::string>{"lost", interrupted}));
}

TEST_F(InMemoryDaemonEndpointTest, closesAConnectionThatIsRefused) {
  begin();
  daemon->terms.reset();
  const auto connection = connect();
  EXPECT_EQ(arrived, (std::vector<std::string>{"lost"}));
  EXPECT_TRUE(daemon->endings.empty());
}

TEST_F(InMemoryDaemonEndpointTest, endsBothSidesWithItsConnections) {
  begin();
  const auto connection = connect();
  send(*connection);
  endpoint->interruptAll();
  executor.runReady();
  EXPECT_EQ(arrived, (std::vector<std::string>{interrupted, "lost"}));
  EXPECT_EQ(daemon->endings, (std::vector{daemon->connections[0]->identity()}));
  // What comes too late goes nowhere.
  daemon->calls[0].answer.settle(DaemonReply::of(std::string("late")));
  daemon->connections[0]->push(std::make_shared<const std::string>("late"));
  executor.runReady();
  EXPECT_EQ(arrived.size(), 2U);
}

TEST_F(InMemoryDaemonEndpointTest, endsAConnectionThatItsClientLetsGo) {
  begin();
  connect().reset();
  executor.runReady();
  EXPECT_EQ(daemon->endings.size(), 1U);
}

TEST_F(InMemoryDaemonEndpointTest, givesEveryConnectionANumberOfItsOwn) {
  begin();
  connect().reset();
  connect().reset();
  executor.runReady();
  ASSERT_EQ(daemon->connections.size(), 2U);
  EXPECT_NE(daemon->connections[0]->identity(), daemon->connections[1]->identity());
}

TEST(CallAnswer, countsOnceAndAnswersForWhoForgets) {
  std::vector<DaemonReply> replies;
  {
    const CallAnswer answer([&](DaemonReply reply) { replies.push_back(std::move(reply)); });
    const CallAnswer copy = answer;
    copy.settle(DaemonReply::of(std::string("first")));
    answer.settle(DaemonReply::of(std::string("second")));
  }
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_EQ(*replies[0].bytes, "first");
  {
    const CallAnswer forgotten([&](DaemonReply reply) { replies.push_back(std::move(reply)); });
  }
  ASSERT_EQ(replies.size(), 2U);
  ASSERT_TRUE(replies[1].error);
  EXPECT_EQ(replies[1].error->domain, PlatformError::daemonErrorDomain);
}

}  // namespace
}  // namespace stillow::ipc
