#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <string_view>
#include <unordered_set>

#include <gtest/gtest.h>

#include "RecordTesting.hpp"
#include "StillowIPC/DaemonCallDeadlines.hpp"
#include "StillowIPC/DaemonOperation.hpp"
#include "StillowIPC/DaemonWireCoding.hpp"
#include "StillowIPC/RecordHash.hpp"

namespace stillow::ipc {
namespace {

using testing::activeDaemonStatus;
using testing::activeStatusJSON;
using testing::domain;
using testing::domains;
using testing::moment;
using Validation = core::EnforcementValidation;
using Refusal = ActivationValidationRefusal;
using Selection = core::CommitmentSelection;

constexpr std::string_view workID = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";

core::Group::ID work() { return {*core::UUID::parse(workID)}; }

/// `record` has these bytes, and they are read as that record.
template <class Record>
void expectForm(const Record& record, std::string_view json) {
  SCOPED_TRACE(json);
  const auto encoded = DaemonWireCoding::encode(record);
  ASSERT_TRUE(encoded);
  EXPECT_EQ(*encoded, json);
  const auto decoded = DaemonWireCoding::decode<Record>(json);
  ASSERT_TRUE(decoded) << core::describe(decoded.error());
  EXPECT_EQ(*decoded, record);
}

template <class Record>
std::string refusal(std::string_view json) {
  const auto decoded = DaemonWireCoding::decode<Record>(json);
  return decoded ? "decoded" : core::describe(decoded.error());
}

TEST(WireRecords, activationRequestIsWrittenInFieldOrder) {
  expectForm(
      ActivationRequest{
          .selection = Selection::groups{*core::NonEmptySet<core::Group::ID>::make({work()})},
          .collectionSnapshot = {{domain("a.example"), core::GroupIDSet({work()})},
                                 {domain("b.example"), {}}},
          .duration = *core::CommitmentDuration::fromHours(2)},
      R"({"selection":{"groups":{"_0":["E621E1F8-C36C-495A-93FC-0C247A3E6E5F"]}},)"
      R"("collectionSnapshot":[{"domain":"a.example",)"
      R"("groups":["E621E1F8-C36C-495A-93FC-0C247A3E6E5F"]},{"domain":"b.example","groups":[]}],)"
      R"("duration":7200})");
}

TEST(WireRecords, activationRequestKeepsTheTextsOfItsParts) {
  const auto withDuration = [](std::string_view duration) {
    return R"({"selection":{"allWebsites":{}},"collectionSnapshot":[],"duration":)" +
           std::string(duration) + "}";
  };
  EXPECT_EQ(refusal<ActivationRequest>(withDuration("1")), "decoded");
  EXPECT_EQ(refusal<ActivationRequest>(withDuration("0")),
            "duration: CommitmentDuration must be in (0, 24h]; got 0.0");
  EXPECT_EQ(refusal<ActivationRequest>(withDuration("86400.5")),
            "duration: CommitmentDuration must be in (0, 24h]; got 86400.5");
  EXPECT_EQ(refusal<ActivationRequest>(
                R"({"selection":{"groups":{"_0":[]}},"collectionSnapshot":[],"duration":1})"),
            "selection.groups._0: NonEmptySet cannot be decoded from an empty collection");
  EXPECT_EQ(refusal<ActivationRequest>(R"({"selection":{"allWebsites":{}},"collectionSnapshot":[)"
                                       R"({"domain":"not a name","groups":[]}],"duration":1})"),
            "collectionSnapshot[0].domain: Not a valid domain name: not a name");
}

TEST(WireRecords, scopeAdditionCarriesWebsitesOrASelection) {
  expectForm(ScopeAddition(ScopeAddition::websites{domains({"a.example", "b.example"})}),
             R"({"websites":{"_0":["a.example","b.example"]}})");
  expectForm(ScopeAddition(
                 ScopeAddition::selection{Selection::allWebsites{}, {{domain("a.example"), {}}}}),
             R"({"selection":{"_0":{"allWebsites":{}},)"
             R"("collectionSnapshot":[{"domain":"a.example","groups":[]}]}})");
}

TEST(WireRecords, scopeAdditionWithoutWebsitesStillEncodes) {
  expectForm(ScopeAddition(ScopeAddition::websites{}), R"({"websites":{"_0":[]}})");
}

TEST(WireRecords, setsAreReadInAnyOrderAndDuplicatesCollapse) {
  const auto decoded = DaemonWireCoding::decode<ScopeAddition>(
      R"({"websites":{"_0":["b.example","a.example","b.example"]}})");
  ASSERT_TRUE(decoded);
  EXPECT_EQ(*decoded, ScopeAddition(ScopeAddition::websites{domains({"a.example", "b.example"})}));
}

TEST(WireRecords, extensionRequestCarriesTheEndTime) {
  expectForm(ExtensionRequest{{moment}}, R"({"newEndTime":{"date":816458820}})");
}

TEST(WireRecords, commitmentStatusHasOneFormPerCase) {
  expectForm(CommitmentStatus(CommitmentStatus::idle{}), R"({"idle":{}})");
  expectForm(CommitmentStatus(CommitmentStatus::expired{moment}),
             R"({"expired":{"endedAt":816458820}})");
  expectForm(CommitmentStatus(CommitmentStatus::active{testing::activeStatus()}),
             R"({"active":{"_0":)" + std::string(activeStatusJSON) + "}}");
}

TEST(WireRecords, daemonStatusIsWrittenInFieldOrder) {
  expectForm(activeDaemonStatus(), R"({"observedAt":816458820,"commitment":{"active":{"_0":)" +
                                       std::string(activeStatusJSON) +
                                       R"(}},"enforcement":{"degraded":{"_0":"pathUnverified"}},)"
                                       R"("readiness":{"filterConfigurationIsEnabled":true,)"
                                       R"("validation":{"passed":{}},"validatedAt":816458820}})");
  expectForm(testing::idleStatus(),
             R"({"observedAt":816458820,"commitment":{"idle":{}},"enforcement":{"healthy":{}},)"
             R"("readiness":{"filterConfigurationIsEnabled":false}})");
}

TEST(WireRecords, readinessLeavesOutWhatIsAbsent) {
  expectForm(EnforcementReadinessReport{}, R"({"filterConfigurationIsEnabled":false})");
  expectForm(EnforcementReadinessReport{.filterConfigurationIsEnabled = true},
             R"({"filterConfigurationIsEnabled":true})");
  expectForm(
      EnforcementReadinessReport{
          .validation = Validation::failed{core::EnforcementValidationFailure::inconclusive},
          .validatedAt = moment},
      R"({"filterConfigurationIsEnabled":false,"validation":{"failed":{"_0":"inconclusive"}},)"
      R"("validatedAt":816458820})");
  // Null is as good as absent, but is never written.
  EXPECT_EQ(DaemonWireCoding::decode<EnforcementReadinessReport>(
                R"({"filterConfigurationIsEnabled":true,"validation":null,"validatedAt":null})"),
            EnforcementReadinessReport{.filterConfigurationIsEnabled = true});
}

TEST(WireRecords, refusalsHaveOneFormPerCase) {
  expectForm(Refusal(Refusal::validationStale{moment}),
             R"({"validationStale":{"validatedAt":816458820}})");
  expectForm(Refusal(Refusal::validationFailed{core::EnforcementValidationFailure::filterNotArmed}),
             R"({"validationFailed":{"_0":"filterNotArmed"}})");
  expectForm(Refusal(Refusal::neverValidated{}), R"({"neverValidated":{}})");
}

TEST(WireRecords, readersIgnoreUnknownKeysOfRecordsAndTakeTheFirstOfDuplicates) {
  EXPECT_EQ(DaemonWireCoding::decode<ExtensionRequest>(
                R"({"new":1,"newEndTime":{"date":5,"zone":"UTC"},"newEndTime":{"date":6}})"),
            (ExtensionRequest{{core::Date{5}}}));
}

TEST(WireRecords, enumerationsCountEveryKey) {
  constexpr std::string_view wrongCount = "Invalid number of keys found, expected one.";
  for (const char* const json :
       {"{}", R"({"bogus":{}})", R"({"Idle":{}})", R"({"idle":{},"expired":{"endedAt":1}})",
        R"({"idle":{},"bogus":1})", R"({"bogus":1,"idle":{}})", R"({"idle":{},"active":null})"}) {
    SCOPED_TRACE(json);
    EXPECT_EQ(refusal<CommitmentStatus>(json), wrongCount);
  }
  EXPECT_EQ(
      refusal<core::EnforcementHealthStatus>(R"({"healthy":{},"degraded":{"_0":"failedOpen"}})"),
      wrongCount);
  EXPECT_EQ(refusal<CommitmentStatus>(R"({"idle":{},"idle":{}})"), "decoded");
  EXPECT_EQ(refusal<CommitmentStatus>(R"({"idle":{"x":1}})"), "decoded");
}

TEST(WireRecords, enumerationsSayWhatIsWrongWithAPayload) {
  EXPECT_EQ(refusal<CommitmentStatus>(R"({"idle":null})"),
            "idle: Cannot get keyed decoding container -- found null value instead");
  EXPECT_EQ(refusal<CommitmentStatus>(R"({"idle":[]})"),
            "idle: Expected to decode Dictionary<String, Any> but found an array instead.");
  EXPECT_EQ(refusal<CommitmentStatus>(R"({"idle":1})"),
            "idle: Expected to decode Dictionary<String, Any> but found number instead.");
  EXPECT_EQ(refusal<CommitmentStatus>(R"({"active":{"_0":7}})"),
            "active._0: Expected to decode Dictionary<String, Any> but found number instead.");
  EXPECT_EQ(refusal<CommitmentStatus>(R"("idle")"),
            "Expected to decode Dictionary<String, Any> but found a string instead.");
  EXPECT_EQ(refusal<CommitmentStatus>("null"),
            "Cannot get keyed decoding container -- found null value instead");
  EXPECT_EQ(refusal<CommitmentStatus>(R"({"expired":{"endedAt":"now"}})"),
            "expired.endedAt: Expected to decode Double but found a string instead.");
  for (const char* const json : {R"({"expired":{}})", R"({"expired":{"_0":5}})"}) {
    EXPECT_TRUE(
        refusal<CommitmentStatus>(json).starts_with("expired: No value associated with key"))
        << refusal<CommitmentStatus>(json);
  }
}

TEST(WireRecords, namedEnumerationsMatchExactly) {
  EXPECT_EQ(DaemonWireCoding::decode<core::EnforcementHealthStatus>(
                R"({"degraded":{"_0":"failedOpen"}})"),
            core::EnforcementHealthStatus(
                core::EnforcementHealthStatus::degraded{core::DegradedReason::failedOpen}));
  EXPECT_EQ(refusal<core::EnforcementHealthStatus>(R"({"degraded":{"_0":"FailedOpen"}})"),
            "degraded._0: Cannot initialize DegradedReason from invalid String value FailedOpen");
  EXPECT_EQ(refusal<core::DegradedReason>("1"),
            "Expected to decode String but found number instead.");
  EXPECT_EQ(refusal<core::DegradedReason>("null"),
            "Cannot get value of type String -- found null value instead");
}

TEST(WireRecords, datesKeepTheirFractions) {
  std::mt19937_64 random(1);
  std::uniform_real_distribution<double> seconds(-1e9, 1e10);
  for (int round = 0; round < 1'000; ++round) {
    const CommitmentStatus status = CommitmentStatus::expired{{seconds(random)}};
    const auto encoded = DaemonWireCoding::encode(status);
    ASSERT_TRUE(encoded);
    EXPECT_EQ(DaemonWireCoding::decode<CommitmentStatus>(*encoded), status) << *encoded;
  }
}

TEST(WireRecords, whatJSONHasNoFormForDoesNotEncode) {
  for (const double seconds : {std::nan(""), std::numeric_limits<double>::infinity(),
                               -std::numeric_limits<double>::infinity()}) {
    EXPECT_FALSE(DaemonWireCoding::encode(ExtensionRequest{{core::Date{seconds}}}));
  }
}

TEST(WireRecords, garbageIsRefusedWithOneText) {
  for (const char* const json : {"", " ", "{", "nonsense", "{\"newEndTime\":{\"date\":1}} x"}) {
    EXPECT_EQ(refusal<ExtensionRequest>(json), "The given data was not valid JSON.") << json;
  }
}

TEST(WireRecords, equalRecordsHashAlike) {
  std::unordered_set<DaemonStatus> statuses{activeDaemonStatus(), testing::idleStatus()};
  EXPECT_TRUE(statuses.contains(activeDaemonStatus()));
  DaemonStatus other = activeDaemonStatus();
  other.readiness.validatedAt.reset();
  EXPECT_FALSE(statuses.contains(other));
  EXPECT_NE(std::hash<DaemonStatus>{}(other), std::hash<DaemonStatus>{}(activeDaemonStatus()));

  const ScopeAddition additions[]{ScopeAddition::websites{},
                                  ScopeAddition::websites{domains({"a.example"})},
                                  ScopeAddition::selection{Selection::allWebsites{}, {}}};
  const std::unordered_set<ScopeAddition> set(std::begin(additions), std::end(additions));
  EXPECT_EQ(set.size(), 3U);
  const ActivationRequest request{.selection = Selection::allWebsites{},
                                  .collectionSnapshot = {{domain("a.example"), {}}},
                                  .duration = core::CommitmentDuration::maximum()};
  EXPECT_EQ(std::hash<ActivationRequest>{}(request), std::hash<ActivationRequest>{}(request));
  const ExtensionRequest extension{{moment}};
  const ExtensionRequest longer{{moment + 1}};
  EXPECT_NE(std::hash<ExtensionRequest>{}(extension), std::hash<ExtensionRequest>{}(longer));
}

TEST(DaemonOperation, isNamedByItsRawValue) {
  constexpr std::string_view names[]{"status",
                                     "activate",
                                     "strengthen",
                                     "extend",
                                     "subscribeToStatusChanges",
                                     "validateEnforcement",
                                     "acknowledgeExpiry",
                                     "armFilterConfiguration",
                                     "announceUserInterface"};
  for (std::size_t index = 0; index < std::size(names); ++index) {
    EXPECT_EQ(core::rawValue(static_cast<DaemonOperation>(index)), names[index]);
  }
  EXPECT_EQ(core::Coding<DaemonOperation>::names.size(), std::size(names));
}

// Where the window lies is a promise to the user, so both ends of it are pinned.
TEST(EnforcementReadinessReport, permitsActivationForTwoMinutesAfterAPassedValidation) {
  const EnforcementReadinessReport passed{.filterConfigurationIsEnabled = true,
                                          .validation = Validation::passed{},
                                          .validatedAt = moment};
  const Refusal stale = Refusal::validationStale{moment};
  struct Row {
    double age;
    std::optional<Refusal> refusal;
  };
  const Row rows[]{{0, std::nullopt}, {0.5, std::nullopt},  {120, std::nullopt},
                   {120.001, stale},  {86'400, stale},      {-0.001, stale},
                   {-1, stale},       {std::nan(""), stale}};
  for (const Row& row : rows) {
    EXPECT_EQ(passed.activationRefusal(moment + row.age), row.refusal) << row.age;
  }
}

TEST(EnforcementReadinessReport, refusesWithoutAValidationThatPassed) {
  EnforcementReadinessReport report{.filterConfigurationIsEnabled = true};
  EXPECT_EQ(report.activationRefusal(moment), Refusal(Refusal::neverValidated{}));
  report.validatedAt = moment;
  EXPECT_EQ(report.activationRefusal(moment), Refusal(Refusal::neverValidated{}));
  report.validation = Validation::failed{core::EnforcementValidationFailure::networkUnavailable};
  EXPECT_EQ(
      report.activationRefusal(moment),
      Refusal(Refusal::validationFailed{core::EnforcementValidationFailure::networkUnavailable}));
  report.validatedAt.reset();
  EXPECT_EQ(
      report.activationRefusal(moment),
      Refusal(Refusal::validationFailed{core::EnforcementValidationFailure::networkUnavailable}));
}

TEST(EnforcementReadinessReport, takesAPassedValidationWithoutADateForNone) {
  const EnforcementReadinessReport report{.validation = Validation::passed{}};
  EXPECT_EQ(report.activationRefusal(moment), Refusal(Refusal::neverValidated{}));
}

TEST(DaemonCallDeadlines, hasThePresetsThatCallersRelyOn) {
  using std::chrono::seconds;
  EXPECT_EQ(DaemonCallDeadlines::standard(), (DaemonCallDeadlines{seconds(5), seconds(30)}));
  EXPECT_EQ(DaemonCallDeadlines::quick(), (DaemonCallDeadlines{seconds(2), seconds(30)}));
}

}  // namespace
}  // namespace stillow::ipc
