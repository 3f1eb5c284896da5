#include <algorithm>
#include <filesystem>
#include <memory>
#include <semaphore>
#include <string>
#include <utility>
#include <vector>

#include <spawn.h>
#include <sys/wait.h>

#include "PeerTestProcess.hpp"
#include "PlatformLinuxPeer/SignedExecutablePeerIdentifier.hpp"
#include "SocketTesting.hpp"

namespace stillow::platform::test {
namespace {

using ipc::CodeIdentity;
using ipc::CodeSigningRequirement;

constexpr uid_t otherUser = 65'534;
const std::string statusCall = R"({"jsonrpc":"2.0","id":1,"method":"status"})";
const std::string statusAnswer = R"({"jsonrpc":"2.0","id":1,"result":{}})";

/// Whoever connects has to be one of ours.
class UnixSocketPeers : public SocketTest {
 protected:
  UnixSocketPeers() {
    daemon->terms = ipc::ConnectionTerms{CodeSigningRequirement::trustedPeers()};
  }
  ~UnixSocketPeers() override { looksMayEnd(); }

  /// Every look at a peer of `user` takes until `looksMayEnd`.
  void makeLooksLong(uid_t user) {
    peers->identity = [this, user](const ipc::PeerProcess& process) {
      if (process.uid != user) return TestPeers::Answer(application());
      looks.change([](int& count) { ++count; });
      mayEnd.acquire();
      mayEnd.release();
      return TestPeers::Answer(application());
    };
  }
  void looksMayEnd() {
    if (!std::exchange(mayEndAlready, true)) mayEnd.release();
  }
  void waitForLooks(int count) {
    looks.waitUntil([&](int begun) { return begun >= count; }, "nobody is looked at");
  }

  Watched<int> looks;
  std::counting_semaphore<> mayEnd{0};
  bool mayEndAlready = false;
};

TEST_F(UnixSocketPeers, areServedIfTheyAreOurs) {
  listen();
  EXPECT_EQ(client().status(), statusAnswer);
  EXPECT_EQ(log->read([](const auto& lines) { return lines.size(); }), 0U);
}

TEST_F(UnixSocketPeers, thatAreStrangersGetNoAnswerAndOneLineOfTheLog) {
  struct Row {
    std::string what;
    TestPeers::Answer identity;
    std::string reason;
  };
  const CodeIdentity ours = application();
  const Row rows[]{
      {"nobody's", std::unexpected(std::string("The executable is not signed.")),
       "The executable is not signed."},
      {"another program of ours",
       CodeIdentity{"com.larchmoor.Other", ours.leafOrganizationalUnit, true},
       "it is signed as \"com.larchmoor.Other\" by \"Q4ZT8NWK2R\", which may not speak to the "
       "daemon"},
      {"another team's", CodeIdentity{ours.identifier, "STRANGER", true},
       "it is signed as \"com.larchmoor.Stillow\" by \"STRANGER\", which may not speak to the "
       "daemon"},
      {"another authority's", CodeIdentity{ours.identifier, ours.leafOrganizationalUnit, false},
       "which may not speak to the daemon"},
      {"a name with line feeds", CodeIdentity{"x\nStarting.", "y\x1b[2J", true},
       "which may not speak to the daemon"}};
  const Row* current = nullptr;
  peers->identity = [&](const ipc::PeerProcess& process) {
    return process.uid == 0 ? current->identity : TestPeers::Answer(application());
  };
  listen();
  std::size_t lines = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    current = &row;
    auto stranger = client();
    std::string calls;
    for (int index = 0; index < 100; ++index) calls += statusCall + "\n";
    (void)stranger.send(calls);
    EXPECT_EQ(stranger.line(), std::nullopt);
    log->waitUntil([&](const auto& all) { return all.size() > lines; }, "nothing is logged");
    const auto logged = log->read([](const auto& all) { return all; });
    ASSERT_EQ(logged.size(), ++lines);
    EXPECT_EQ(logged.back().find("refused the connection of process " + std::to_string(::getpid()) +
                                 " of user 0: "),
              0U)
        << logged.back();
    EXPECT_NE(logged.back().find(row.reason), std::string::npos) << logged.back();
    for (const char character : logged.back()) EXPECT_GE(character, ' ') << logged.back();
    RawClient friendly(path);
    friendly.connectAs(otherUser);
    EXPECT_EQ(friendly.status(), statusAnswer);
  }
  EXPECT_EQ(daemon->callsReceived(), lines);
}

TEST_F(UnixSocketPeers, areAllStrangersToADaemonWithoutARequirementThatCompiles) {
  daemon->terms = std::nullopt;
  listen();
  auto peer = client();
  (void)peer.sendLine(statusCall);
  EXPECT_EQ(peer.line(), std::nullopt);
  waitForLog("the code-signing requirement does not compile");
  EXPECT_EQ(daemon->callsReceived(), 0U);
  EXPECT_EQ(daemon->endings(), 0U);
  waitForLoad([](const auto& load) { return load.connections == 0; });
}

TEST_F(UnixSocketPeers, areNotReadBeforeTheyWereLookedAt) {
  makeLooksLong(0);
  listen();
  auto peer = client();
  ASSERT_TRUE(peer.sendLine(statusCall));
  waitForLooks(1);
  EXPECT_FALSE(peer.hasNews());
  EXPECT_EQ(daemon->callsReceived(), 0U);
  looksMayEnd();
  EXPECT_EQ(peer.line(), statusAnswer);
  waitForLoad([](const auto& load) { return load.connections == 1; });
}

TEST_F(UnixSocketPeers, thatAreStrangersCannotFillTheLog) {
  limits.logLinesMax = 5;
  peers->identity = [](const ipc::PeerProcess&) {
    return TestPeers::Answer(std::unexpected(std::string("a stranger")));
  };
  listen();
  for (std::size_t window = 1; window <= 2; ++window) {
    for (int index = 0; index < 300; ++index) client().expectEnd();
    daemon->waitForEndings(300 * window);
    EXPECT_EQ(logLines("a stranger"), 5 * window);
    sleeper->elapse(limits.logWindow);
    log->waitUntil(
        [&](const auto& lines) {
          return static_cast<std::size_t>(std::ranges::count(
                     lines, "295 more connections were refused or closed meanwhile")) == window;
        },
        "nobody counted");
  }
  EXPECT_EQ(log->read([](const auto& lines) { return lines.size(); }), 12U);
}

TEST_F(UnixSocketPeers, thatTakeLongToLookAtKeepNobodyElseWaiting) {
  makeLooksLong(0);
  listen();
  std::vector<RawClient> slow;
  for (int index = 0; index < 20; ++index) slow.push_back(client());
  waitForLooks(static_cast<int>(limits.peerChecksPerUserMax));
  for (int index = 0; index < 20; ++index) {
    RawClient other(path);
    other.connectAs(otherUser);
    EXPECT_EQ(other.status(), statusAnswer);
  }
  EXPECT_EQ(looks.read([](int count) { return count; }),
            static_cast<int>(limits.peerChecksPerUserMax));
  looksMayEnd();
  for (auto& peer : slow) EXPECT_EQ(peer.status(), statusAnswer);
}

// Each of those who wait holds two descriptors.
TEST_F(UnixSocketPeers, thatCannotBeLookedAtInTimeAreLetGoOf) {
  makeLooksLong(0);
  listen();
  std::vector<RawClient> waiting;
  constexpr int clients = 20;
  for (int index = 0; index < clients; ++index) waiting.push_back(client());
  daemon->waitForConnections(clients);
  waitForLooks(2);
  const auto end = std::chrono::steady_clock::now() + patience;
  while (sleeper->begun(limits.peerCheckTimeMax) < clients) {
    ASSERT_LT(std::chrono::steady_clock::now(), end);
    std::this_thread::yield();
  }
  EXPECT_EQ(peers->held(), clients);
  sleeper->elapse(limits.peerCheckTimeMax);
  for (auto& peer : waiting) peer.expectEnd();
  daemon->waitForEndings(clients);
  waitForLog("its executable could not be checked in time");
  waitForLoad([](const auto& load) { return load.connections == 0; });
  while (peers->held() > static_cast<long>(limits.peerChecksPerUserMax)) {
    ASSERT_LT(std::chrono::steady_clock::now(), end) << "peers that were refused are kept";
    std::this_thread::yield();
  }
  // Nobody is served late.
  looksMayEnd();
  EXPECT_EQ(client().status(), statusAnswer);
  EXPECT_EQ(daemon->callsReceived(), 1U);
}

TEST_F(UnixSocketPeers, mayLeaveWhileTheyAreLookedAt) {
  makeLooksLong(0);
  listen();
  auto peer = client();
  ASSERT_TRUE(peer.sendLine(statusCall));
  waitForLooks(1);
  peer.close();
  looksMayEnd();
  daemon->waitForEndings(1);
  EXPECT_EQ(client().status(), statusAnswer);
  waitForLoad([](const auto& load) { return load.calls == 0 && load.bufferedBytes == 0; });
}

TEST_F(UnixSocketPeers, mayBeLookedAtWhileTheListenerEnds) {
  makeLooksLong(0);
  listen();
  auto peer = client();
  waitForLooks(1);
  listener.reset();
  peer.expectEnd();
  daemon->waitForEndings(1);
}

// ---- real ones

int exitStatusOf(const std::string& program, std::vector<std::string> words, pid_t& pid) {
  words.insert(words.begin(), program);
  std::vector<char*> arguments;
  for (auto& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  core::require(
      ::posix_spawn(&pid, program.c_str(), nullptr, nullptr, arguments.data(), environ) == 0,
      "no process to be had");
  ChildProcess probe(pid);
  return probe.wait();
}

TEST_F(UnixSocketPeers, areWhoseSignatureTheyCarry) {
  realPeers =
      std::make_shared<SignedExecutablePeerIdentifier>(std::make_shared<SignedExecutableIdentifier>(
          CodeSigningAnchor::installed(), [] { return core::Date{}; }));
  listen();
  const std::string built = STILLOW_BIN "/SocketProbe";
  pid_t pid = 0;
  EXPECT_EQ(exitStatusOf(built, {path, statusCall + "\n"}, pid), 0);
  EXPECT_EQ(daemon->callsReceived(), 1U);

  // The same program without the signature, and with one that is another program's.
  const std::string copy = directory.path("probe");
  std::filesystem::copy_file(built, copy);
  EXPECT_EQ(exitStatusOf(copy, {path, statusCall + "\n"}, pid), 1);
  waitForLog("refused the connection of process " + std::to_string(pid) + " of user 0: ");
  waitForLog("is not signed");
  std::filesystem::copy_file(STILLOW_BIN "/PeerProbe.cms", copy + ".cms");
  EXPECT_EQ(exitStatusOf(copy, {path, statusCall + "\n"}, pid), 1);
  waitForLog("has the signature of another file");
  EXPECT_EQ(daemon->callsReceived(), 1U);
  EXPECT_EQ(log->read([](const auto& lines) { return lines.size(); }), 2U);
}

}  // namespace
}  // namespace stillow::platform::test
