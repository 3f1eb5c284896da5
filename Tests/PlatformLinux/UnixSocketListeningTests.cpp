#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "PeerTestProcess.hpp"
#include "SocketTesting.hpp"

namespace stillow::platform::test {
namespace {

using UnixSocketListening = SocketTest;

constexpr uid_t otherUser = 65'534;
constexpr uid_t thirdUser = 65'533;

mode_t modeOf(const std::string& path) {
  struct stat status{};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status.st_mode;
}

/// No descriptor can be had while this lives, except those that are open already.
class NoMoreDescriptors {
 public:
  NoMoreDescriptors() {
    core::require(::getrlimit(RLIMIT_NOFILE, &before_) == 0, "no limit to be read");
    const core::FileDescriptor lowest(::dup(STDERR_FILENO));
    set(static_cast<rlim_t>(lowest.get()));
  }
  NoMoreDescriptors(const NoMoreDescriptors&) = delete;
  NoMoreDescriptors& operator=(const NoMoreDescriptors&) = delete;
  ~NoMoreDescriptors() { set(before_.rlim_cur); }

 private:
  void set(rlim_t most) const {
    rlimit limit = before_;
    limit.rlim_cur = most;
    core::require(::setrlimit(RLIMIT_NOFILE, &limit) == 0, "no limit to be set");
  }
  rlimit before_{};
};

TEST_F(UnixSocketListening, isForEverybodyInADirectoryThatOnlyItsOwnerCanWrite) {
  const mode_t before = ::umask(0077);
  listen();
  EXPECT_EQ(modeOf(path), S_IFSOCK | 0666U);
  EXPECT_EQ(modeOf(directory.path("run")), S_IFDIR | 0755U);
  stopListening();
  // Whatever an earlier version or an administrator left.
  ASSERT_EQ(::chmod(directory.path("run").c_str(), 0777), 0);
  ASSERT_EQ(::unlink(path.c_str()), 0);
  listen();
  ::umask(before);
  EXPECT_EQ(modeOf(directory.path("run")), S_IFDIR | 0755U);
  EXPECT_EQ(client().status(), R"({"jsonrpc":"2.0","id":1,"result":{}})");
}

TEST_F(UnixSocketListening, leavesNothingBesideItsSocket) {
  listen();
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory.path("run"))) {
    names.push_back(entry.path().filename());
  }
  EXPECT_EQ(names, std::vector<std::string>{"s.sock"});
}

TEST_F(UnixSocketListening, replacesASocketThatNobodyListensAt) {
  std::filesystem::create_directory(directory.path("run"));
  {
    const Listener gone(path);
  }
  ASSERT_TRUE(S_ISSOCK(modeOf(path)));
  listen();
  EXPECT_TRUE(client().status());
}

TEST_F(UnixSocketListening, replacesWhatAStartThatWasInterruptedLeft) {
  std::filesystem::create_directory(directory.path("run"));
  for (int round = 0; round < 2; ++round) {
    if (round == 0) {
      const auto bound = boundSocket(path + ".new");
    } else {
      std::ofstream(path + ".new") << "left";
    }
    listen();
    EXPECT_TRUE(client().status());
    EXPECT_FALSE(std::filesystem::exists(path + ".new"));
    stopListening();
  }
}

TEST_F(UnixSocketListening, takesNothingFromSomebodyWhoListensAlready) {
  listen();
  const auto second = newListener();
  const auto started = second->start(daemon);
  ASSERT_FALSE(started.has_value());
  EXPECT_EQ(started.error(), "Somebody listens at " + path + " already.");
  EXPECT_TRUE(client().status());
  EXPECT_EQ(second->load().connections, 0U);
}

TEST_F(UnixSocketListening, seesSomebodyListenWhoseQueueIsFull) {
  std::filesystem::create_directory(directory.path("run"));
  const auto busy = boundSocket(path);
  ASSERT_EQ(::listen(busy.get(), 0), 0);
  std::vector<core::FileDescriptor> waiting;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  do {
    waiting.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    ASSERT_LT(waiting.size(), 100U);
  } while (::connect(waiting.back().get(), reinterpret_cast<const sockaddr*>(&address),
                     sizeof address) == 0);
  const auto started = newListener()->start(daemon);
  ASSERT_FALSE(started.has_value());
  EXPECT_EQ(started.error(), "Somebody listens at " + path + " already.");
}

TEST_F(UnixSocketListening, touchesNothingThatIsNoSocket) {
  std::filesystem::create_directory(directory.path("run"));
  std::ofstream(path) << "precious";
  const auto started = newListener()->start(daemon);
  ASSERT_FALSE(started.has_value());
  EXPECT_EQ(started.error(), path + " is there and is no socket.");
  std::ifstream file(path);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "precious");
}

TEST_F(UnixSocketListening, saysWhatIsWrongWithItsPath) {
  const std::string withoutParent = directory.path("missing/run/s.sock");
  path = withoutParent;
  auto started = newListener()->start(daemon);
  ASSERT_FALSE(started.has_value());
  EXPECT_EQ(started.error().find("Making " + directory.path("missing/run") + " failed: "), 0U)
      << started.error();

  path = directory.path(std::string(100, 'x'));
  started = newListener()->start(daemon);
  ASSERT_FALSE(started.has_value());
  EXPECT_EQ(started.error(), path + " is too long for a socket.");
}

TEST_F(UnixSocketListening, endsEveryConnectionWithItself) {
  listen();
  std::vector<RawClient> clients;
  for (int index = 0; index < 5; ++index) {
    clients.push_back(client());
    ASSERT_TRUE(clients.back().status());
  }
  listener.reset();
  for (auto& connected : clients) connected.expectEnd();
  daemon->waitForEndings(5);
}

TEST_F(UnixSocketListening, givesEachConnectionANumberOfItsOwn) {
  listen();
  for (int index = 0; index < 20; ++index) ASSERT_TRUE(client().status());
  daemon->waitForEndings(20);
  std::set<ipc::ConnectionID> ids;
  for (const auto& connection : daemon->connections()) ids.insert(connection->identity());
  EXPECT_EQ(ids.size(), 20U);
}

// With no descriptor left, accepting fails at once, again and again.
TEST_F(UnixSocketListening, pausesWithoutDescriptorsAndRecovers) {
  listen();
  auto served = client();
  ASSERT_TRUE(served.status());
  RawClient waiting(path);
  {
    const NoMoreDescriptors none;
    waiting.connect();
    waitForLog("no connection can be accepted: Too many open files");
    for (int pause = 1; pause <= 3; ++pause) {
      sleeper->waitForSleep(limits.acceptPause);
      EXPECT_TRUE(served.status());
      EXPECT_EQ(sleeper->begun(limits.acceptPause), pause);
      sleeper->elapse(limits.acceptPause);
    }
    sleeper->waitForSleep(limits.acceptPause);
    EXPECT_EQ(logLines("no connection can be accepted"), 1U);
    EXPECT_EQ(logLines("accepting connections again"), 0U);
  }
  sleeper->elapse(limits.acceptPause);
  EXPECT_TRUE(waiting.status());
  waitForLog("accepting connections again");
  EXPECT_EQ(sleeper->begun(limits.acceptPause), 4);
}

TEST_F(UnixSocketListening, givesUpAPeerThatItHasNoDescriptorsToLookAt) {
  peers->refusal = "Too many open files";
  daemon->terms = ipc::ConnectionTerms{ipc::CodeSigningRequirement::trustedPeers()};
  listen();
  client().expectEnd();
  daemon->waitForEndings(1);
  waitForLog(": Too many open files");
  waitForLoad([](const auto& load) { return load.connections == 0; });
}

TEST_F(UnixSocketListening, refusesConnectionsBeyondTheMostOfAUser) {
  limits.connectionsPerUserMax = 2;
  listen();
  auto first = client();
  auto second = client();
  ASSERT_TRUE(first.status() && second.status());
  client().expectEnd();
  waitForLog("refused the connection of process " + std::to_string(::getpid()) +
             " of user 0: too many connections are open");
  RawClient other(path);
  other.connectAs(otherUser);
  EXPECT_TRUE(other.status());
  EXPECT_TRUE(first.status());

  second.close();
  waitForLoad([](const auto& load) { return load.connections == 2; });
  EXPECT_TRUE(client().status());
}

TEST_F(UnixSocketListening, refusesConnectionsBeyondTheMostOfAll) {
  limits.connectionsMax = 2;
  listen();
  auto first = client();
  RawClient second(path);
  second.connectAs(otherUser);
  ASSERT_TRUE(first.status() && second.status());
  RawClient third(path);
  third.connectAs(thirdUser);
  third.expectEnd();
  EXPECT_TRUE(first.status() && second.status());
}

// With the product's own limits.
TEST_F(UnixSocketListening, standsThousandsOfConnectionsAtOnce) {
  listen();
  RawClient other(path);
  other.connectAs(otherUser);
  ASSERT_TRUE(other.status());
  std::vector<RawClient> clients;
  for (int index = 0; index < 3'000; ++index) {
    clients.push_back(client());
    if (index % 100 == 0) {
      ASSERT_TRUE(other.status()) << index;
    }
  }
  std::size_t served = 0;
  for (auto& connected : clients) served += connected.status() ? 1 : 0;
  EXPECT_EQ(served, limits.connectionsPerUserMax);
  EXPECT_TRUE(other.status());
  EXPECT_EQ(listener->load().connections, limits.connectionsPerUserMax + 1);
  EXPECT_EQ(logLines("too many connections are open"), limits.logLinesMax);

  clients.clear();
  waitForLoad([](const auto& load) { return load.connections == 1; });
  EXPECT_TRUE(client().status());
}

TEST_F(UnixSocketListening, standsThousandsOfConnectionsOneAfterAnother) {
  listen();
  for (int index = 0; index < 3'000; ++index) ASSERT_TRUE(client().status()) << index;
  daemon->waitForEndings(3'000);
  waitForLoad([](const auto& load) {
    return load.connections == 0 && load.calls == 0 && load.bufferedBytes == 0;
  });
}

}  // namespace
}  // namespace stillow::platform::test
