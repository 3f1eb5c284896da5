#include <algorithm>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <gtest/gtest.h>

#include "DaemonXPCServiceTesting.hpp"
#include "StillowConcurrency/ThreadBlockingExecutor.hpp"

namespace stillow::authority {
namespace {

using ipc::DaemonOperation;
using testing::domains;
using testing::Message;
using testing::RecordedConnection;
using testing::ServiceWorld;

std::int64_t generationOf(const Message& message) {
  return message.status()->active()->scopeGeneration;
}

struct StatusDelivery : ServiceWorld, ::testing::Test {
  void SetUp() override {
    serve();
    ASSERT_TRUE(activate());
  }

  void subscribe(const std::shared_ptr<RecordedConnection>& connection) {
    send(connection, DaemonOperation::subscribeToStatusChanges, std::nullopt, connection->messages);
  }
};

TEST_F(StatusDelivery, goesOnBehindAConnectionThatEndsWithinItsPush) {
  std::vector<std::shared_ptr<RecordedConnection>> all;
  for (int i = 0; i < 5; ++i) all.push_back(subscriber());
  for (const std::size_t ending : {0U, 2U, 4U}) {
    all[ending]->onPush = [this, id = all[ending]->identity()] { service->ended(id); };
  }
  publish();
  for (const auto& connection : all) EXPECT_EQ(connection->messages->size(), 1U);
  publish();
  for (std::size_t i = 0; i < all.size(); ++i) {
    EXPECT_EQ(all[i]->messages->size(), i % 2 == 0 ? 1U : 2U);
    EXPECT_EQ(all[i].use_count(), i % 2 == 0 ? 1 : 2);
  }
}

TEST_F(StatusDelivery, leavesOutWhoeverEndsWithinThePushToAnother) {
  std::vector<std::shared_ptr<RecordedConnection>> all;
  std::size_t pushes = 0;
  for (int i = 0; i < 5; ++i) all.push_back(subscriber());
  for (const auto& connection : all) {
    connection->onPush = [&, self = connection.get()] {
      ++pushes;
      for (const auto& other : all) {
        if (other.get() != self) service->ended(other->identity());
      }
    };
  }
  publish();
  EXPECT_EQ(pushes, 1U);
  publish();
  EXPECT_EQ(pushes, 2U);
  EXPECT_EQ(std::ranges::count_if(all, [](const auto& one) { return one->messages->empty(); }), 4);
}

TEST_F(StatusDelivery, letsAConnectionSubscribeAnewWithinItsPush) {
  const auto again = subscriber();
  const auto other = subscriber();
  again->onPush = [&, isFirst = true]() mutable {
    if (std::exchange(isFirst, false)) subscribe(again);
  };
  publish();
  ASSERT_EQ(again->messages->size(), 2U);
  EXPECT_EQ(again->messages->at(0).kind, Message::Kind::push);
  EXPECT_EQ(again->messages->at(1).kind, Message::Kind::answer);
  EXPECT_EQ(other->messages->size(), 1U);
  again->messages->clear();
  publish();
  EXPECT_EQ(again->messages->size(), 1U);
  EXPECT_EQ(again.use_count(), 2);
}

TEST_F(StatusDelivery, tellsOfAStatusThatIsPublishedWithinAPush) {
  const auto first = subscriber();
  const auto second = subscriber();
  first->onPush = [&, isFirst = true]() mutable {
    if (!std::exchange(isFirst, false)) return;
    (void)executor.start(
        authority->strengthen(ipc::ScopeAddition::websites{domains({"b.example"})}));
  };
  publish();
  for (const auto& connection : {first, second}) {
    ASSERT_FALSE(connection->messages->empty());
    EXPECT_EQ(generationOf(connection->messages->back()), 2);
  }
  EXPECT_EQ(first->messages->size(), 2U);
}

// Many come and go while the Scope grows. Whoever stays sees it grow, and the end of it; whoever
// has gone sees nothing any more.
TEST(StatusDeliveries, leaveEverybodyWithTheNewestWhateverHappensMeanwhile) {
  for (std::uint64_t seed = 0; seed < 200; ++seed) {
    SCOPED_TRACE(seed);
    ServiceWorld world(seed);
    world.serve();
    ASSERT_TRUE(world.activate());
    struct Client {
      std::shared_ptr<RecordedConnection> connection = std::make_shared<RecordedConnection>();
      std::size_t messagesAtEnd = 0;
      bool hasEnded = false;
    };
    std::vector<Client> clients(6);
    std::mt19937_64 random(seed);
    const auto subscribe = [&](const Client& client) {
      if (client.hasEnded) return;
      world.send(client.connection, DaemonOperation::subscribeToStatusChanges, std::nullopt,
                 client.connection->messages);
    };
    const auto end = [&](Client& client) {
      if (std::exchange(client.hasEnded, true)) return;
      client.messagesAtEnd = client.connection->messages->size();
      world.service->ended(client.connection->identity());
    };
    std::int64_t generation = 1;
    const auto grow = [&] {
      const std::string name = std::to_string(++generation) + ".example";
      (void)world.executor.start(
          world.authority->strengthen(ipc::ScopeAddition::websites{domains({name})}));
    };
    const auto act = [&] {
      Client& client = clients[random() % clients.size()];
      switch (random() % 8) {
        case 0:
          return subscribe(client);
        case 1:
          return random() % 4 == 0 ? end(client) : void();
        case 2:
          return generation < 40 ? grow() : void();
        default:
          for (auto steps = random() % 6; steps > 0; --steps) (void)world.executor.step();
      }
    };
    for (Client& client : clients) {
      ASSERT_TRUE(world.service->shouldAcceptNewConnection(client.connection));
      subscribe(client);
      client.connection->onPush = [&] {
        // As above, but no step within a step.
        switch (random() % 12) {
          case 0:
            return subscribe(client);
          case 1:
            return end(clients[random() % clients.size()]);
          case 2:
            return generation < 40 ? grow() : void();
          default:
            break;
        }
      };
    }
    for (int i = 0; i < 100; ++i) act();
    world.executor.runReady();
    for (const Client& client : clients) {
      const auto& messages = *client.connection->messages;
      std::int64_t shown = 0;
      for (const Message& message : messages) {
        if (message.kind == Message::Kind::answer) continue;
        // Not less, for a connection that subscribes anew may be told the same once more.
        EXPECT_GE(generationOf(message), shown);
        shown = generationOf(message);
      }
      if (client.hasEnded) {
        // What was under way when it ended is answered, with an error.
        const auto behind = messages.begin() + static_cast<std::ptrdiff_t>(client.messagesAtEnd);
        EXPECT_TRUE(std::all_of(behind, messages.end(), [](const Message& message) {
          return message.kind == Message::Kind::answer;
        }));
        EXPECT_EQ(client.connection.use_count(), 1);
      } else {
        ASSERT_FALSE(messages.empty());
        EXPECT_EQ(generationOf(messages.back()), generation);
        EXPECT_EQ(client.connection.use_count(), 2);
      }
    }
  }
}

// ---- on several threads

/// Keeps what it is told, from any thread.
class CountingConnection final : public ipc::ServedConnection {
 public:
  [[nodiscard]] ipc::ConnectionID identity() const noexcept override { return id_; }
  void push(ipc::SharedBytes status) override {
    take({Message::Kind::push, ipc::DaemonReply::of(std::move(status))});
  }
  void take(Message message) {
    const std::lock_guard lock(mutex_);
    messages_.push_back(std::move(message));
    arrived_.notify_all();
  }
  /// Waits until `holds` is true of the last message.
  void waitUntilLast(const std::function<bool(const Message&)>& holds) {
    std::unique_lock lock(mutex_);
    const bool came = arrived_.wait_for(lock, std::chrono::minutes(1), [&] {
      return !messages_.empty() && holds(messages_.back());
    });
    core::require(came, "a status did not come");
  }
  std::vector<Message> messages() {
    const std::lock_guard lock(mutex_);
    return messages_;
  }

 private:
  const ipc::ConnectionID id_ = ipc::ConnectionID::next();
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<Message> messages_;
};

// Turns are all that orders what the authority and the service keep.
TEST(StatusDeliveries, areInOrderWhenSeveralThreadsWork) {
  constexpr std::int64_t growths = 100;
  boost::asio::io_context context;
  auto work = boost::asio::make_work_guard(context);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back([&] { context.run(); });
  const auto authority = CommitmentAuthority::make(
      context.get_executor(), std::make_shared<concurrency::ThreadBlockingExecutor>(1),
      {std::make_shared<InMemoryCommitmentCheckpointStore>(
           testing::checkpoint(AuthorityState::active{testing::commitment()})),
       std::make_shared<InMemoryCommitmentCheckpointStore>()},
      [] { return testing::start; });
  const auto service = DaemonXPCService::make({.executor = context.get_executor(),
                                               .authority = authority,
                                               .requirement = {},
                                               .validator = nullptr,
                                               .presence = nullptr,
                                               .filterArming = nullptr,
                                               .runningTime = nullptr});
  std::vector<std::shared_ptr<CountingConnection>> connections;
  const auto call = [&](const std::shared_ptr<CountingConnection>& connection,
                        DaemonOperation operation, const ipc::SharedBytes& request) {
    service->received(connection,
                      {operation, request, ipc::CallAnswer([connection](ipc::DaemonReply reply) {
                         connection->take({Message::Kind::answer, std::move(reply)});
                       })});
  };
  for (int i = 0; i < 8; ++i) {
    const auto& connection = connections.emplace_back(std::make_shared<CountingConnection>());
    ASSERT_TRUE(service->shouldAcceptNewConnection(connection));
    call(connection, DaemonOperation::subscribeToStatusChanges, nullptr);
    connection->waitUntilLast([](const Message&) { return true; });
  }
  const auto caller = std::make_shared<CountingConnection>();
  ASSERT_TRUE(service->shouldAcceptNewConnection(caller));
  for (std::int64_t growth = 0; growth < growths; ++growth) {
    const std::string name = std::to_string(growth) + ".example";
    call(caller, DaemonOperation::strengthen,
         std::make_shared<const std::string>(
             testing::encoded(ipc::ScopeAddition(ipc::ScopeAddition::websites{domains({name})}))));
    call(caller, DaemonOperation::status, nullptr);
    if (growth % 25 == 24)
      service->ended(connections.at(4 + static_cast<std::size_t>(growth) / 25)->identity());
  }
  for (std::size_t i = 0; i < 4; ++i) {
    connections[i]->waitUntilLast(
        [](const Message& message) { return generationOf(message) == growths + 1; });
  }
  for (const auto& connection : connections) {
    std::int64_t shown = 0;
    for (const Message& message : connection->messages()) {
      EXPECT_GT(generationOf(message), shown);
      shown = generationOf(message);
    }
  }
  work.reset();
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(caller->messages().size(), 2U * growths);
}

}  // namespace
}  // namespace stillow::authority
