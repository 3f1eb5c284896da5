#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "StillowClient/PassThrough.hpp"
#include "StillowClient/RefusalText.hpp"
#include "StillowClient/RegistrationText.hpp"

namespace stillow::client {
namespace {

using ipc::DaemonError;

TEST(PassThrough, knowsEveryOperationByItsRawName) {
  EXPECT_EQ(operationNamed("status"), ipc::DaemonOperation::status);
  EXPECT_EQ(operationNamed("announceUserInterface"), ipc::DaemonOperation::announceUserInterface);
  EXPECT_EQ(operationNamed("Status"), std::nullopt);
  EXPECT_EQ(operationNamed(""), std::nullopt);
}

TEST(PassThrough, writesWhatTheSocketOfAnotherSystemWouldHaveSent) {
  EXPECT_EQ(resultLine(std::make_shared<const std::string>(R"({"a":1})")),
            R"({"jsonrpc":"2.0","id":1,"result":{"a":1}})");
  EXPECT_EQ(resultLine(nullptr), R"({"jsonrpc":"2.0","id":1,"result":null})");
  EXPECT_EQ(errorLine(DaemonError::noActiveCommitment{}),
            R"({"jsonrpc":"2.0","id":1,"error":{"code":1,)"
            R"("message":"No Commitment is active.","data":{"noActiveCommitment":{}}}})");
  EXPECT_EQ(unknownMethodLine(),
            R"({"jsonrpc":"2.0","id":1,"error":{"code":-32601,"message":"Method not found"}})");
}

TEST(PassThrough, tellsTheDaemonsRefusalsFromACallThatDidNotReachIt) {
  EXPECT_FALSE(isUnreachable(DaemonError::noActiveCommitment{}));
  EXPECT_FALSE(isUnreachable(DaemonError::malformedRequest{"ScopeAddition"}));
  EXPECT_FALSE(isUnreachable(DaemonError::internalFailure{"No current XPC connection."}));
  EXPECT_TRUE(isUnreachable(DaemonError::daemonUnavailable{"interrupted"}));
  EXPECT_TRUE(isUnreachable(DaemonError::daemonDidNotAnswer{5}));
  EXPECT_TRUE(isUnreachable(DaemonError::notAuthorized{}));
}

TEST(RegistrationAdvice, saysForEachStateWhatToDoNext) {
  using State = ipc::DaemonRegistration::State;
  const auto holds = [](State state, std::string_view words) {
    return registrationAdvice(state).find(words) != std::string::npos;
  };
  EXPECT_TRUE(holds(State::enabled, "log show"));
  EXPECT_TRUE(holds(State::awaitingApproval, "System Settings ▸ General ▸ Login Items"));
  EXPECT_TRUE(holds(State::notRegistered, "stillow setup"));
  EXPECT_TRUE(holds(State::notFound, "/Applications/Stillow.app"));
}

}  // namespace
}  // namespace stillow::client
