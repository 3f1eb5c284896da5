#include <cmath>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "RecordTesting.hpp"
#include "StillowIPC/DaemonError.hpp"
#include "StillowIPC/DaemonWireCoding.hpp"

namespace stillow::ipc {
namespace {

using testing::activeStatus;
using testing::activeStatusJSON;
using testing::moment;
using Error = DaemonError;
using Refusal = ActivationValidationRefusal;
using Failure = core::EnforcementValidationFailure;

struct Row {
  DaemonError error;
  std::string message;
  std::string json;
};

/// Every case, with each way in which a payload shows.
const std::vector<Row>& rows() {
  static const std::vector<Row> all{
      {Error::commitmentAlreadyActive{activeStatus()},
       "A Commitment is already active; strengthen it instead of starting another.",
       R"({"commitmentAlreadyActive":{"active":)" + std::string(activeStatusJSON) + "}}"},
      {Error::noActiveCommitment{}, "No Commitment is active.", R"({"noActiveCommitment":{}})"},
      {Error::scopeResolvedEmpty{}, "The selection resolved to an empty Scope.",
       R"({"scopeResolvedEmpty":{}})"},
      {Error::strengtheningAddsNoWebsites{}, "Every Website offered is already in Scope.",
       R"({"strengtheningAddsNoWebsites":{}})"},
      {Error::extensionDoesNotStrengthen{{moment + 0.5}},
       "The proposed End Time is not later than the current projected End Time.",
       R"({"extensionDoesNotStrengthen":{"currentEndTime":{"date":816458820.5}}})"},
      {Error::extensionExceedsActivationBoundary{moment},
       "The proposed End Time is past the 24-hour boundary from activation "
       "(2026-11-15 18:07:00 +0000).",
       R"({"extensionExceedsActivationBoundary":{"latestPermittedEndTime":816458820}})"},
      {Error::enforcementNotValidated{Refusal::validationStale{moment}},
       "The last enforcement validation is too old to act on (2026-11-15 18:07:00 +0000).",
       R"({"enforcementNotValidated":{"_0":{"validationStale":{"validatedAt":816458820}}}})"},
      {Error::enforcementNotValidated{Refusal::validationFailed{Failure::extensionNotApproved}},
       "The end-to-end enforcement validation did not pass: extensionNotApproved.",
       R"({"enforcementNotValidated":{"_0":{"validationFailed":{"_0":"extensionNotApproved"}}}})"},
      {Error::enforcementNotValidated{Refusal::validationFailed{Failure::filterNotArmed}},
       "The end-to-end enforcement validation did not pass: filterNotArmed.",
       R"({"enforcementNotValidated":{"_0":{"validationFailed":{"_0":"filterNotArmed"}}}})"},
      {Error::enforcementNotValidated{Refusal::validationFailed{Failure::connectionNotDropped}},
       "The end-to-end enforcement validation did not pass: connectionNotDropped.",
       R"({"enforcementNotValidated":{"_0":{"validationFailed":{"_0":"connectionNotDropped"}}}})"},
      {Error::enforcementNotValidated{Refusal::validationFailed{Failure::networkUnavailable}},
       "The end-to-end enforcement validation did not pass: networkUnavailable.",
       R"({"enforcementNotValidated":{"_0":{"validationFailed":{"_0":"networkUnavailable"}}}})"},
      {Error::enforcementNotValidated{Refusal::validationFailed{Failure::inconclusive}},
       "The end-to-end enforcement validation did not pass: inconclusive.",
       R"({"enforcementNotValidated":{"_0":{"validationFailed":{"_0":"inconclusive"}}}})"},
      {Error::enforcementNotValidated{Refusal::neverValidated{}},
       "Stillow has not run its end-to-end enforcement validation.",
       R"({"enforcementNotValidated":{"_0":{"neverValidated":{}}}})"},
      {Error::malformedRequest{"ActivationRequest"},
       "The daemon could not decode the request: ActivationRequest",
       R"({"malformedRequest":{"detail":"ActivationRequest"}})"},
      {Error::notAuthorized{},
       "The connection's code-signing requirement could not be established.",
       R"({"notAuthorized":{}})"},
      {Error::daemonUnavailable{"The daemon proxy is unavailable."},
       "The Stillow daemon is unavailable: The daemon proxy is unavailable.",
       R"({"daemonUnavailable":{"detail":"The daemon proxy is unavailable."}})"},
      {Error::daemonDidNotAnswer{5}, "The Stillow daemon did not answer within 5.0 seconds.",
       R"({"daemonDidNotAnswer":{"afterSeconds":5}})"},
      {Error::daemonDidNotAnswer{2.5}, "The Stillow daemon did not answer within 2.5 seconds.",
       R"({"daemonDidNotAnswer":{"afterSeconds":2.5}})"},
      {Error::internalFailure{"No current XPC connection."},
       "The Stillow daemon reported an internal failure: No current XPC connection.",
       R"({"internalFailure":{"detail":"No current XPC connection."}})"},
  };
  return all;
}

TEST(DaemonError, hasAFixedMessageForEveryCase) {
  for (const Row& row : rows()) EXPECT_EQ(description(row.error), row.message);
}

TEST(DaemonError, hasAFixedJSONFormForEveryCase) {
  for (const Row& row : rows()) {
    SCOPED_TRACE(row.json);
    EXPECT_EQ(DaemonWireCoding::encode(row.error), row.json);
    EXPECT_EQ(DaemonWireCoding::decode<DaemonError>(row.json), row.error);
  }
}

TEST(DaemonError, writesWholeSecondsWithAFraction) {
  EXPECT_EQ(description(Error::daemonDidNotAnswer{30}),
            "The Stillow daemon did not answer within 30.0 seconds.");
  EXPECT_EQ(description(Error::daemonDidNotAnswer{2}),
            "The Stillow daemon did not answer within 2.0 seconds.");
}

TEST(DaemonError, survivesThePlatformsErrorWithItsPayload) {
  for (const Row& row : rows()) {
    SCOPED_TRACE(row.json);
    const PlatformError error = row.error.platformError();
    EXPECT_EQ(error.domain, "com.larchmoor.Stillow.DaemonError");
    EXPECT_EQ(error.code, 1);
    EXPECT_EQ(error.description, row.message);
    EXPECT_EQ(error.payload, row.json);
    EXPECT_EQ(DaemonError::decoded(error), row.error);
    EXPECT_EQ(DaemonError::from(error), row.error);
  }
}

TEST(DaemonError, namesTheKeyOfItsPayload) {
  EXPECT_EQ(PlatformError::daemonErrorPayloadKey, "StillowDaemonErrorPayload");
}

TEST(DaemonError, keepsItsWordsWhenItDoesNotEncode) {
  const DaemonError error = Error::daemonDidNotAnswer{std::nan("")};
  EXPECT_EQ(error.platformError().payload, std::nullopt);
  EXPECT_EQ(
      DaemonError::from(error.platformError()),
      DaemonError(Error::internalFailure{"The Stillow daemon did not answer within nan seconds."}));
}

TEST(DaemonError, withoutItsPayloadIsAnInternalFailureInTheDaemonsWords) {
  PlatformError error = DaemonError(Error::noActiveCommitment{}).platformError();
  error.payload.reset();
  EXPECT_EQ(DaemonError::decoded(error), std::nullopt);
  EXPECT_EQ(DaemonError::from(error),
            DaemonError(Error::internalFailure{"No Commitment is active."}));
}

TEST(DaemonError, withAnUndecodablePayloadIsAnInternalFailureInTheDaemonsWords) {
  PlatformError error = DaemonError(Error::noActiveCommitment{}).platformError();
  for (const char* const payload :
       {"", "{}", "no JSON", R"({"unknown":{}})", R"({"internalFailure":{}})"}) {
    SCOPED_TRACE(payload);
    error.payload = payload;
    EXPECT_EQ(DaemonError::decoded(error), std::nullopt);
    EXPECT_EQ(DaemonError::from(error),
              DaemonError(Error::internalFailure{"No Commitment is active."}));
  }
}

TEST(DaemonError, isNotReadOutOfAnErrorOfAnotherDomain) {
  PlatformError error = DaemonError(Error::noActiveCommitment{}).platformError();
  for (const char* const domain :
       {"", "com.larchmoor.Stillow.DaemonError2", "com.larchmoor.stillow.daemonerror"}) {
    SCOPED_TRACE(domain);
    error.domain = domain;
    EXPECT_EQ(DaemonError::decoded(error), std::nullopt);
    EXPECT_EQ(DaemonError::from(error),
              DaemonError(Error::internalFailure{"No Commitment is active."}));
  }
}

TEST(DaemonError, isUnavailabilityForErrorsOfTheConnection) {
  for (const char* const domain : {"NSCocoaErrorDomain", "NSXPCConnectionErrorDomain"}) {
    SCOPED_TRACE(domain);
    const PlatformError error{.domain = domain,
                              .code = 4097,
                              .description = "connection interrupted",
                              .payload = R"({"noActiveCommitment":{}})"};
    EXPECT_EQ(DaemonError::from(error),
              DaemonError(Error::daemonUnavailable{"connection interrupted"}));
  }
}

}  // namespace
}  // namespace stillow::ipc
