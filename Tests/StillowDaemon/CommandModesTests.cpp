#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "StillowDaemon/CommandModes.hpp"
#include "StillowIPC/DaemonError.hpp"
#include "TestSupport/DeterministicExecutor.hpp"

namespace stillow::daemon {
namespace {

using ipc::DaemonError;
using ipc::DaemonStatus;

/// Answers every call alike.
class ScriptedClient final : public ipc::CommitmentAuthorityClient {
 public:
  explicit ScriptedClient(Result result) : result_(std::move(result)) {}
  concurrency::Task<Result> status() override { return answer("status"); }
  concurrency::Task<Result> activate(ipc::ActivationRequest) override { return answer("activate"); }
  concurrency::Task<Result> strengthen(ipc::ScopeAddition) override { return answer("strengthen"); }
  concurrency::Task<Result> extend(ipc::ExtensionRequest) override { return answer("extend"); }
  concurrency::Task<Result> validateEnforcement() override { return answer("validate"); }
  concurrency::Task<Result> acknowledgeExpiry() override { return answer("acknowledge"); }
  concurrency::Task<Result> armFilterConfiguration() override { return answer("arm"); }
  concurrency::Task<Result> announceUserInterface() override { return answer("announce"); }
  ipc::DaemonStatusStream statusChanges() override {
    return {concurrency::Channel<DaemonStatus>(1), [] {}};
  }
  void invalidate() override {}

  std::vector<std::string> calls;

 private:
  concurrency::Task<Result> answer(std::string call) {
    calls.push_back(std::move(call));
    Result copy = result_;
    co_return copy;
  }
  Result result_;
};

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
