#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "DescriptorTesting.hpp"
#include "PlatformLinuxDaemon/CommandRunner.hpp"
#include "PlatformLinuxDaemon/ProcessDiagnosticConnector.hpp"
#include "PlatformLinuxProbe/ProbeAnswer.hpp"
#include "TestSupport/DeterministicExecutor.hpp"
#include "TestSupport/TemporaryDirectory.hpp"

namespace stillow::platform {
namespace {

using authority::DiagnosticConnectionOutcome;
using std::chrono::milliseconds;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;
using enum authority::DiagnosticConnectionOutcome;

/// A shell script in the place of stillow-probe.
class FakeProgram {
 public:
  explicit FakeProgram(const std::string& script, mode_t mode = 0755) {
    std::ofstream(path) << "#!/bin/sh\n" << script << '\n';
    EXPECT_EQ(::chmod(path.c_str(), mode), 0);
  }

  DiagnosticConnectionOutcome connect(std::chrono::nanoseconds limit = std::chrono::seconds(60)) {
    return executor.run(ProcessDiagnosticConnector(
                            {.blocking = executor.blockingExecutor(),
                             .commands = std::make_shared<CommandRunner>(),
                             .program = path,
                             .startAndEndMax = milliseconds(100),
                             .log = [this](const std::string& line) { log.push_back(line); }})
                            .connect("probe.example", limit));
  }

  /// What else the script writes.
  [[nodiscard]] std::string file(const std::string& name) const { return directory.path(name); }

  const test::TemporaryDirectory directory;
  const std::string path = directory.path("stillow-probe");
  std::vector<std::string> log;

 private:
  test::DeterministicExecutor executor;
};

TEST(ProbeAnswer, isReadAsItWasWritten) {
  for (const auto outcome : {answered, answeredByAnotherHost, connectionFailed}) {
    EXPECT_EQ(outcomeOfProbeAnswer(probeAnswer(outcome)), outcome);
  }
  EXPECT_EQ(probeAnswer(answered), "answered\n");
  EXPECT_EQ(probeAnswer(answeredByAnotherHost), "answeredByAnotherHost\n");
  EXPECT_EQ(probeAnswer(connectionFailed), "connectionFailed\n");
}

TEST(ProcessDiagnosticConnector, takesTheProgramsWordForIt) {
  for (const auto outcome : {answered, answeredByAnotherHost, connectionFailed}) {
    FakeProgram program("echo " + std::string(probeAnswer(outcome)));
    EXPECT_EQ(program.connect(), outcome);
    EXPECT_THAT(program.log, IsEmpty());
  }
}

TEST(ProcessDiagnosticConnector, handsOverTheHostAndTheLimitInMilliseconds) {
  FakeProgram program("[ \"$# $1 $2\" = '2 probe.example 1501' ] && echo answered");
  EXPECT_EQ(program.connect(std::chrono::nanoseconds(1'500'000'001)), answered);
  EXPECT_EQ(program.connect(milliseconds(1'501)), answered);
  EXPECT_NE(program.connect(milliseconds(1'502)), answered);
}

TEST(ProcessDiagnosticConnector, neverTakesAnythingElseForAFailedConnection) {
  for (const char* const script : {
           "",
           "echo",
           "printf connectionFailed",
           "echo ConnectionFailed",
           "echo connectionFailed; echo",
           "echo answered; echo connectionFailed",
           "echo ' connectionFailed'",
           "printf 'connectionFailed\\0\\n'",
           "echo connectionFailed >&2",
           "echo connectionFailed; exit 1",
           "echo connectionFailed; kill -9 $$",
           "echo answered; exit 71",
           "head -c 100000 /dev/zero",
       }) {
    FakeProgram program(script);
    EXPECT_EQ(program.connect(), answeredByAnotherHost) << script;
    EXPECT_THAT(program.log, ElementsAre(StartsWith("The block could not be tested. The command " +
                                                    program.path + " ")))
        << script;
  }
}

TEST(ProcessDiagnosticConnector, saysInOneShortLineWhatTheProgramSaidInstead) {
  FakeProgram program(
      "printf 'a\\nb'; echo 'cannot do it' >&2; head -c 100000 /dev/zero >&2; exit 71");
  (void)program.connect();
  ASSERT_THAT(program.log, SizeIs(1));
  EXPECT_THAT(program.log.front(), AllOf(HasSubstr("exited with status 71, output \"a\\x0ab\""),
                                         HasSubstr("errors \"cannot do it\\x0a")));
  EXPECT_LT(program.log.front().size(), 2'000U);
}

TEST(ProcessDiagnosticConnector, killsAProgramThatHangsBeyondTheLimit) {
  FakeProgram program("trap '' TERM; echo $$ > \"${0%/*}/pid\"; echo answered; exec sleep 600");
  EXPECT_EQ(program.connect(milliseconds(500)), answeredByAnotherHost);
  EXPECT_THAT(program.log, ElementsAre(HasSubstr("took too long and was ended")));
  pid_t pid = 0;
  std::ifstream(program.file("pid")) >> pid;
  ASSERT_GT(pid, 0);
  EXPECT_EQ(::kill(pid, 0), -1) << "it is gone, and off the process table";
  EXPECT_EQ(errno, ESRCH);
}

TEST(ProcessDiagnosticConnector, endsAProgramThatPrintsForEver) {
  FakeProgram program("exec cat /dev/zero");
  EXPECT_EQ(program.connect(), answeredByAnotherHost);
  EXPECT_THAT(program.log, ElementsAre(HasSubstr("printed too much and was ended")));
}

TEST(ProcessDiagnosticConnector, saysWhichSignalEndedTheProgram) {
  FakeProgram program("echo connectionFailed; kill -SEGV $$");
  EXPECT_EQ(program.connect(), answeredByAnotherHost);
  EXPECT_THAT(program.log, ElementsAre(HasSubstr("was ended by signal 11")));
}

TEST(ProcessDiagnosticConnector, provesNothingWithAProgramThatCannotBeStarted) {
  FakeProgram forbidden("echo connectionFailed", 0644);
  EXPECT_EQ(forbidden.connect(), answeredByAnotherHost);
  EXPECT_THAT(forbidden.log, ElementsAre(HasSubstr("could not be started: Permission denied")));
  FakeProgram missing("echo connectionFailed");
  ASSERT_EQ(::unlink(missing.path.c_str()), 0);
  EXPECT_EQ(missing.connect(), answeredByAnotherHost);
  EXPECT_THAT(missing.log, ElementsAre(HasSubstr("could not be started: No such file")));
}

TEST(ProcessDiagnosticConnector, startsAnewWhateverBecameOfTheLastOne) {
  FakeProgram program(
      "mark=${0%/*}/mark; [ -e \"$mark\" ] && { echo connectionFailed; exit; }\n"
      ": > \"$mark\"; kill -9 $$");
  EXPECT_EQ(program.connect(), answeredByAnotherHost);
  EXPECT_EQ(program.connect(), connectionFailed);
}

TEST(ProcessDiagnosticConnector, handsOverNeitherDescriptorsNorTheEnvironment) {
  const int leaked = ::open("/dev/null", O_RDONLY);  // as a careless library would
  for (const char* const name : {"https_proxy", "SSL_CERT_FILE", "LD_PRELOAD_OF_SOMEBODY"}) {
    (void)::setenv(name, "/nowhere", 1);
  }
  // The fourth descriptor is the listing's own.
  FakeProgram program(
      "[ \"$(ls /proc/self/fd | tr '\\n' ' ')\" = '0 1 2 3 ' ] || exit 1\n"
      "env | grep -q nowhere || echo answered");
  EXPECT_EQ(program.connect(), answered) << ::testing::PrintToString(program.log);
  for (const char* const name : {"https_proxy", "SSL_CERT_FILE", "LD_PRELOAD_OF_SOMEBODY"}) {
    (void)::unsetenv(name);
  }
  (void)::close(leaked);
}

TEST(ProcessDiagnosticConnector, leavesNoDescriptorBehindHoweverTheProgramEnds) {
  std::size_t before = 0;
  for (int round = 0; round < 3; ++round) {
    for (const char* const script : {"echo answered", "kill -9 $$", "exec sleep 600"}) {
      (void)FakeProgram(script).connect(milliseconds(1));
    }
    if (round == 0) before = testing::openDescriptors();
  }
  EXPECT_EQ(testing::openDescriptors(), before);
}

}  // namespace
}  // namespace stillow::platform
