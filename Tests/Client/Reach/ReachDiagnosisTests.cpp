#include <condition_variable>
#include <mutex>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "StillowReach/BoundedWork.hpp"
#include "StillowReach/ReachDiagnosis.hpp"

namespace stillow::client {

namespace {

using Failure = platform::DaemonConnectionFailure;
using ipc::DaemonError;
using Standing = OwnSignature::Standing;
using testing::HasSubstr;
using testing::Not;

constexpr const char* path = "/run/stillow/daemon.sock";

ReachTarget closedTarget(Failure failure, const std::string& reason = {}) {
  return {
      DaemonError::daemonUnavailable{platform::connectionError(failure, path, reason).description},
      path};
}

ReachObservation observed(std::optional<Failure> failure, OwnSignature signature = {}) {
  return {.failure = failure,
          .detail = "Its own words.",
          .waitedSeconds = 5,
          .signature = std::move(signature),
          .hasServiceManager = true,
          .socketPath = path};
}

}  // namespace

TEST(ReachDiagnosis, tellsEveryCauseApartAndGivesEachANextStep) {
  const OwnSignature refused{Standing::refused, "It is not signed."};
  const OwnSignature trusted{Standing::trusted};
  struct Row {
    const char* what;
    ReachObservation observation;
    ReachCause cause;
    const char* sentence;
    const char* nextStep;
  };
  const Row rows[]{
      {"no socket", observed(Failure::socketMissing), ReachCause::socketMissing,
       "there is no socket at /run/stillow/daemon.sock", "systemctl start"},
      {"nobody listens", observed(Failure::connectionRefused), ReachCause::connectionRefused,
       "nobody listens at /run/stillow/daemon.sock", "journalctl"},
      {"no permission", observed(Failure::notPermitted), ReachCause::notPermitted,
       "This user may not connect to /run/stillow/daemon.sock", "sandbox"},
      {"closed on an unsigned client", observed(Failure::closedUnanswered, refused),
       ReachCause::ownSignature, "does not know this program. It is not signed.",
       "install Stillow again"},
      {"closed on a signed client", observed(Failure::closedUnanswered, trusted),
       ReachCause::closedUnanswered, "is not the cause", "journalctl"},
      {"closed, signature unknown",
       observed(Failure::closedUnanswered, {Standing::unchecked, "So."}),
       ReachCause::closedUnanswered, "could not be checked: So.", "journalctl"},
      {"connection not accepted", observed(Failure::timedOut), ReachCause::timedOut,
       "accepted no connection in time", "Try again"},
      {"no answer", observed(std::nullopt), ReachCause::timedOut, "did not answer within 5 s",
       "the daemon hangs"},
      {"a stranger's socket", observed(Failure::notTrusted), ReachCause::notTrusted,
       "Its own words.", "give /run/stillow back to root"},
      {"no JSON-RPC", observed(Failure::answerUnreadable), ReachCause::answerUnreadable,
       "Its own words.", "one version"},
      {"anything else", observed(Failure::other), ReachCause::other, "Its own words.",
       "Try again"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const ReachFinding finding = judgeReach(row.observation);
    EXPECT_EQ(finding.cause, row.cause);
    EXPECT_THAT(finding.sentence, HasSubstr(row.sentence));
    EXPECT_THAT(finding.nextStep, HasSubstr(row.nextStep));
    EXPECT_TRUE(finding.sentence.ends_with('.')) << finding.sentence;
  }
}

TEST(ReachDiagnosis, namesNoCommandOfAServiceManagerThatIsNotThere) {
  for (const auto failure :
       {Failure::socketMissing, Failure::connectionRefused, Failure::timedOut, Failure::other}) {
    ReachObservation observation = observed(failure);
    observation.hasServiceManager = false;
    EXPECT_THAT(judgeReach(observation).nextStep, Not(HasSubstr("ctl")));
    EXPECT_THAT(judgeReach(observation).nextStep, HasSubstr("StillowDaemon"));
  }
}

TEST(ReachDiagnosis, recognisesEveryFailureOfAConnection) {
  for (const auto failure :
       {Failure::socketMissing, Failure::connectionRefused, Failure::notPermitted,
        Failure::timedOut, Failure::notTrusted, Failure::answerUnreadable, Failure::other}) {
    const auto observation = observeReach(closedTarget(failure, "the reason"));
    ASSERT_TRUE(observation);
    EXPECT_EQ(observation->failure, failure);
    EXPECT_EQ(observation->socketPath, path);
    EXPECT_THAT(observation->detail, HasSubstr("the reason"));
  }
}

TEST(ReachDiagnosis, takesAnUnknownDetailForSomeOtherFailure) {
  const auto finding =
      diagnoseReach({DaemonError::daemonUnavailable{"The wind has changed."}, path});
  ASSERT_TRUE(finding);
  EXPECT_EQ(finding->cause, ReachCause::other);
  EXPECT_EQ(finding->sentence, "The wind has changed.");
}

TEST(ReachDiagnosis, saysHowLongItWaitedForAnAnswer) {
  const auto finding = diagnoseReach({DaemonError::daemonDidNotAnswer{30}, path});
  ASSERT_TRUE(finding);
  EXPECT_EQ(finding->cause, ReachCause::timedOut);
  EXPECT_THAT(finding->sentence, HasSubstr("within 30 s."));
}

TEST(ReachDiagnosis, hasNothingToSayOfARefusal) {
  EXPECT_FALSE(diagnoseReach({DaemonError::noActiveCommitment{}, path}));
  EXPECT_FALSE(diagnoseReach({DaemonError::internalFailure{"Broken."}, path}));
}

TEST(ReachDiagnosis, countsARequirementThatDoesNotCompileAsNotReached) {
  const auto finding = diagnoseReach({DaemonError::notAuthorized{}, path});
  ASSERT_TRUE(finding);
  EXPECT_EQ(finding->cause, ReachCause::other);
}

// The build signs the product's programs and no test.
TEST(ReachDiagnosis, findsThatAnUnsignedProgramWasRefusedForThat) {
  const auto finding = diagnoseReach(closedTarget(Failure::closedUnanswered));
  ASSERT_TRUE(finding);
  EXPECT_EQ(finding->cause, ReachCause::ownSignature);
  EXPECT_THAT(finding->sentence, HasSubstr("is not signed."));
}

TEST(BoundedWork, givesUpWorkThatDoesNotEnd) {
  struct Held {
    std::mutex mutex;
    std::condition_variable released;
    bool isReleased = false;
  };
  const auto held = std::make_shared<Held>();
  const auto result = withinLimit(std::chrono::milliseconds(1), [held] {
    std::unique_lock lock(held->mutex);
    held->released.wait(lock, [&] { return held->isReleased; });
    return 1;
  });
  EXPECT_FALSE(result);
  const std::lock_guard lock(held->mutex);
  held->isReleased = true;
  held->released.notify_all();
}

TEST(BoundedWork, givesTheResultOfWorkThatEnds) {
  EXPECT_EQ(withinLimit(std::chrono::minutes(5), [] { return 7; }), 7);
}

}  // namespace stillow::client
