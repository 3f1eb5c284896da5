#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "StillowAuthority/EnforcementValidator.hpp"
#include "TestSupport/DeterministicExecutor.hpp"
#include "TestSupport/Gate.hpp"
#include "TestSupport/ScriptedDiagnosticConnector.hpp"

namespace stillow::authority {
namespace {

using concurrency::Task;
using core::DegradedReason;
using core::EnforcementValidation;
using filtering::ValidationProbe;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Failure = core::EnforcementValidationFailure;
using Outcome = DiagnosticConnectionOutcome;

EnforcementValidation failed(Failure failure) { return EnforcementValidation::failed{failure}; }

/// Lender and path in one, as in the daemon.
class ScriptedArming final : public ValidationProbeLending, public FilterPathReporting {
 public:
  bool isApproved = true;
  bool isEnabledWhenLent = true;
  bool lendingFails = false;
  test::Gate reclaimGate;

  std::vector<std::string> steps;
  std::optional<ValidationProbe> lent;

  Task<bool> lend(ValidationProbe probe) override {
    steps.emplace_back("lend");
    if (lendingFails) co_return false;
    lent = std::move(probe);
    lastLent = lent;
    co_return true;
  }
  Task<void> reclaim() override {
    steps.emplace_back("reclaim");
    lent.reset();
    co_await reclaimGate.pass();
  }
  Task<FilterPathReadiness> readiness() override {
    steps.emplace_back("readiness");
    co_return FilterPathReadiness{.extensionIsApproved = isApproved,
                                  .filterConfigurationIsEnabled = lent && isEnabledWhenLent};
  }
  std::optional<ValidationProbe> lastLent;
};

class Recorder final : public ValidationRecording {
 public:
  struct Record {
    EnforcementValidation validation;
    core::Date obtainedAt;
    friend bool operator==(const Record&, const Record&) = default;
  };
  std::vector<Record> records;

  Task<void> record(EnforcementValidation validation, core::Date obtainedAt) override {
    records.push_back({validation, obtainedAt});
    co_return;
  }
};

class EnforcementValidatorTest : public testing::Test {
 protected:
  EnforcementValidatorTest() {
    connector->outcome = [this](const std::string& host) {
      return host.starts_with("probed") ? probedOutcome : controlOutcome;
    };
  }

  std::shared_ptr<EnforcementValidator> make(bool isRecording = true) {
    return EnforcementValidator::make(
        executor.executor(),
        {.lender = arming,
         .path = arming,
         .connector = connector,
         .domains = {*core::Domain::make("probed.example"), *core::Domain::make("control.example")},
         .recorder = isRecording ? recorder : nullptr,
         .clock = [this] { return now; }});
  }
  EnforcementValidation validate() { return executor.run(validator->validate()); }

  test::DeterministicExecutor executor;
  core::Date now{1'000};
  Outcome probedOutcome = Outcome::connectionFailed;
  Outcome controlOutcome = Outcome::answered;
  std::shared_ptr<ScriptedArming> arming = std::make_shared<ScriptedArming>();
  std::shared_ptr<test::ScriptedDiagnosticConnector> connector =
      std::make_shared<test::ScriptedDiagnosticConnector>();
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
  std::shared_ptr<EnforcementValidator> validator = make();
};

TEST_F(EnforcementValidatorTest, passesWhenOnlyTheProbedHostIsUnreachable) {
  EXPECT_EQ(validate(), EnforcementValidation::passed{});
  EXPECT_THAT(arming->steps, ElementsAre("readiness", "lend", "readiness", "reclaim"));
  EXPECT_THAT(connector->connections,
              ElementsAre(test::ScriptedDiagnosticConnector::Connection{"probed.example",
                                                                        std::chrono::seconds(5)},
                          test::ScriptedDiagnosticConnector::Connection{"control.example",
                                                                        std::chrono::seconds(5)}));
}

TEST_F(EnforcementValidatorTest, judgesEveryCombinationOfAnswers) {
  struct Row {
    Outcome probed;
    Outcome control;
    EnforcementValidation result;
  };
  const Row rows[]{
      {Outcome::answered, Outcome::answered, failed(Failure::connectionNotDropped)},
      {Outcome::answered, Outcome::answeredByAnotherHost, failed(Failure::connectionNotDropped)},
      {Outcome::answered, Outcome::connectionFailed, failed(Failure::connectionNotDropped)},
      {Outcome::answeredByAnotherHost, Outcome::answered, failed(Failure::inconclusive)},
      {Outcome::answeredByAnotherHost, Outcome::answeredByAnotherHost,
       failed(Failure::inconclusive)},
      {Outcome::answeredByAnotherHost, Outcome::connectionFailed, failed(Failure::inconclusive)},
      {Outcome::connectionFailed, Outcome::answered, EnforcementValidation::passed{}},
      {Outcome::connectionFailed, Outcome::answeredByAnotherHost, failed(Failure::inconclusive)},
      {Outcome::connectionFailed, Outcome::connectionFailed, failed(Failure::networkUnavailable)},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(static_cast<int>(row.probed) * 10 + static_cast<int>(row.control));
    EXPECT_EQ(judgement(row.probed, row.control), row.result);
    probedOutcome = row.probed;
    controlOutcome = row.control;
    EXPECT_EQ(validate(), row.result);
    EXPECT_EQ(arming->lent, std::nullopt);
  }
}

TEST_F(EnforcementValidatorTest, lendsNothingAndConnectsNowhereToAnExtensionThatIsNotApproved) {
  arming->isApproved = false;
  EXPECT_EQ(validate(), failed(Failure::extensionNotApproved));
  EXPECT_THAT(arming->steps, ElementsAre("readiness"));
  EXPECT_THAT(connector->connections, IsEmpty());
}

TEST_F(EnforcementValidatorTest, isInconclusiveWhenTheProbeCannotBeLent) {
  arming->lendingFails = true;
  EXPECT_EQ(validate(), failed(Failure::inconclusive));
  EXPECT_THAT(arming->steps, ElementsAre("readiness", "lend")) << "nothing is there to reclaim";
  EXPECT_THAT(connector->connections, IsEmpty());
}

TEST_F(EnforcementValidatorTest, reclaimsTheProbeAndConnectsNowhereWhenTheFilterIsNotArmed) {
  arming->isEnabledWhenLent = false;
  EXPECT_EQ(validate(), failed(Failure::filterNotArmed));
  EXPECT_THAT(arming->steps, ElementsAre("readiness", "lend", "readiness", "reclaim"));
  EXPECT_THAT(connector->connections, IsEmpty());
  EXPECT_EQ(arming->lent, std::nullopt);
}

TEST_F(EnforcementValidatorTest, lendsTheProbedHostForTwentySeconds) {
  (void)validate();
  ASSERT_TRUE(arming->lastLent);
  EXPECT_EQ(arming->lastLent->domain.name(), "probed.example");
  EXPECT_EQ(arming->lastLent->expiresAt, now + 20);
}

TEST_F(EnforcementValidatorTest, recordsEveryResultWithTheTimeAfterTheRun) {
  connector->gate.hold();
  const auto result = executor.start(validator->validate());
  executor.runReady();
  now = core::Date{1'007};
  connector->gate.open();
  executor.runReady();
  arming->isApproved = false;
  (void)validate();
  EXPECT_THAT(
      recorder->records,
      ElementsAre(Recorder::Record{EnforcementValidation::passed{}, core::Date{1'007}},
                  Recorder::Record{failed(Failure::extensionNotApproved), core::Date{1'007}}));
}

TEST_F(EnforcementValidatorTest, worksWithoutARecorder) {
  validator = make(false);
  EXPECT_EQ(validate(), EnforcementValidation::passed{});
}

TEST_F(EnforcementValidatorTest, connectsOneAfterTheOther) {
  (void)validate();
  EXPECT_EQ(connector->mostAtOnce, 1);
}

TEST_F(EnforcementValidatorTest, letsAllWhoAskedDuringARunShareTheNext) {
  connector->gate.hold();
  const auto first = executor.start(validator->validate());
  executor.runReady();
  const auto second = executor.start(validator->validate());
  const auto third = executor.start(validator->validate());
  executor.runReady();
  EXPECT_THAT(connector->connections, SizeIs(1)) << "the run under way is not shared";

  // What the second and the third ask about is not what the first run saw.
  controlOutcome = Outcome::connectionFailed;
  probedOutcome = Outcome::connectionFailed;
  connector->outcome = [this, calls = 0](const std::string&) mutable {
    return calls++ == 1 ? Outcome::answered : probedOutcome;
  };
  connector->gate.open();
  executor.runReady();
  ASSERT_TRUE(first->has_value() && second->has_value() && third->has_value());
  EXPECT_EQ(**first, EnforcementValidation::passed{});
  EXPECT_EQ(**second, failed(Failure::networkUnavailable));
  EXPECT_EQ(**third, failed(Failure::networkUnavailable));
  EXPECT_THAT(connector->connections, SizeIs(4)) << "two runs for three who asked";
  EXPECT_THAT(recorder->records, SizeIs(2));
}

TEST_F(EnforcementValidatorTest, neverLetsTwoRunsOverlapWhateverTheOrder) {
  for (std::uint64_t seed = 1; seed <= 100; ++seed) {
    SCOPED_TRACE(seed);
    test::DeterministicExecutor other(seed);
    const auto log = std::make_shared<ScriptedArming>();
    const auto several = EnforcementValidator::make(
        other.executor(),
        {.lender = log,
         .path = log,
         .connector = connector,
         .domains = {*core::Domain::make("probed.example"), *core::Domain::make("control.example")},
         .recorder = nullptr,
         .clock = [this] { return now; }});
    std::vector<std::shared_ptr<std::optional<EnforcementValidation>>> results;
    for (int caller = 0; caller < 5; ++caller) {
      results.push_back(other.start(several->validate()));
      for (std::uint64_t step = seed % 7; step > 0; --step) (void)other.step();
    }
    other.runReady();
    for (const auto& result : results) ASSERT_TRUE(result->has_value());
    ASSERT_EQ(log->steps.size() % 4, 0U);
    for (std::size_t at = 0; at < log->steps.size(); at += 4) {
      EXPECT_EQ(log->steps[at], "readiness");
      EXPECT_EQ(log->steps[at + 1], "lend");
      EXPECT_EQ(log->steps[at + 2], "readiness");
      EXPECT_EQ(log->steps[at + 3], "reclaim");
    }
  }
}

TEST_F(EnforcementValidatorTest, verifiesByValidating) {
  struct Row {
    EnforcementValidation validation;
    EnforcementVerification verification;
  };
  using Verification = EnforcementVerification;
  const Row rows[]{
      {failed(Failure::extensionNotApproved), Verification::unverified{DegradedReason::failedOpen}},
      {failed(Failure::filterNotArmed), Verification::unverified{DegradedReason::failedOpen}},
      {failed(Failure::connectionNotDropped),
       Verification::unverified{DegradedReason::pathUnverified}},
      {failed(Failure::networkUnavailable),
       Verification::unverified{DegradedReason::pathUnverified}},
      {failed(Failure::inconclusive), Verification::unverified{DegradedReason::pathUnverified}},
      {EnforcementValidation::passed{}, Verification::verified{}},
  };
  for (const auto& row : rows) EXPECT_EQ(verification(row.validation), row.verification);

  EXPECT_EQ(executor.run(validator->verify(3, {})), Verification::verified{});
  arming->isApproved = false;
  EXPECT_EQ(executor.run(validator->verify(3, {})),
            Verification::unverified{DegradedReason::failedOpen});
  EXPECT_THAT(recorder->records, SizeIs(2)) << "a verification is a validation and is recorded";
}

}  // namespace
}  // namespace stillow::authority
