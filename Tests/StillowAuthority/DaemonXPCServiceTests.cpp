#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "DaemonXPCServiceTesting.hpp"
#include "StillowAuthority/DaemonXPCService.hpp"
#include "StillowIPC/InMemoryDaemonEndpoint.hpp"
#include "StillowIPC/XPCCommitmentAuthorityClient.hpp"

namespace stillow::authority {
namespace {

using ipc::DaemonError;
using ipc::DaemonOperation;
using testing::domains;
using testing::encoded;
using testing::ServiceWorld;
using testing::start;
using Refusal = ipc::ActivationValidationRefusal;
using Validation = core::EnforcementValidation;

std::string activation(const core::DomainSet& websites = domains({"a.example"})) {
  return encoded(testing::activationRequest(websites));
}
std::string addition(const core::DomainSet& websites) {
  return encoded(ipc::ScopeAddition(ipc::ScopeAddition::websites{websites}));
}

struct DaemonXPCServiceTest : ServiceWorld, ::testing::Test {
  void SetUp() override { serve(); }
};

// ---- calls

TEST_F(DaemonXPCServiceTest, answersWithTheStatus) {
  passTime(17);
  EXPECT_EQ(call(DaemonOperation::status).status(), status());
}

TEST_F(DaemonXPCServiceTest, activatesAfterAFreshValidation) {
  passValidation();
  const auto answered = call(DaemonOperation::activate, activation()).status();
  ASSERT_TRUE(answered);
  ASSERT_NE(answered->active(), nullptr);
  EXPECT_EQ(answered->active()->scope, domains({"a.example"}));
  EXPECT_EQ(answered, status());
}

TEST_F(DaemonXPCServiceTest, refusesAnActivationThatIsNotValidatedBeforeItIsRead) {
  const std::optional<std::string> garbage[]{std::nullopt, "",    "no JSON",
                                             "{}",         "[1]", activation()};
  for (const auto& request : garbage) {
    EXPECT_EQ(call(DaemonOperation::activate, request).error(),
              DaemonError(DaemonError::enforcementNotValidated{Refusal::neverValidated{}}));
  }
  passValidation();
  passTime(120.5);
  for (const auto& request : garbage) {
    EXPECT_EQ(call(DaemonOperation::activate, request).error(),
              DaemonError(DaemonError::enforcementNotValidated{Refusal::validationStale{start}}));
  }
  run(authority->record(Validation::failed{core::EnforcementValidationFailure::inconclusive},
                        *now));
  for (const auto& request : garbage) {
    EXPECT_EQ(call(DaemonOperation::activate, request).error(),
              DaemonError(DaemonError::enforcementNotValidated{
                  Refusal::validationFailed{core::EnforcementValidationFailure::inconclusive}}));
  }
  EXPECT_EQ(status().active(), nullptr);
}

TEST_F(DaemonXPCServiceTest, namesTheRecordThatDoesNotDecode) {
  passValidation();
  struct Row {
    DaemonOperation operation;
    const char* record;
  };
  const Row rows[]{{DaemonOperation::activate, "ActivationRequest"},
                   {DaemonOperation::strengthen, "ScopeAddition"},
                   {DaemonOperation::extend, "ExtensionRequest"}};
  for (const Row& row : rows) {
    for (const std::optional<std::string>& request :
         std::vector<std::optional<std::string>>{std::nullopt, "", "{}", "[]", "null", "{\"x\":"}) {
      EXPECT_EQ(call(row.operation, request).error(),
                DaemonError(DaemonError::malformedRequest{row.record}));
    }
  }
  EXPECT_EQ(clock->samples, 0);
}

TEST_F(DaemonXPCServiceTest, handsTheAuthoritysRefusalsOn) {
  EXPECT_EQ(call(DaemonOperation::strengthen, addition(domains({"b.example"}))).error(),
            DaemonError(DaemonError::noActiveCommitment{}));
  ASSERT_TRUE(activate());
  EXPECT_EQ(call(DaemonOperation::strengthen, addition({})).error(),
            DaemonError(DaemonError::strengtheningAddsNoWebsites{}));
  const auto again = call(DaemonOperation::activate, activation()).error();
  ASSERT_TRUE(again);
  EXPECT_TRUE(core::is<DaemonError::commitmentAlreadyActive>(*again));
}

TEST_F(DaemonXPCServiceTest, strengthensAndAcknowledges) {
  ASSERT_TRUE(activate());
  const auto stronger =
      call(DaemonOperation::strengthen, addition(domains({"b.example"}))).status();
  ASSERT_TRUE(stronger);
  EXPECT_EQ(stronger->active()->scope, domains({"a.example", "b.example"}));
  (void)run(authority->recordRunningTime(3'600, RunningTimeRecording::durable));
  EXPECT_TRUE(core::is<ipc::CommitmentStatus::expired>(status().commitment));
  const auto acknowledged = call(DaemonOperation::acknowledgeExpiry).status();
  ASSERT_TRUE(acknowledged);
  EXPECT_TRUE(core::is<ipc::CommitmentStatus::idle>(acknowledged->commitment));
}

TEST_F(DaemonXPCServiceTest, decodesARequestOfManyWebsites) {
  ASSERT_TRUE(activate());
  const auto many = testing::manyDomains(20'000);
  const auto stronger = call(DaemonOperation::strengthen, addition(many)).status();
  ASSERT_TRUE(stronger);
  EXPECT_EQ(stronger->active()->scope.size(), 20'001U);
}

// An hour asleep belongs to the time before the extension, not to what was extended.
TEST_F(DaemonXPCServiceTest, chargesRunningTimeBeforeAnExtensionIsRuled) {
  ASSERT_TRUE(activate(domains({"a.example"}), 7'200));
  passTime(3'600);
  clock->uncharged = 3'600;
  const core::ProjectedEndTime end{start + 10'000};
  const auto extended = call(DaemonOperation::extend, encoded(ipc::ExtensionRequest{end})).status();
  ASSERT_TRUE(extended);
  EXPECT_EQ(clock->samples, 1);
  EXPECT_EQ(extended->active()->projectedEndTime, end);
  EXPECT_EQ(extended->active()->remainingDuration, 6'400);
}

TEST_F(DaemonXPCServiceTest, chargesAgainWhereTheMachineSleptBehindTheSample) {
  ASSERT_TRUE(activate(domains({"a.example"}), 7'200));
  passTime(3'600);
  clock->uncharged = 3'000;
  clock->unchargedLater = 600;
  const core::ProjectedEndTime end{start + 10'000};
  const auto extended = call(DaemonOperation::extend, encoded(ipc::ExtensionRequest{end})).status();
  ASSERT_TRUE(extended);
  EXPECT_EQ(clock->samples, 2);
  EXPECT_EQ(clock->uncharged, 0);
  EXPECT_EQ(extended->active()->remainingDuration, 6'400);
}

// A clock that never catches up keeps nobody from extending.
TEST_F(DaemonXPCServiceTest, extendsInTheEndWhereTimeStaysUncharged) {
  ASSERT_TRUE(activate(domains({"a.example"}), 7'200));
  clock->uncharged = clock->unchargedLater = 1;
  clock->alwaysLate = true;
  const core::ProjectedEndTime end{start + 10'000};
  const auto extended = call(DaemonOperation::extend, encoded(ipc::ExtensionRequest{end})).status();
  ASSERT_TRUE(extended);
  EXPECT_LE(clock->samples, 5);
  EXPECT_EQ(extended->active()->projectedEndTime, end);
}

TEST_F(DaemonXPCServiceTest, extendsWithoutAClock) {
  serve([](auto& dependencies) { dependencies.runningTime = nullptr; });
  ASSERT_TRUE(activate());
  const core::ProjectedEndTime end{start + 10'000};
  EXPECT_TRUE(call(DaemonOperation::extend, encoded(ipc::ExtensionRequest{end})).status());
}

TEST_F(DaemonXPCServiceTest, answersAValidationWithTheStatusBehindIt) {
  const auto answered = call(DaemonOperation::validateEnforcement).status();
  ASSERT_TRUE(answered);
  EXPECT_EQ(validator->runs, 1);
  EXPECT_EQ(answered->readiness.validation, Validation(Validation::passed{}));
  EXPECT_EQ(answered->readiness.validatedAt, start);
}

TEST_F(DaemonXPCServiceTest, saysThatItHasNoValidator) {
  serve([](auto& dependencies) { dependencies.validator = nullptr; });
  EXPECT_EQ(call(DaemonOperation::validateEnforcement).error(),
            DaemonError(DaemonError::internalFailure{
                "No enforcement validation is available on this daemon."}));
}

TEST_F(DaemonXPCServiceTest, reappliesTheFilterConfiguration) {
  EXPECT_EQ(call(DaemonOperation::armFilterConfiguration).status(), status());
  EXPECT_EQ(reapplier->runs, 1);
}

TEST_F(DaemonXPCServiceTest, answersWithTheStatusIfThereIsNoFilterToArm) {
  serve([](auto& dependencies) { dependencies.filterArming = nullptr; });
  EXPECT_EQ(call(DaemonOperation::armFilterConfiguration).status(), status());
}

TEST_F(DaemonXPCServiceTest, reportsAStatusThatDoesNotEncode) {
  setTime({std::nan("")});
  EXPECT_EQ(call(DaemonOperation::status).error(),
            DaemonError(DaemonError::internalFailure{"Could not encode the daemon status."}));
  EXPECT_EQ(call(DaemonOperation::subscribeToStatusChanges).error(),
            DaemonError(DaemonError::internalFailure{"Could not encode the daemon status."}));
}

TEST_F(DaemonXPCServiceTest, leavesNoCallWithoutAnAnswer) {
  const auto connection = connect();
  const auto into = std::make_shared<std::vector<testing::Message>>();
  send(connection, DaemonOperation::status, std::nullopt, into);
  service.reset();
  executor.runReady();
  ASSERT_EQ(into->size(), 1U);
}

// ---- who may come in

TEST_F(DaemonXPCServiceTest, requiresWhatItWasToldOfEveryPeer) {
  const auto terms =
      service->shouldAcceptNewConnection(std::make_shared<testing::RecordedConnection>());
  ASSERT_TRUE(terms);
  EXPECT_EQ(terms->requirement, ipc::CodeSigningRequirement::trustedPeers());
}

TEST_F(DaemonXPCServiceTest, acceptsEverybodyWithoutARequirement) {
  serve([](auto& dependencies) { dependencies.requirement.reset(); });
  const auto terms =
      service->shouldAcceptNewConnection(std::make_shared<testing::RecordedConnection>());
  ASSERT_TRUE(terms);
  EXPECT_EQ(terms->requirement, std::nullopt);
}

TEST_F(DaemonXPCServiceTest, refusesEverybodyIfTheRequirementDoesNotCompile) {
  serve([](auto& dependencies) {
    dependencies.requirement = ipc::CodeSigningRequirement{"anchor apple generous"};
  });
  EXPECT_FALSE(service->shouldAcceptNewConnection(std::make_shared<testing::RecordedConnection>()));
}

// ---- user interfaces

TEST_F(DaemonXPCServiceTest, knowsAUserInterfaceForAsLongAsItsConnectionLasts) {
  const auto connection = connect();
  EXPECT_EQ(call(connection, DaemonOperation::announceUserInterface).status(), status());
  EXPECT_EQ(presenceReports->reports, (std::vector<bool>{true}));
  service->ended(connection->identity());
  service->ended(connection->identity());  // interrupted, then invalid
  executor.advance(UserInterfacePresence::defaultGrace);
  EXPECT_EQ(presenceReports->reports, (std::vector<bool>{true, false}));
}

TEST_F(DaemonXPCServiceTest, answersAnAnnouncementWithoutAPresenceToTell) {
  serve([](auto& dependencies) { dependencies.presence = nullptr; });
  EXPECT_EQ(call(DaemonOperation::announceUserInterface).status(), status());
}

TEST_F(DaemonXPCServiceTest, needsAConnectionToRememberAnybodyBy) {
  const auto gone = connect();
  service->ended(gone->identity());
  for (const auto operation :
       {DaemonOperation::announceUserInterface, DaemonOperation::subscribeToStatusChanges}) {
    for (const auto& connection : {std::shared_ptr<testing::RecordedConnection>(), gone}) {
      EXPECT_EQ(call(connection, operation).error(),
                DaemonError(DaemonError::internalFailure{"No current XPC connection."}));
    }
  }
  executor.advance(UserInterfacePresence::defaultGrace);
  EXPECT_TRUE(presenceReports->reports.empty());
  // Nothing of it is left: the authority's observers held the connection.
  const std::weak_ptr<testing::RecordedConnection> weak = gone;
  EXPECT_EQ(weak.use_count(), 1);
}

TEST(DaemonXPCServiceEnding, forgetsAnAnnouncementWhoseConnectionEndsMeanwhile) {
  for (std::uint64_t seed = 0; seed < 300; ++seed) {
    SCOPED_TRACE(seed);
    ServiceWorld world(seed);
    world.serve();
    const auto connection = world.connect();
    world.send(connection, DaemonOperation::announceUserInterface, std::nullopt,
               connection->messages);
    for (std::uint64_t step = 0; step < seed % 12; ++step) (void)world.executor.step();
    world.service->ended(connection->identity());
    world.executor.runReady();
    world.executor.advance(UserInterfacePresence::defaultGrace);
    const auto& reports = world.presenceReports->reports;
    EXPECT_TRUE(reports.empty() || !reports.back());
    EXPECT_EQ(connection->messages->size(), 1U);
  }
}

// ---- with a client

TEST(DaemonXPCServiceWithClient, servesAClientThroughAnEndpointInMemory) {
  ServiceWorld world;
  world.serve();
  const auto endpoint = ipc::InMemoryDaemonEndpoint::make(world.executor.executor());
  ASSERT_TRUE(world.service->start(*endpoint));
  const auto client = ipc::XPCCommitmentAuthorityClient::make(
      {.executor = world.executor.executor(),
       .endpoint = ipc::Endpoint::anonymous{endpoint},
       .requirement = ipc::CodeSigningRequirement::trustedPeers(),
       .wait = world.executor.sleeper()});
  EXPECT_EQ(world.run(client->status()), world.status());
  const auto stream = client->statusChanges();
  ASSERT_TRUE(world.run(stream.next()));

  const auto validated = world.run(client->validateEnforcement());
  ASSERT_TRUE(validated);
  const auto active =
      world.run(client->activate(testing::activationRequest(domains({"a.example"}))));
  ASSERT_TRUE(active);
  ASSERT_NE(active->active(), nullptr);
  EXPECT_EQ(world.run(stream.next()), *active);

  endpoint->interruptAll();
  world.executor.runReady();
  EXPECT_EQ(world.run(stream.next()), std::nullopt);
  const auto again = client->statusChanges();
  ASSERT_TRUE(world.run(again.next()));
  const auto stronger =
      world.run(client->strengthen(ipc::ScopeAddition::websites{domains({"b.example"})}));
  ASSERT_TRUE(stronger);
  EXPECT_EQ(world.run(again.next()), *stronger);
}

}  // namespace
}  // namespace stillow::authority
