#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "StillowDaemon/Daemon.hpp"
#include "StillowIPC/InMemoryDaemonEndpoint.hpp"
#include "StillowIPC/XPCCommitmentAuthorityClient.hpp"
#include "TestSupport/DeterministicExecutor.hpp"
#include "TestSupport/ScriptedDiagnosticConnector.hpp"
#include "TestSupport/ScriptedEnforcementDirectives.hpp"
#include "TestSupport/ScriptedFilterConfiguration.hpp"
#include "TestSupport/ScriptedFilterPath.hpp"
#include "TestSupport/ScriptedNetworkPath.hpp"
#include "TestSupport/SimulatedAuthority.hpp"

namespace stillow::daemon {
namespace {

using namespace std::chrono_literals;
using ipc::DaemonError;

class VirtualMonotonic final : public authority::MonotonicTimeSource {
 public:
  explicit VirtualMonotonic(test::DeterministicExecutor& world) : world_(&world) {}
  double seconds() const override { return std::chrono::duration<double>(world_->now()).count(); }

 private:
  test::DeterministicExecutor* world_;
};

class QuietInvalidations final : public authority::ProjectionInvalidationSource {
 public:
  concurrency::Channel<authority::ProjectionInvalidation> invalidations() override {
    return concurrency::Channel<authority::ProjectionInvalidation>(1);
  }
};

/// The wired daemon on virtual time, with a client beside it.
struct DaemonTest : testing::Test {
  static constexpr core::Date start{816'458'820};

  test::DeterministicExecutor world{11};
  std::shared_ptr<test::ScriptedCheckpointStore> current =
      std::make_shared<test::ScriptedCheckpointStore>();
  std::shared_ptr<test::ScriptedCheckpointStore> lastKnownGood =
      std::make_shared<test::ScriptedCheckpointStore>();
  std::shared_ptr<test::ScriptedFilterConfiguration> filter =
      std::make_shared<test::ScriptedFilterConfiguration>();
  std::shared_ptr<test::ScriptedDiagnosticConnector> connector =
      std::make_shared<test::ScriptedDiagnosticConnector>();
  std::shared_ptr<test::ScriptedEnforcementDirectives> directives =
      std::make_shared<test::ScriptedEnforcementDirectives>();
  std::shared_ptr<ipc::InMemoryDaemonEndpoint> endpoint =
      ipc::InMemoryDaemonEndpoint::make(world.executor());
  std::vector<std::string> log;
  std::shared_ptr<Daemon> daemon;
  std::shared_ptr<std::optional<std::expected<void, std::string>>> opened;

  core::Date now() const { return start + std::chrono::duration<double>(world.now()).count(); }

  DaemonTest() {
    // The probed host is out of reach exactly while a probe is lent and the rules are there.
    connector->outcome = [this](const std::string& host) {
      const bool isProbed = directives->inForce && directives->inForce->validation &&
                            directives->inForce->validation->domain.name() == host;
      return isProbed && filter->isArmed && filter->filterIsPresent
                 ? authority::DiagnosticConnectionOutcome::connectionFailed
                 : authority::DiagnosticConnectionOutcome::answered;
    };
  }

  void beginStart() {
    daemon =
        Daemon::build({.executor = world.executor(),
                       .storage = world.blockingExecutor(),
                       .sleeper = world.sleeper(),
                       .wallClock = [this] { return now(); },
                       .monotonic = std::make_shared<VirtualMonotonic>(world),
                       .invalidations = std::make_shared<QuietInvalidations>(),
                       .filterConfiguration = filter,
                       .filterPath = std::make_shared<test::ScriptedFilterPath>(),
                       .connector = connector,
                       .networkPaths = std::make_shared<test::ScriptedNetworkPath>(),
                       .directives = directives,
                       .checkpoints = authority::DurableCommitmentStore(current, lastKnownGood),
                       .listener = endpoint,
                       .requirement = ipc::CodeSigningRequirement::trustedPeers(),
                       .log = [this](std::string_view line) { log.emplace_back(line); }});
    opened = world.start(daemon->start());
    world.runReady();
  }
  void startUp() {
    beginStart();
    ASSERT_TRUE(opened->has_value());
    ASSERT_TRUE((*opened)->has_value());
  }

  std::shared_ptr<ipc::XPCCommitmentAuthorityClient> client() {
    return ipc::XPCCommitmentAuthorityClient::make(
        {.executor = world.executor(),
         .endpoint = ipc::Endpoint::anonymous{endpoint},
         .requirement = std::nullopt,
         .deadlines = ipc::DaemonCallDeadlines::standard(),
         .wait = world.sleeper()});
  }
};

TEST_F(DaemonTest, startsWithoutCheckpointsReportsIdleAndOpensTheDoor) {
  startUp();
  const auto status = world.run(client()->status());
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(status->commitment, ipc::CommitmentStatus(ipc::CommitmentStatus::idle{}));
  EXPECT_EQ(status->enforcement,
            core::EnforcementHealthStatus(core::EnforcementHealthStatus::healthy{}));
}

TEST_F(DaemonTest, opensTheDoorTenSecondsAfterAHungFirstPass) {
  filter->readingGate.hold();
  filter->applyGate.hold();
  beginStart();
  world.advance(9'999ms);
  EXPECT_FALSE(opened->has_value());
  const auto early = world.run(client()->status());
  EXPECT_FALSE(early.has_value());
  world.advance(1ms);
  ASSERT_TRUE(opened->has_value());
  EXPECT_TRUE(world.run(client()->status()).has_value());
  EXPECT_TRUE(std::ranges::any_of(log, [](const std::string& line) {
    return line == "The first arming and health pass is slow; opening the door without it.";
  }));
  filter->readingGate.open();
  filter->applyGate.open();
  world.runReady();
}

TEST_F(DaemonTest, givesTheClockItsCadence) {
  EXPECT_EQ(Daemon::cadence.tickInterval, 1s);
  EXPECT_EQ(Daemon::cadence.checkpointInterval, 60.0);
  EXPECT_EQ(Daemon::cadence.sleepGapThreshold, 10.0);
  EXPECT_EQ(Daemon::cadence.wallClockJumpTolerance, 2.0);
}

TEST_F(DaemonTest, servesNobodyBeforeTheDoorIsOpen) {
  const auto status = world.run(client()->status());
  ASSERT_FALSE(status.has_value());
  EXPECT_TRUE(core::is<DaemonError::daemonUnavailable>(status.error()));
}

TEST_F(DaemonTest, isNeverHealthyWithoutAFilter) {
  filter->filterIsPresent = false;
  startUp();
  const auto status = world.run(client()->status());
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(status->enforcement,
            core::EnforcementHealthStatus(
                core::EnforcementHealthStatus::degraded{core::DegradedReason::failedOpen}));
}

TEST_F(DaemonTest, runsACommitmentFromValidationToItsEnd) {
  startUp();
  const auto user = client();
  const auto refused = world.run(user->activate(test::activationOf({"example.com"}, 90)));
  ASSERT_FALSE(refused.has_value());
  EXPECT_TRUE(core::is<DaemonError::enforcementNotValidated>(refused.error()));

  ASSERT_TRUE(world.run(user->announceUserInterface()).has_value());
  const auto validated = world.run(user->validateEnforcement());
  ASSERT_TRUE(validated.has_value());
  EXPECT_EQ(validated->readiness.validation,
            core::EnforcementValidation(core::EnforcementValidation::passed{}));
  const auto active = world.run(user->activate(test::activationOf({"example.com"}, 90)));
  ASSERT_TRUE(active.has_value()) << ipc::description(active.error());
  ASSERT_TRUE(directives->inForce->scope.has_value());
  EXPECT_TRUE(filter->isArmed);

  world.advance(60s);
  const auto later = world.run(user->status());
  ASSERT_NE(later->active(), nullptr);
  EXPECT_NEAR(later->active()->remainingDuration, 30, 1.01);
  world.advance(32s);
  const auto ended = world.run(user->status());
  EXPECT_TRUE(core::is<ipc::CommitmentStatus::expired>(ended->commitment));
  EXPECT_FALSE(directives->inForce->scope.has_value());
}

TEST_F(DaemonTest, takesUpACommitmentWithItsRemainderAfterARestart) {
  startUp();
  const auto user = client();
  (void)world.run(user->validateEnforcement());
  ASSERT_TRUE(world.run(user->activate(test::activationOf({"example.com"}, 3'600))).has_value());
  world.advance(125s);
  endpoint = ipc::InMemoryDaemonEndpoint::make(world.executor());
  daemon.reset();
  startUp();
  const auto status = world.run(client()->status());
  ASSERT_NE(status->active(), nullptr);
  EXPECT_GE(status->active()->remainingDuration, 3'600 - 126);
  EXPECT_LE(status->active()->remainingDuration, 3'600 - 64);
  EXPECT_TRUE(filter->isArmed);
}

TEST_F(DaemonTest, logsOneLinePerPhase) {
  startUp();
  EXPECT_EQ(log,
            (std::vector<std::string>{"State recovered: no Commitment.",
                                      "First arming and health pass done.", "Serving clients."}));
}

}  // namespace
}  // namespace stillow::daemon
