#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <string>
#include <utility>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "DescriptorTesting.hpp"
#include "PlatformLinuxDaemon/CommandRunner.hpp"
#include "TestSupport/TemporaryDirectory.hpp"

namespace stillow::platform {
namespace {

using ::testing::HasSubstr;
using testing::openDescriptors;
using Reason = CommandFailure::Reason;

Command shellCommand(const std::string& script) { return {.arguments = {"sh", "-c", script}}; }

CommandResult result(CommandRunner& runner, const Command& command) {
  auto run = runner.run(command);
  EXPECT_TRUE(run) << run.error().description;
  return run ? std::move(*run) : CommandResult{.exitStatus = -1};
}

Reason failure(CommandRunner& runner, const Command& command) {
  const auto run = runner.run(command);
  EXPECT_FALSE(run);
  return run ? Reason{} : run.error().reason;
}

TEST(CommandRunner, givesStatusOutputAndErrors) {
  CommandRunner runner;
  EXPECT_EQ(result(runner, shellCommand("echo out; echo err >&2; exit 3")),
            (CommandResult{.exitStatus = 3, .output = "out\n", .errors = "err\n"}));
}

TEST(CommandRunner, givesOutputThatIsLargerThanAPipeWhole) {
  CommandRunner runner;
  const auto printed = result(runner, shellCommand("head -c 3000000 /dev/zero"));
  EXPECT_EQ(printed.output, std::string(3'000'000, '\0'));
}

TEST(CommandRunner, feedsTheInputHoweverMuchOfItIsRead) {
  CommandRunner runner;
  const std::string input(1'000'000, 'x');
  EXPECT_EQ(result(runner, {.arguments = {"cat"}, .input = input}).output, input);
  EXPECT_EQ(result(runner, {.arguments = {"head", "-c", "3"}, .input = input}).output, "xxx");
  EXPECT_EQ(result(runner, {.arguments = {"true"}, .input = input}).exitStatus, 0);
  EXPECT_EQ(result(runner, {.arguments = {"cat"}}).output, "") << "no input is the end of input";
}

TEST(CommandRunner, endsAChildThatHangs) {
  const test::TemporaryDirectory directory;
  const std::string file = directory.path() + "/pid";
  CommandRunner runner(std::chrono::milliseconds(300));
  const auto run = runner.run(shellCommand("echo $$ > " + file + "; exec sleep 600"));
  ASSERT_FALSE(run);
  EXPECT_EQ(run.error().reason, Reason::tookTooLong);
  EXPECT_EQ(run.error().description, "The command sh took too long and was ended.");
  pid_t pid = 0;
  std::ifstream(file) >> pid;
  ASSERT_GT(pid, 0);
  EXPECT_EQ(::kill(pid, 0), -1) << "it is gone, and off the process table";
  EXPECT_EQ(errno, ESRCH);
}

TEST(CommandRunner, endsACommandByTheLimitOfItsOwn) {
  CommandRunner patient;
  Command command = shellCommand("exec sleep 600");
  command.limit = std::chrono::milliseconds(300);
  EXPECT_EQ(failure(patient, command), Reason::tookTooLong);
  CommandRunner impatient(std::chrono::nanoseconds(1));
  command = shellCommand("echo out");
  command.limit = std::chrono::seconds(60);
  EXPECT_EQ(result(impatient, command).output, "out\n");
}

TEST(CommandRunner, endsAChildThatHangsWhileItPrints) {
  CommandRunner runner(std::chrono::milliseconds(300));
  EXPECT_EQ(failure(runner, shellCommand("while :; do echo x >&2; sleep 0.01; done")),
            Reason::tookTooLong);
}

TEST(CommandRunner, doesNotWaitForADescendantThatKeepsTheOutputOpen) {
  CommandRunner runner(std::chrono::seconds(20));
  const auto before = std::chrono::steady_clock::now();
  const auto printed = result(runner, shellCommand("sleep 60 & echo $!"));
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(20));
  const pid_t descendant = std::atoi(printed.output.c_str());
  ASSERT_GT(descendant, 0);
  (void)::kill(descendant, SIGKILL);
}

TEST(CommandRunner, endsAChildThatPrintsTooMuch) {
  CommandRunner runner;
  EXPECT_EQ(failure(runner, shellCommand("head -c 40000000 /dev/zero")), Reason::printedTooMuch);
}

TEST(CommandRunner, keepsTheBeginningOfManyErrors) {
  CommandRunner runner;
  const auto printed = result(runner, shellCommand("echo first >&2; head -c 300000 /dev/zero >&2"));
  EXPECT_EQ(printed.errors.size(), CommandRunner::errorBytesMax);
  EXPECT_TRUE(printed.errors.starts_with("first\n"));
}

TEST(CommandRunner, saysWhichSignalEndedAChild) {
  CommandRunner runner;
  const auto run = runner.run(shellCommand("kill -TERM $$"));
  ASSERT_FALSE(run);
  EXPECT_EQ(run.error().reason, Reason::endedBySignal);
  EXPECT_EQ(run.error().description, "The command sh was ended by signal 15.");
}

TEST(CommandRunner, saysWhatCouldNotBeStarted) {
  CommandRunner runner;
  for (const char* const name : {"stillow-no-such-command", "/no/such/command", ""}) {
    const auto run = runner.run({.arguments = {name}});
    ASSERT_FALSE(run);
    EXPECT_EQ(run.error().reason, Reason::notStarted);
    EXPECT_THAT(run.error().description, HasSubstr("could not be started"));
  }
  EXPECT_EQ(failure(runner, {}), Reason::notStarted);
}

TEST(CommandRunner, passesNothingOfTheEnvironmentOn) {
  (void)::setenv("XTABLES_LOCKFILE", "/nowhere", 1);
  CommandRunner runner;
  const auto printed = result(runner, {.arguments = {"env"}});
  EXPECT_EQ(printed.output, "PATH=/usr/sbin:/usr/bin:/sbin:/bin\nLC_ALL=C\n");
  (void)::unsetenv("XTABLES_LOCKFILE");
}

TEST(CommandRunner, findsProgramsInItsOwnDirectoriesOnly) {
  const test::TemporaryDirectory directory;
  const auto make = [&directory](const std::string& name) {
    const std::string path = directory.path() + "/" + name;
    std::ofstream(path) << "#!/bin/sh\necho mine\n";
    EXPECT_EQ(::chmod(path.c_str(), 0755), 0);
  };
  make("hostname");
  const char* const before = ::getenv("PATH");
  const std::string path = before == nullptr ? "" : before;
  (void)::setenv("PATH", directory.path().c_str(), 1);
  CommandRunner runner;
  EXPECT_NE(result(runner, {.arguments = {"hostname"}}).output, "mine\n");
  (void)::setenv("PATH", path.c_str(), 1);
  CommandRunner other(CommandRunner::defaultLimit, {directory.path()});
  EXPECT_EQ(result(other, {.arguments = {"hostname"}}).output, "mine\n");
}

TEST(CommandRunner, runsInTheRootDirectory) {
  CommandRunner runner;
  EXPECT_EQ(result(runner, {.arguments = {"pwd"}}).output, "/\n");
}

TEST(CommandRunner, givesAChildNoDescriptorButTheThreeStandardOnes) {
  const int leaked = ::open("/dev/null", O_RDONLY);  // as a careless library would
  CommandRunner runner;
  // The third line is the listing's own.
  EXPECT_EQ(result(runner, {.arguments = {"ls", "/proc/self/fd"}}).output, "0\n1\n2\n3\n");
  (void)::close(leaked);
}

TEST(CommandRunner, givesAChildDefaultSignalHandling) {
  sigset_t blocked;
  sigset_t before;
  (void)::sigemptyset(&blocked);
  (void)::sigaddset(&blocked, SIGTERM);
  (void)::pthread_sigmask(SIG_BLOCK, &blocked, &before);
  const auto ignored = ::signal(SIGPIPE, SIG_IGN);
  CommandRunner runner;
  const auto blockedThere =
      result(runner, {.arguments = {"grep", "-o", "^SigBlk:.*", "/proc/self/status"}});
  EXPECT_EQ(blockedThere.output, "SigBlk:\t0000000000000000\n");
  // Two signals are the C library's own; nobody can change those.
  const auto ignoredThere =
      result(runner, shellCommand("sed -n 's/^SigIgn:\\t/0x/p' /proc/self/status"));
  EXPECT_EQ(std::strtoull(ignoredThere.output.c_str(), nullptr, 16) & ~0x1'8000'0000ULL, 0U);
  (void)::signal(SIGPIPE, ignored);
  (void)::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(CommandRunner, leavesNothingBehindHoweverItEnds) {
  CommandRunner runner(std::chrono::milliseconds(100));
  (void)runner.run({.arguments = {"true"}});
  const std::size_t before = openDescriptors();
  for (int round = 0; round < 3; ++round) {
    (void)runner.run({.arguments = {"true"}});
    (void)runner.run({.arguments = {"/no/such/command"}});
    (void)runner.run({.arguments = {"sleep", "60"}});
    (void)runner.run(shellCommand("kill -9 $$"));
  }
  EXPECT_EQ(openDescriptors(), before);
  CommandRunner patient;
  const auto zombies = result(patient, shellCommand("ps -o stat= --ppid $PPID | grep -c Z; true"));
  EXPECT_EQ(zombies.output, "0\n");
}

}  // namespace
}  // namespace stillow::platform
