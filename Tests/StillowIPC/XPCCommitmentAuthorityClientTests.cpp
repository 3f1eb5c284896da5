#include <cmath>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "RecordTesting.hpp"
#include "StillowIPC/XPCCommitmentAuthorityClient.hpp"
#include "TestSupport/DeterministicExecutor.hpp"
#include "TestSupport/ScriptedConnection.hpp"
#include "TestSupport/ScriptedSleeper.hpp"

namespace stillow::ipc {
namespace {

using testing::idleStatus;
using testing::interruption;
using testing::moment;
using testing::reply;
using Error = DaemonError;
using Result = CommitmentAuthorityClient::Result;
using std::chrono::milliseconds;
using std::chrono::seconds;

/// The status that was observed so many seconds after the first.
DaemonStatus status(double later) { return idleStatus(moment + later); }

class XPCCommitmentAuthorityClientTest : public ::testing::Test {
 protected:
  std::shared_ptr<XPCCommitmentAuthorityClient> make(
      std::optional<CodeSigningRequirement> requirement = std::nullopt,
      DaemonCallDeadlines deadlines = DaemonCallDeadlines::standard()) {
    return XPCCommitmentAuthorityClient::make({.executor = executor.executor(),
                                               .endpoint = Endpoint::anonymous{daemon},
                                               .requirement = std::move(requirement),
                                               .deadlines = deadlines,
                                               .wait = sleeper});
  }
  /// Starts the call and lets it get as far as it can.
  std::shared_ptr<std::optional<Result>> start(concurrency::Task<Result> task) {
    auto result = executor.start(std::move(task));
    executor.runReady();
    return result;
  }
  std::shared_ptr<std::optional<std::optional<DaemonStatus>>> next(
      const DaemonStatusStream& stream) {
    auto result = executor.start(stream.next());
    executor.runReady();
    return result;
  }
  /// What the stream has to give now, up to its end or to where it waits.
  std::vector<double> drain(const DaemonStatusStream& stream) {
    std::vector<double> all;
    for (;;) {
      const auto result = next(stream);
      if (!*result || !**result) return all;
      all.push_back((**result)->observedAt - moment);
    }
  }

  test::DeterministicExecutor executor;
  std::shared_ptr<testing::ScriptedDaemon> daemon = std::make_shared<testing::ScriptedDaemon>();
  std::shared_ptr<test::ScriptedSleeper> sleeper = std::make_shared<test::ScriptedSleeper>();
};

// ---- the connection

TEST_F(XPCCommitmentAuthorityClientTest, opensNoConnectionBeforeTheFirstCall) {
  const auto client = make();
  executor.runReady();
  EXPECT_TRUE(daemon->connections.empty());
  const auto result = start(client->status());
  ASSERT_EQ(daemon->connections.size(), 1U);
  EXPECT_TRUE(daemon->connections[0]->isResumed);
  daemon->calls[0].reply(reply(status(1)));
  executor.runReady();
  EXPECT_EQ(**result, Result(status(1)));
}

TEST_F(XPCCommitmentAuthorityClientTest, usesOneConnectionForAllCalls) {
  const auto client = make();
  const auto first = start(client->status());
  const auto second = start(client->acknowledgeExpiry());
  EXPECT_EQ(daemon->connections.size(), 1U);
  EXPECT_EQ(daemon->calls.size(), 2U);
}

TEST_F(XPCCommitmentAuthorityClientTest, setsTheRequirementBeforeTheConnectionBegins) {
  const auto client = make(CodeSigningRequirement::trustedPeers());
  const auto result = start(client->status());
  EXPECT_EQ(daemon->connections[0]->requirement, CodeSigningRequirement::trustedPeers());
  EXPECT_TRUE(daemon->connections[0]->requirementCameBeforeResume);
}

TEST_F(XPCCommitmentAuthorityClientTest, isNotAuthorizedIfTheRequirementDoesNotCompile) {
  const auto client = make(CodeSigningRequirement{"certificate of good conduct"});
  const auto result = start(client->status());
  EXPECT_EQ(**result, Result(std::unexpected(Error::notAuthorized{})));
  EXPECT_TRUE(daemon->connections[0]->isInvalidated);
  EXPECT_FALSE(daemon->connections[0]->isResumed);
  EXPECT_TRUE(daemon->calls.empty());
}

TEST_F(XPCCommitmentAuthorityClientTest, opensAnotherConnectionAfterAnInterruption) {
  const auto client = make();
  const auto first = start(client->status());
  daemon->calls[0].fail(interruption());
  daemon->interrupt();
  executor.runReady();
  EXPECT_EQ(**first, Result(std::unexpected(Error::daemonUnavailable{"connection interrupted"})));
  const auto second = start(client->status());
  ASSERT_EQ(daemon->connections.size(), 2U);
  daemon->calls[1].reply(reply(status(2)));
  executor.runReady();
  EXPECT_EQ(**second, Result(status(2)));
}

TEST_F(XPCCommitmentAuthorityClientTest, isNotDisturbedByTheSecondEndOfALostConnection) {
  const auto client = make();
  const auto first = start(client->status());
  daemon->interrupt();
  const auto stream = client->statusChanges();
  executor.runReady();
  ASSERT_EQ(daemon->connections.size(), 2U);
  daemon->calls.back().reply(reply(status(1)));
  // The first connection is now invalidated as well, and a late push comes out of it.
  const auto late = daemon->connections[0]->handlers;
  late.statusChanged(std::make_shared<const std::string>(*DaemonWireCoding::encode(status(99))));
  late.lost();
  executor.runReady();
  daemon->push(status(2));
  EXPECT_EQ(drain(stream), (std::vector<double>{1, 2}));
  const auto second = start(client->status());
  EXPECT_EQ(daemon->connections.size(), 2U);
}

TEST_F(XPCCommitmentAuthorityClientTest, letsGoOfItsConnectionWithItself) {
  auto client = make();
  const auto stream = client->statusChanges();
  executor.runReady();
  daemon->calls.back().reply(reply(status(1)));
  executor.runReady();
  client.reset();
  EXPECT_TRUE(daemon->connections[0]->isInvalidated);
  EXPECT_EQ(drain(stream), (std::vector<double>{1}));
  const auto end = next(stream);
  ASSERT_TRUE(*end);
  EXPECT_EQ(**end, std::nullopt);
  // What the connection still says reaches nobody.
  daemon->interrupt();
  daemon->push(status(2));
}

// ---- calls

TEST_F(XPCCommitmentAuthorityClientTest, sendsEachOperationWithItsRecord) {
  const auto client = make();
  const ActivationRequest activation{.selection = core::CommitmentSelection::allWebsites{},
                                     .collectionSnapshot = {{testing::domain("a.example"), {}}},
                                     .duration = core::CommitmentDuration::maximum()};
  const ScopeAddition addition = ScopeAddition::websites{testing::domains({"b.example"})};
  const ExtensionRequest extension{{moment}};
  const std::vector<std::shared_ptr<std::optional<Result>>> results{
      start(client->status()),
      start(client->activate(activation)),
      start(client->strengthen(addition)),
      start(client->extend(extension)),
      start(client->validateEnforcement()),
      start(client->acknowledgeExpiry()),
      start(client->armFilterConfiguration()),
      start(client->announceUserInterface())};
  using Operation = DaemonOperation;
  const std::vector<std::pair<Operation, std::optional<std::string>>> expected{
      {Operation::status, std::nullopt},
      {Operation::activate, *DaemonWireCoding::encode(activation)},
      {Operation::strengthen, *DaemonWireCoding::encode(addition)},
      {Operation::extend, *DaemonWireCoding::encode(extension)},
      {Operation::validateEnforcement, std::nullopt},
      {Operation::acknowledgeExpiry, std::nullopt},
      {Operation::armFilterConfiguration, std::nullopt},
      {Operation::announceUserInterface, std::nullopt}};
  ASSERT_EQ(daemon->calls.size(), expected.size());
  for (std::size_t index = 0; index < expected.size(); ++index) {
    SCOPED_TRACE(core::rawValue(expected[index].first));
    const auto& call = daemon->calls[index];
    EXPECT_EQ(call.operation, expected[index].first);
    EXPECT_EQ(call.request ? std::optional(*call.request) : std::nullopt, expected[index].second);
    call.reply(reply(status(static_cast<double>(index))));
  }
  executor.runReady();
  for (std::size_t index = 0; index < results.size(); ++index) {
    EXPECT_EQ(**results[index], Result(status(static_cast<double>(index))));
  }
}

TEST_F(XPCCommitmentAuthorityClientTest, reportsWhyThereIsNoStatus) {
  const PlatformError withoutPayload{.domain = "com.larchmoor.Stillow.DaemonError",
                                     .code = 1,
                                     .description = "No Commitment is active.",
                                     .payload = std::nullopt};
  struct Row {
    const char* what;
    DaemonReply reply;
    DaemonError error;
  };
  const Row rows[]{{"the daemon's error",
                    DaemonReply::of(DaemonError(Error::noActiveCommitment{}).platformError()),
                    Error::noActiveCommitment{}},
                   {"an error and bytes",
                    {std::make_shared<const std::string>("{}"), interruption()},
                    Error::daemonUnavailable{"connection interrupted"}},
                   {"an error without a payload", DaemonReply::of(withoutPayload),
                    Error::internalFailure{"No Commitment is active."}},
                   {"nothing", {}, Error::internalFailure{"Empty daemon reply."}},
                   {"no status", DaemonReply::of(std::string("{}")),
                    Error::internalFailure{"Could not decode the daemon status."}},
                   {"no bytes to speak of", DaemonReply::of(std::string()),
                    Error::internalFailure{"Could not decode the daemon status."}}};
  const auto client = make();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const auto result = start(client->status());
    daemon->calls.back().reply(row.reply);
    executor.runReady();
    EXPECT_EQ(**result, Result(std::unexpected(row.error)));
  }
}

TEST_F(XPCCommitmentAuthorityClientTest, doesNotSendWhatDoesNotEncode) {
  const auto client = make();
  const auto result = start(client->extend({{core::Date{std::nan("")}}}));
  EXPECT_EQ(**result,
            Result(std::unexpected(Error::internalFailure{"Could not encode a daemon request."})));
  EXPECT_TRUE(daemon->connections.empty());
}

TEST_F(XPCCommitmentAuthorityClientTest, reportsAConnectionWithoutAProxy) {
  daemon->offersNoProxy = true;
  const auto client = make();
  const auto result = start(client->status());
  EXPECT_EQ(**result,
            Result(std::unexpected(Error::daemonUnavailable{"The daemon proxy is unavailable."})));
  EXPECT_TRUE(sleeper->sleeps.at(0)->isCancelled);
}

// ---- deadlines and settling once

TEST_F(XPCCommitmentAuthorityClientTest, boundsEachOperationByItsDeadline) {
  const auto client =
      make(std::nullopt, {.ordinary = milliseconds(2'500), .enforcementValidation = seconds(30)});
  const auto status = start(client->status());
  const auto validation = start(client->validateEnforcement());
  const auto arming = start(client->armFilterConfiguration());
  ASSERT_EQ(sleeper->sleeps.size(), 3U);
  EXPECT_EQ(sleeper->sleeps[0]->duration, milliseconds(2'500));
  EXPECT_EQ(sleeper->sleeps[1]->duration, seconds(30));
  EXPECT_EQ(sleeper->sleeps[2]->duration, milliseconds(2'500));
  for (std::size_t index = 0; index < 3; ++index) sleeper->elapse(index);
  executor.runReady();
  EXPECT_EQ(**status, Result(std::unexpected(Error::daemonDidNotAnswer{2.5})));
  EXPECT_EQ(**validation, Result(std::unexpected(Error::daemonDidNotAnswer{30})));
  EXPECT_EQ(**arming, Result(std::unexpected(Error::daemonDidNotAnswer{2.5})));
}

TEST_F(XPCCommitmentAuthorityClientTest, timesOutAfterTwoSecondsWithTheQuickDeadlines) {
  const auto client = XPCCommitmentAuthorityClient::make(
      {.executor = executor.executor(),
       .endpoint = Endpoint::machService{"com.larchmoor.Stillow.daemon", daemon},
       .requirement = std::nullopt,
       .deadlines = DaemonCallDeadlines::quick(),
       .wait = executor.sleeper()});
  const auto result = start(client->status());
  executor.advance(seconds(2) - std::chrono::nanoseconds(1));
  EXPECT_FALSE(*result);
  executor.advance(std::chrono::nanoseconds(1));
  ASSERT_TRUE(*result);
  ASSERT_FALSE((*result)->has_value());
  EXPECT_EQ(description((*result)->error()),
            "The Stillow daemon did not answer within 2.0 seconds.");
}

TEST_F(XPCCommitmentAuthorityClientTest, timesOutEveryCallIfTheSleeperReturnsAtOnce) {
  sleeper->returnsAtOnce = true;
  const auto client = make();
  EXPECT_EQ(executor.run(client->status()), Result(std::unexpected(Error::daemonDidNotAnswer{5})));
  EXPECT_EQ(executor.run(client->validateEnforcement()),
            Result(std::unexpected(Error::daemonDidNotAnswer{30})));
}

TEST_F(XPCCommitmentAuthorityClientTest, waitsForTheReplyAloneIfTheSleeperNeverReturns) {
  const auto client = make();
  const auto result = start(client->status());
  executor.advance(std::chrono::hours(24));
  EXPECT_FALSE(*result);
  daemon->calls[0].reply(reply(status(1)));
  executor.runReady();
  EXPECT_EQ(**result, Result(status(1)));
}

TEST_F(XPCCommitmentAuthorityClientTest, ignoresAReplyBehindTheDeadline) {
  const auto client = make();
  const auto result = start(client->status());
  sleeper->elapse(0);
  executor.runReady();
  EXPECT_EQ(**result, Result(std::unexpected(Error::daemonDidNotAnswer{5})));
  daemon->calls[0].reply(reply(status(1)));
  daemon->calls[0].fail(interruption());
  executor.runReady();
  EXPECT_EQ(**result, Result(std::unexpected(Error::daemonDidNotAnswer{5})));
}

TEST_F(XPCCommitmentAuthorityClientTest, ignoresTheDeadlineBehindAReply) {
  const auto client = make();
  const auto result = start(client->status());
  daemon->calls[0].reply(reply(status(1)));
  // Both are there before the caller has run again.
  sleeper->elapse(0);
  daemon->calls[0].reply(reply(status(2)));
  executor.runReady();
  EXPECT_EQ(**result, Result(status(1)));
}

TEST_F(XPCCommitmentAuthorityClientTest, ignoresAReplyBehindAnError) {
  const auto client = make();
  const auto result = start(client->status());
  daemon->calls[0].fail(interruption());
  daemon->calls[0].reply(reply(status(1)));
  executor.runReady();
  EXPECT_EQ(**result, Result(std::unexpected(Error::daemonUnavailable{"connection interrupted"})));
}

TEST_F(XPCCommitmentAuthorityClientTest, deliversAReplyThatCameBeforeTheCallerWaited) {
  daemon->onCall = [](testing::ScriptedCall& call) { call.reply(reply(status(7))); };
  const auto client = make();
  EXPECT_EQ(executor.run(client->status()), Result(status(7)));
}

TEST_F(XPCCommitmentAuthorityClientTest, cancelsTheDeadlineOfACallThatIsOver) {
  const auto client = make();
  const auto result = start(client->status());
  EXPECT_FALSE(sleeper->sleeps[0]->isCancelled);
  daemon->calls[0].reply(reply(status(1)));
  executor.runReady();
  EXPECT_TRUE(sleeper->sleeps[0]->isCancelled);
}

TEST_F(XPCCommitmentAuthorityClientTest, settlesEachCallOnceWhateverComesFirst) {
  for (std::uint64_t seed = 0; seed < 200; ++seed) {
    SCOPED_TRACE(seed);
    test::DeterministicExecutor seeded(seed);
    const auto far = std::make_shared<testing::ScriptedDaemon>();
    const auto client = XPCCommitmentAuthorityClient::make({.executor = seeded.executor(),
                                                            .endpoint = Endpoint::anonymous{far},
                                                            .requirement = std::nullopt,
                                                            .wait = seeded.sleeper()});
    const auto result = seeded.start(client->status());
    while (far->calls.empty()) ASSERT_TRUE(seeded.step());
    for (std::uint64_t index = 0; index < 3; ++index) {
      const std::uint64_t event = (seed + index) % 3;
      if (event == 0) far->calls[0].reply(reply(status(1)));
      if (event == 1) far->calls[0].fail(interruption());
      if (event == 2) seeded.advance(seconds(5));
    }
    seeded.runReady();
    ASSERT_TRUE(*result);
    const Result expected[]{
        Result(status(1)),
        Result(std::unexpected(Error::daemonUnavailable{"connection interrupted"})),
        Result(std::unexpected(Error::daemonDidNotAnswer{5}))};
    EXPECT_EQ(**result, expected[seed % 3]);
    EXPECT_EQ(seeded.sleeperCount(), 0U);
  }
}

// ---- streams

TEST_F(XPCCommitmentAuthorityClientTest, streamYieldsTheSubscriptionsStatusFirst) {
  const auto client = make();
  const auto stream = client->statusChanges();
  executor.runReady();
  ASSERT_EQ(daemon->calls.size(), 1U);
  EXPECT_EQ(daemon->calls[0].operation, DaemonOperation::subscribeToStatusChanges);
  EXPECT_EQ(sleeper->sleeps.at(0)->duration, seconds(5));
  daemon->calls[0].reply(reply(status(1)));
  daemon->push(status(2));  // before the subscribing task has run again
  executor.runReady();
  daemon->push(status(3));
  EXPECT_EQ(drain(stream), (std::vector<double>{1, 2, 3}));
}

TEST_F(XPCCommitmentAuthorityClientTest, streamDoesNotSeeWhatWasPushedBeforeItsSubscription) {
  const auto client = make();
  const auto first = client->statusChanges();
  executor.runReady();
  daemon->calls[0].reply(reply(status(1)));
  executor.runReady();
  const auto second = client->statusChanges();
  executor.runReady();
  daemon->push(status(2));
  daemon->calls[1].reply(reply(status(3)));
  daemon->push(status(4));
  executor.runReady();
  EXPECT_EQ(drain(first), (std::vector<double>{1, 2, 4}));
  EXPECT_EQ(drain(second), (std::vector<double>{3, 4}));
}

TEST_F(XPCCommitmentAuthorityClientTest, streamYieldsInOrderUnderEverySchedule) {
  for (std::uint64_t seed = 0; seed < 200; ++seed) {
    SCOPED_TRACE(seed);
    test::DeterministicExecutor seeded(seed);
    const auto far = std::make_shared<testing::ScriptedDaemon>();
    const auto client = XPCCommitmentAuthorityClient::make({.executor = seeded.executor(),
                                                            .endpoint = Endpoint::anonymous{far},
                                                            .requirement = std::nullopt,
                                                            .wait = sleeper});
    const auto stream = client->statusChanges();
    while (far->calls.empty()) ASSERT_TRUE(seeded.step());
    far->push(status(0));
    far->calls[0].reply(reply(status(1)));
    for (int later = 2; later <= 6; ++later) {
      far->push(status(later));
      if (seed % 2 == 0) (void)seeded.step();
    }
    seeded.runReady();
    for (int expected = 1; expected <= 6; ++expected) {
      EXPECT_EQ(seeded.run(stream.next()), status(expected));
    }
  }
}

TEST_F(XPCCommitmentAuthorityClientTest, streamKeepsTheNewestEight) {
  const auto client = make();
  const auto stream = client->statusChanges();
  executor.runReady();
  daemon->calls[0].reply(reply(status(0)));
  executor.runReady();
  for (int later = 1; later <= 20; ++later) daemon->push(status(later));
  EXPECT_EQ(drain(stream), (std::vector<double>{13, 14, 15, 16, 17, 18, 19, 20}));
}

TEST_F(XPCCommitmentAuthorityClientTest, streamKeepsTheNewestEightBehindItsFirst) {
  const auto client = make();
  const auto stream = client->statusChanges();
  executor.runReady();
  daemon->calls[0].reply(reply(status(0)));
  for (int later = 1; later <= 20; ++later) daemon->push(status(later));
  executor.runReady();
  EXPECT_EQ(drain(stream), (std::vector<double>{13, 14, 15, 16, 17, 18, 19, 20}));
}

TEST_F(XPCCommitmentAuthorityClientTest, streamDropsAPushThatDoesNotDecode) {
  const auto client = make();
  const auto stream = client->statusChanges();
  executor.runReady();
  daemon->calls[0].reply(reply(status(0)));
  executor.runReady();
  daemon->pushBytes("{}");
  daemon->push(status(1));
  EXPECT_EQ(drain(stream), (std::vector<double>{0, 1}));
}

TEST_F(XPCCommitmentAuthorityClientTest, streamEndsWithoutAStatusIfItsSubscriptionFails) {
  struct Row {
    const char* what;
    std::function<void(testing::ScriptedCall&)> fail;
  };
  const Row rows[]{
      {"time-out", [&](testing::ScriptedCall&) { sleeper->elapse(sleeper->sleeps.size() - 1); }},
      {"the daemon's error",
       [](testing::ScriptedCall& call) {
         call.reply(DaemonReply::of(DaemonError(Error::notAuthorized{}).platformError()));
       }},
      {"connection error", [](testing::ScriptedCall& call) { call.fail(interruption()); }},
      {"no status",
       [](testing::ScriptedCall& call) { call.reply(DaemonReply::of(std::string("{}"))); }}};
  const auto client = make();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const auto stream = client->statusChanges();
    executor.runReady();
    row.fail(daemon->calls.back());
    executor.runReady();
    daemon->push(status(1));
    const auto end = next(stream);
    ASSERT_TRUE(*end);
    EXPECT_EQ(**end, std::nullopt);
  }
}

TEST_F(XPCCommitmentAuthorityClientTest, streamEndsIfTheRequirementDoesNotCompile) {
  const auto client = make(CodeSigningRequirement{"?"});
  const auto stream = client->statusChanges();
  EXPECT_EQ(executor.run(stream.next()), std::nullopt);
}

TEST_F(XPCCommitmentAuthorityClientTest, interruptionEndsAllStreamsAndTheNextCallReconnects) {
  const auto client = make();
  const auto open = client->statusChanges();
  executor.runReady();
  daemon->calls[0].reply(reply(status(1)));
  executor.runReady();
  const auto asking = client->statusChanges();
  const auto waiting = next(open);
  EXPECT_EQ(drain(open).size(), 0U);
  daemon->interrupt();
  executor.runReady();
  EXPECT_EQ(executor.run(asking.next()), std::nullopt);
  // Streams are not taken up again.
  const auto result = start(client->status());
  EXPECT_EQ(daemon->connections.size(), 2U);
  daemon->push(status(2));
  EXPECT_EQ(executor.run(asking.next()), std::nullopt);
}

TEST_F(XPCCommitmentAuthorityClientTest, invalidateEndsTheConnectionAndEveryStream) {
  const auto client = make();
  const auto stream = client->statusChanges();
  executor.runReady();
  daemon->calls[0].reply(reply(status(1)));
  executor.runReady();
  client->invalidate();
  EXPECT_TRUE(daemon->connections[0]->isInvalidated);
  EXPECT_EQ(drain(stream), (std::vector<double>{1}));
  EXPECT_EQ(executor.run(stream.next()), std::nullopt);
  client->invalidate();
  const auto result = start(client->status());
  EXPECT_EQ(daemon->connections.size(), 2U);
}

TEST_F(XPCCommitmentAuthorityClientTest, forgetsAStreamThatItsReaderLetGo) {
  const auto client = make();
  {
    const auto stream = client->statusChanges();
    executor.runReady();
    daemon->calls[0].reply(reply(status(1)));
  }
  executor.runReady();
  daemon->push(status(2));
  const auto second = client->statusChanges();
  executor.runReady();
  daemon->calls[1].reply(reply(status(3)));
  executor.runReady();
  EXPECT_EQ(drain(second), (std::vector<double>{3}));
}

TEST_F(XPCCommitmentAuthorityClientTest, finishesAStreamWhoseClientIsGone) {
  auto client = make();
  const auto stream = client->statusChanges();
  client.reset();
  EXPECT_EQ(executor.run(stream.next()), std::nullopt);
  EXPECT_TRUE(daemon->connections.empty());
}

TEST_F(XPCCommitmentAuthorityClientTest, keepsItselfWhileACallRuns) {
  auto client = make();
  const auto result = start(client->status());
  client.reset();
  daemon->calls[0].reply(reply(status(1)));
  executor.runReady();
  EXPECT_EQ(**result, Result(status(1)));
  EXPECT_TRUE(daemon->connections[0]->isInvalidated);
}

}  // namespace
}  // namespace stillow::ipc
