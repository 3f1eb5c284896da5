#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ClientTesting.hpp"
#include "StillowClient/LiveArea.hpp"
#include "StillowClient/Watch.hpp"
#include "TestSupport/DeterministicExecutor.hpp"

namespace stillow::client {
namespace {

using core::Date;
using ipc::DaemonStatus;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr Date start{816'458'820};  // 2026-11-15 18:07:00 UTC

DaemonStatus activeStatus(std::vector<std::string> sites, Date moment, double remaining) {
  std::vector<core::Domain> domains;
  for (const std::string& site : sites) domains.push_back(test::domain(site));
  const core::Commitment commitment{
      start, {1, core::DomainSet::of(domains)}, remaining, core::CommitmentHealth::healthy};
  DaemonStatus status;
  status.observedAt = moment;
  status.commitment =
      ipc::CommitmentStatus::active{ipc::ActiveCommitmentStatus::of(commitment, moment)};
  return status;
}

struct WatchTest : testing::Test {
  test::DeterministicExecutor world;
  std::shared_ptr<test::FakeDaemon> daemon = std::make_shared<test::FakeDaemon>();
  test::FakeTerminal terminal;
  concurrency::Cancellation enough;
  concurrency::Channel<Suspension> suspensions{1};
  std::shared_ptr<std::optional<ExitStatus>> ended;

  void SetUp() override {
    ASSERT_EQ(setenv("TZ", "UTC", 1), 0);
    tzset();
  }
  void begin(bool asJSON = false) {
    ended = world.start(watch(
        terminal.console(),
        {.daemon = daemon,
         .sleeper = world.sleeper(),
         .clock = [this] { return start + std::chrono::duration<double>(world.now()).count(); },
         .enough = enough,
         .suspensions = suspensions,
         .report = [](const ipc::DaemonError&) { return ExitStatus::unreachable; }},
        asJSON));
    world.runReady();
  }
  void push(const DaemonStatus& status) {
    ASSERT_FALSE(daemon->streams.empty());
    EXPECT_TRUE(daemon->streams.back().give(status));
    world.runReady();
  }
  void loseConnection() {
    daemon->isThere = false;
    daemon->streams.back().finish();
    world.runReady();
  }
  void end() {
    enough.cancel();
    world.runReady();
    ASSERT_TRUE(ended->has_value());
    EXPECT_EQ(**ended, ExitStatus::success);
    world.advance(seconds(60));
    EXPECT_EQ(world.sleeperCount(), 0U) << "nothing runs on";
  }
  /// What was written since the last call.
  std::string news() {
    std::string text = terminal.out.str();
    terminal.out.str("");
    return text;
  }
};

TEST_F(WatchTest, showsABarThatLivesBelowTheChanges) {
  terminal.canRewrite = true;
  terminal.style = {.columns = 80, .rows = 24, .hasColour = false, .showsBar = true};
  begin();
  push(activeStatus({"a.com"}, start, 600));
  EXPECT_EQ(news(),
            "Blocked: a.com\n"
            "\x1b[?25l"
            "  ██████████████████████████████  10 min 0 s left\r\n"
            "  Until about 18:17:00, 1 site.\r\n"
            "  Blocking is in force.");
  world.advance(seconds(1));
  EXPECT_EQ(news(),
            "\r\x1b[2A\x1b[J"
            "  ██████████████████████████████  9 min 59 s left\r\n"
            "  Until about 18:17:00, 1 site.\r\n"
            "  Blocking is in force.");
  push(activeStatus({"a.com", "b.com"}, start + 1, 599));
  EXPECT_EQ(news(),
            "\r\x1b[2A\x1b[J"
            "18:07:01  Added: b.com.\n"
            "  ██████████████████████████████  9 min 59 s left\r\n"
            "  Until about 18:17:00, 2 sites.\r\n"
            "  Blocking is in force.");
  end();
  EXPECT_EQ(news(), "\r\n\x1b[?25h");
  EXPECT_EQ(terminal.err.str(), "");
}

TEST_F(WatchTest, leavesTheTerminalInOrderWhenItIsPutAside) {
  terminal.canRewrite = true;
  terminal.style = {.columns = 80, .rows = 24, .hasColour = false, .showsBar = true};
  begin();
  push(activeStatus({"a.com"}, start, 600));
  (void)news();
  std::string before;
  suspensions.give([&] { before = news(); });
  world.runReady();
  EXPECT_EQ(before, "\r\n\x1b[?25h");
  EXPECT_TRUE(news().starts_with("\x1b[?25l  █")) << "on a line of its own, nothing is erased";
  end();
}

TEST_F(WatchTest, printsOneRecordOnEachLine) {
  begin(true);
  push(activeStatus({"a.com"}, start, 600));
  push(activeStatus({"a.com"}, start + 1, 599));
  std::istringstream lines(news());
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    EXPECT_TRUE(core::decode<DaemonStatus>(line).has_value()) << line;
  }
  EXPECT_EQ(count, 2);
  world.advance(seconds(10));
  EXPECT_EQ(news(), "") << "only what is pushed";
  end();
}

TEST_F(WatchTest, tellsChangesInLinesWhereNothingCanBeRewritten) {
  begin();
  push(activeStatus({"a.com"}, start, 600));
  EXPECT_EQ(news(),
            "A Commitment is active for another 10 min 0 s, until about 18:17:00.\n"
            "  Blocked: a.com\n"
            "Blocking is in force.\n");
  DaemonStatus ended_ = activeStatus({"a.com"}, start, 600);
  ended_.commitment = ipc::CommitmentStatus::expired{start};
  push(ended_);
  EXPECT_EQ(news(), "18:07:00  The Commitment has ended. Clear this with: stillow acknowledge\n");
  end();
}

TEST_F(WatchTest, waitsForADaemonThatWentAwayLongerEachTime) {
  begin();
  push(activeStatus({"a.com"}, start, 600));
  (void)news();
  loseConnection();
  EXPECT_EQ(terminal.err.str(),
            "The connection to the daemon was lost; waiting for it to come back.\n");
  std::vector<double> tries;
  std::size_t asked = daemon->streams.size();
  for (int step = 0; step < 200; ++step) {
    world.advance(milliseconds(250));
    if (daemon->streams.size() == asked) continue;
    asked = daemon->streams.size();
    tries.push_back(std::chrono::duration<double>(world.now()).count());
  }
  EXPECT_EQ(tries,
            (std::vector<double>{0.25, 0.75, 1.75, 3.75, 7.75, 15.75, 23.75, 31.75, 39.75, 47.75}));
  daemon->isThere = true;
  world.advance(seconds(8));
  push(activeStatus({"a.com", "b.com"}, start + 58, 600));
  EXPECT_TRUE(terminal.err.str().ends_with("The daemon is back.\n"));
  EXPECT_TRUE(news().starts_with("18:07:58  Added: b.com.\n"));
  // And it is patient anew with the next loss.
  loseConnection();
  const std::size_t before = daemon->streams.size();
  world.advance(milliseconds(250));
  EXPECT_EQ(daemon->streams.size(), before + 1);
  end();
}

TEST_F(WatchTest, saysOnTheScreenThatTheDaemonIsGone) {
  terminal.canRewrite = true;
  terminal.style = {.columns = 40, .rows = 24, .hasColour = false, .showsBar = true};
  begin();
  push(activeStatus({"a.com"}, start, 600));
  loseConnection();
  EXPECT_TRUE(news().contains("The daemon is gone; waiting for it to\r\n  come back."));
  daemon->isThere = true;
  world.advance(milliseconds(250));
  push(activeStatus({"a.com"}, start, 600));
  const std::string back = news();
  EXPECT_TRUE(back.contains("The daemon is back.")) << back;
  EXPECT_TRUE(back.ends_with("  Blocking is in force.")) << back;
  end();
}

TEST_F(WatchTest, isAnErrorWithoutADaemonInTheFirstPlace) {
  daemon->answer = std::unexpected(ipc::DaemonError::daemonUnavailable{"gone"});
  begin();
  ASSERT_TRUE(ended->has_value());
  EXPECT_EQ(**ended, ExitStatus::unreachable);
  EXPECT_TRUE(daemon->streams.empty());
}

TEST(LiveArea, goesUpOverLinesThatANarrowerTerminalBroke) {
  LiveArea area;
  EXPECT_EQ(area.show({"12345678", "12"}, 10), "\x1b[?25l12345678\r\n12");
  // Eight cells take two rows of five.
  EXPECT_EQ(area.show({"x"}, 5), "\r\x1b[2A\x1b[Jx");
  EXPECT_EQ(area.show({"y"}, 5), "\r\x1b[Jy");
  EXPECT_EQ(area.leave(), "\r\n\x1b[?25h");
  EXPECT_EQ(area.leave(), "");
}

}  // namespace
}  // namespace stillow::client
