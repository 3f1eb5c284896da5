#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <gtest/gtest.h>
#include <sys/types.h>

#include "PlatformLinuxIPC/UnixSocketDaemonListener.hpp"
#include "StillowConcurrency/OneShot.hpp"
#include "StillowConcurrency/Sleeper.hpp"
#include "StillowConcurrency/ThreadBlockingExecutor.hpp"
#include "StillowCore/FileDescriptor.hpp"
#include "StillowIPC/DaemonConnection.hpp"
#include "StillowIPC/PeerIdentifying.hpp"
#include "TestSupport/TemporaryDirectory.hpp"

/// A listener on a real socket, with a daemon behind it that the test plays, and clients that are
/// bare sockets. Nothing here waits for time to pass; what waits for another thread gives up,
/// failing the process, when that takes a minute.
namespace stillow::platform::test {

inline constexpr std::chrono::seconds patience(60);

/// State that threads share and wait for changes of.
template <class State>
class Watched {
 public:
  template <class Change>
  auto change(Change change) {
    const std::lock_guard lock(mutex_);
    changed_.notify_all();
    return change(state_);
  }
  template <class Read>
  auto read(Read read) const {
    const std::lock_guard lock(mutex_);
    return read(state_);
  }
  /// Returns once `holds` is true of the state.
  template <class Predicate>
  void waitUntil(Predicate holds, std::string_view what) {
    std::unique_lock lock(mutex_);
    const bool came = changed_.wait_for(lock, patience, [&] { return holds(state_); });
    core::require(came, what);
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  State state_{};
};

/// A sleeper whose sleeps the test ends, by their duration; any thread.
class ManualSleeper final : public concurrency::Sleeper {
 public:
  concurrency::Task<concurrency::SleepOutcome> sleep(
      std::chrono::nanoseconds duration, concurrency::Cancellation cancellation) override {
    const concurrency::OneShot<concurrency::SleepOutcome> end;
    state_.change([&](State& state) {
      state.begun[duration] += 1;
      state.sleeping.emplace(duration, end);
    });
    return wait(end, std::move(cancellation));
  }

  /// Ends every sleep of that duration, once there is one.
  void elapse(std::chrono::nanoseconds duration) {
    waitForSleep(duration);
    std::vector<concurrency::OneShot<concurrency::SleepOutcome>> ends;
    state_.change([&](State& state) {
      const auto [first, last] = state.sleeping.equal_range(duration);
      for (auto sleep = first; sleep != last; ++sleep) ends.push_back(sleep->second);
      state.sleeping.erase(first, last);
    });
    for (const auto& end : ends) end.settle(concurrency::SleepOutcome::elapsed);
  }
  void waitForSleep(std::chrono::nanoseconds duration) {
    state_.waitUntil([&](const State& state) { return state.sleeping.contains(duration); },
                     "nobody sleeps");
  }
  /// Sleeps of that duration that have begun so far.
  int begun(std::chrono::nanoseconds duration) const {
    return state_.read([&](const State& state) {
      const auto found = state.begun.find(duration);
      return found == state.begun.end() ? 0 : found->second;
    });
  }

 private:
  struct State {
    std::map<std::chrono::nanoseconds, int> begun;
    std::multimap<std::chrono::nanoseconds, concurrency::OneShot<concurrency::SleepOutcome>>
        sleeping;
  };
  static concurrency::Task<concurrency::SleepOutcome> wait(
      concurrency::OneShot<concurrency::SleepOutcome> end, concurrency::Cancellation cancellation) {
    const auto registration =
        cancellation.onCancel([end] { end.settle(concurrency::SleepOutcome::cancelled); });
    const auto outcome = co_await end.wait();
    co_return outcome;
  }
  Watched<State> state_;
};

/// Threads that run an io_context.
class Threads {
 public:
  explicit Threads(int count = 2) {
    for (int index = 0; index < count; ++index) {
      threads_.emplace_back([this] { context_.run(); });
    }
  }
  Threads(const Threads&) = delete;
  Threads& operator=(const Threads&) = delete;
  ~Threads() { stop(); }

  /// Nothing runs any more when this returns.
  void stop() {
    context_.stop();
    for (auto& thread : threads_) thread.join();
    threads_.clear();
  }

  [[nodiscard]] concurrency::Executor executor() { return context_.get_executor(); }

  /// Runs `task` on them and waits for it here.
  template <class T>
  T run(concurrency::Task<T> task) {
    const auto result = std::make_shared<Watched<std::optional<T>>>();
    concurrency::spawn(executor(), keep<T>(std::move(task), result));
    result->waitUntil([](const auto& value) { return value.has_value(); }, "a task did not end");
    return result->change([](auto& value) { return std::move(*value); });
  }

 private:
  template <class T>
  static concurrency::Task<void> keep(concurrency::Task<T> task,
                                      std::shared_ptr<Watched<std::optional<T>>> result) {
    T value = co_await std::move(task);
    result->change([&](auto& place) { place.emplace(std::move(value)); });
  }

  boost::asio::io_context context_;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_{
      context_.get_executor()};
  std::vector<std::thread> threads_;
};

/// The daemon behind the listener: keeps calls for the test to answer, or answers them at once.
class TestDaemon final : public ipc::DaemonListenerDelegate {
 public:
  struct Received {
    std::shared_ptr<ipc::ServedConnection> connection;
    ipc::DaemonOperation operation;
    std::optional<std::string> request;
    ipc::CallAnswer answer;
  };

  std::optional<ipc::ConnectionTerms> shouldAcceptNewConnection(
      const std::shared_ptr<ipc::ServedConnection>& connection) override;
  void received(std::shared_ptr<ipc::ServedConnection> connection, ipc::DaemonCall call) override;
  void ended(ipc::ConnectionID connection) override;

  /// The next call that has not been taken.
  Received next();
  /// The connections accepted so far.
  std::vector<std::shared_ptr<ipc::ServedConnection>> connections() const;
  void waitForConnections(std::size_t count);
  void waitForEndings(std::size_t count);
  std::size_t endings() const;
  std::size_t callsReceived() const;
  /// Lets go of every connection and call.
  void forget();

  /// Set before anybody connects.
  std::optional<ipc::ConnectionTerms> terms = ipc::ConnectionTerms{};
  /// Answers `status` calls with these bytes, unless they are null.
  ipc::SharedBytes statusBytes;

 private:
  struct State {
    std::vector<std::shared_ptr<ipc::ServedConnection>> connections;
    std::vector<ipc::ConnectionID> endings;
    std::deque<Received> calls;
    std::size_t callsReceived = 0;
  };
  Watched<State> state_;
};

/// What the test says of a peer; may block.
class TestPeers final : public ipc::PeerIdentifying {
 public:
  using Answer = std::expected<ipc::CodeIdentity, std::string>;
  std::expected<std::unique_ptr<ipc::ConnectedPeer>, std::string> connectedPeer(
      int connectedSocket) override;

  /// Set before anybody connects. Called on the blocking threads.
  std::function<Answer(ipc::PeerProcess)> identity;
  /// Set to refuse everybody at once.
  std::optional<std::string> refusal;
  /// Peers that somebody holds at the moment.
  [[nodiscard]] long held() const { return holders_.use_count() - 1; }

 private:
  std::shared_ptr<int> holders_ = std::make_shared<int>(0);
};

[[nodiscard]] ipc::CodeIdentity application();

/// A client that is nothing but a socket. Every read gives up, failing the process, after a minute.
class RawClient {
 public:
  /// Not connected yet.
  explicit RawClient(std::string path);
  [[nodiscard]] static RawClient connected(const std::string& path);

  void connect();
  /// False: nobody listens.
  [[nodiscard]] bool tryConnect() const;
  /// As a process of another user would; takes root.
  void connectAs(uid_t user);
  /// All of it, or as much as is taken before the connection ends. False: it ended.
  bool send(std::string_view text) const;
  bool sendLine(std::string_view text) const;
  /// As much as the system takes without waiting.
  std::size_t sendWithoutWaiting(std::string_view text) const;
  /// The next line without its line feed; none at the end of the stream.
  std::optional<std::string> line();
  /// Nothing more comes: the connection is closed. Drops what came before.
  void expectEnd();
  /// Whether something could be read at once: a part of a line or the end.
  [[nodiscard]] bool hasNews() const;
  /// Sends no more; still reads.
  void finishSending() const;
  void close();
  /// Sends a `status` call and gives its answer.
  std::optional<std::string> status(int id = 1);

 private:
  [[nodiscard]] ssize_t receive();

  std::string path_;
  core::FileDescriptor socket_;
  std::string buffered_;
};

/// Everything together.
class SocketTest : public ::testing::Test {
 protected:
  SocketTest();
  ~SocketTest() override;

  /// A listener at the test's path that has not been started.
  [[nodiscard]] std::unique_ptr<UnixSocketDaemonListener> newListener();
  void listen();
  /// Ends the listener; nobody can connect any more when this returns.
  void stopListening();
  [[nodiscard]] RawClient client() const { return RawClient::connected(path); }
  /// Waits for a line of the log that contains `text`.
  void waitForLog(const std::string& text);
  [[nodiscard]] std::size_t logLines(const std::string& text) const;
  /// Waits until that is true of what clients take.
  void waitForLoad(const std::function<bool(UnixSocketDaemonListener::Load)>& holds);

  stillow::test::TemporaryDirectory directory;
  std::string path;
  SocketLimits limits;
  std::shared_ptr<TestDaemon> daemon = std::make_shared<TestDaemon>();
  std::shared_ptr<TestPeers> peers = std::make_shared<TestPeers>();
  /// Set before listening: who else is to say who a peer is.
  std::shared_ptr<ipc::PeerIdentifying> realPeers;
  std::shared_ptr<ManualSleeper> sleeper = std::make_shared<ManualSleeper>();
  std::shared_ptr<Watched<std::vector<std::string>>> log =
      std::make_shared<Watched<std::vector<std::string>>>();
  std::shared_ptr<concurrency::ThreadBlockingExecutor> blocking =
      std::make_shared<concurrency::ThreadBlockingExecutor>(4);
  std::optional<Threads> threads{std::in_place};
  std::unique_ptr<UnixSocketDaemonListener> listener;
};

}  // namespace stillow::platform::test
