#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "StillowDaemon/CommandModes.hpp"
#include "StillowIPC/DaemonError.hpp"
#include "TestSupport/DeterministicExecutor.hpp"
#include "TestSupport/ScriptedClient.hpp"

namespace stillow::daemon {
namespace {

using ipc::DaemonError;
using ipc::DaemonStatus;
using test::ScriptedClient;

struct Outcome {
  int status;
  std::string out;
  std::string err;
};

using Mode = concurrency::Task<int> (*)(std::shared_ptr<ipc::CommitmentAuthorityClient>,
                                        std::ostream&, std::ostream&);

Outcome run(Mode mode, ipc::CommitmentAuthorityClient::Result result) {
  test::DeterministicExecutor world;
  std::ostringstream out;
  std::ostringstream err;
  const auto client = std::make_shared<ScriptedClient>(std::move(result));
  const int status = world.run(mode(client, out, err));
  return {status, out.str(), err.str()};
}

std::optional<CommandMode> modeOf(std::vector<std::string_view> arguments) {
  return commandMode(arguments);
}

TEST(CommandModes, areFoundAnywhereAsWholeArgumentsAndInAFixedOrder) {
  EXPECT_EQ(modeOf({"StillowDaemon"}), std::nullopt);
  EXPECT_EQ(modeOf({"StillowDaemon", "x", "--validate"}), CommandMode::validate);
  EXPECT_EQ(modeOf({"StillowDaemon", "--report-status", "more"}), CommandMode::reportStatus);
  EXPECT_EQ(modeOf({"StillowDaemon", "--Validate", "--validate=1", "-validate"}), std::nullopt);
}

TEST(CommandModes, runTheStatusReportOnlyWhenBothAreGiven) {
  EXPECT_EQ(modeOf({"StillowDaemon", "--validate", "--report-status"}), CommandMode::reportStatus);
}

TEST(CommandModes, uninstallAfterReportingAndBeforeValidating) {
  EXPECT_EQ(modeOf({"StillowDaemon", "--uninstall"}), CommandMode::uninstall);
  EXPECT_EQ(modeOf({"StillowDaemon", "--validate", "--uninstall"}), CommandMode::uninstall);
  EXPECT_EQ(modeOf({"StillowDaemon", "--uninstall", "--report-status"}), CommandMode::reportStatus);
}

TEST(CommandModes, giveUpOnTheDaemonSoonOnlyWhereThereIsAnotherWayToFindOut) {
  EXPECT_EQ(deadlines(CommandMode::uninstall), ipc::DaemonCallDeadlines::quick());
  for (const auto mode : {CommandMode::reportStatus, CommandMode::validate}) {
    EXPECT_EQ(deadlines(mode), ipc::DaemonCallDeadlines::standard());
  }
}

TEST(CommandModes, printTheStatusAsOneCompactLine) {
  const Outcome outcome = run(reportStatus, DaemonStatus{.observedAt = {816'458'820.5}});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out,
            R"({"observedAt":816458820.5,"commitment":{"idle":{}},"enforcement":{"healthy":{}},)"
            R"("readiness":{"filterConfigurationIsEnabled":false}})"
            "\n");
  EXPECT_EQ(outcome.err, "");
}

TEST(CommandModes, sayWhyTheDaemonCouldNotBeReached) {
  for (const Mode mode : {Mode(reportStatus), Mode(validate)}) {
    const Outcome outcome =
        run(mode, std::unexpected(DaemonError(DaemonError::daemonDidNotAnswer{5})));
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err,
              "Could not reach the Stillow daemon: The Stillow daemon did not answer within 5.0 "
              "seconds.\n");
  }
}

TEST(CommandModes, printAPassedValidationPrettilyWithSortedKeys) {
  DaemonStatus status;
  status.readiness = {.filterConfigurationIsEnabled = true,
                      .validation = core::EnforcementValidation::passed{},
                      .validatedAt = core::Date{753'451'200.5}};
  const Outcome outcome = run(validate, status);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out,
            "{\n  \"filterConfigurationIsEnabled\" : true,\n  \"validatedAt\" : 753451200.5,\n"
            "  \"validation\" : {\n    \"passed\" : {\n\n    }\n  }\n}\n");
}

TEST(CommandModes, exitWithTwoWhenNothingWasValidatedOrItFailed) {
  const Outcome never = run(validate, DaemonStatus{});
  EXPECT_EQ(never.status, 2);
  EXPECT_EQ(never.out, "{\n  \"filterConfigurationIsEnabled\" : false\n}\n");

  DaemonStatus failed;
  failed.readiness.validation =
      core::EnforcementValidation::failed{core::EnforcementValidationFailure::connectionNotDropped};
  EXPECT_EQ(run(validate, failed).status, 2);
}

}  // namespace
}  // namespace stillow::daemon
