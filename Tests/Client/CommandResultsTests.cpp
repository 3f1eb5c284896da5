#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CommandsTesting.hpp"
#include "StillowClient/Explanation.hpp"

namespace stillow::client {
namespace {

using ipc::DaemonError;
using ipc::DaemonStatus;
using test::activeStatus;

using CommandResults = test::CommandsTest;

TEST_F(CommandResults, saysWhatAValidationFound) {
  daemon->answer = activeStatus({}, 1);
  const auto validate = [&](CommandOptions options) {
    return run([&](Commands& commands) { return commands.validate(options); });
  };
  EXPECT_EQ(validate({}), ExitStatus::success);
  EXPECT_TRUE(terminal.out.str().starts_with("The block works: "));
  using core::EnforcementValidationFailure;
  for (const auto failure : {EnforcementValidationFailure::extensionNotApproved,
                             EnforcementValidationFailure::filterNotArmed,
                             EnforcementValidationFailure::connectionNotDropped,
                             EnforcementValidationFailure::networkUnavailable,
                             EnforcementValidationFailure::inconclusive}) {
    terminal.out.str("");
    daemon->answer->readiness.validation = core::EnforcementValidation::failed{failure};
    EXPECT_EQ(validate({}), ExitStatus::refused);
    EXPECT_TRUE(terminal.out.str().ends_with("\nTo find out why: stillow doctor\n"));
  }
  terminal.out.str("");
  EXPECT_EQ(validate({.asJSON = true}), ExitStatus::refused);
  EXPECT_EQ(terminal.out.str(),
            R"({"filterConfigurationIsEnabled":true,"validation":{"failed":{"_0":"inconclusive"}},)"
            R"("validatedAt":816458820})"
            "\n");
}

TEST_F(CommandResults, explainsASite) {
  daemon->answer = activeStatus({"example.com"}, 600);
  const auto explain = [&](const char* site, CommandOptions options = {}) {
    terminal.out.str("");
    terminal.err.str("");
    EXPECT_EQ(run([&](Commands& commands) { return commands.explain(site, options); }),
              ExitStatus::success);
    return terminal.out.str();
  };
  EXPECT_EQ(explain("https://www.example.com/x"),
            "“https://www.example.com/x” is understood as example.com.\n"
            "That is its registrable domain: the whole site, as its owner registered it.\n"
            "Blocking it blocks example.com and every name below it, nothing else.\n"
            "It is in the Scope of the running Commitment.\n");
  EXPECT_EQ(explain("mail.example.com"),
            "“mail.example.com” is understood as mail.example.com.\n"
            "It is a part of the registrable domain example.com. To block all of that, name "
            "example.com.\n"
            "Blocking it blocks mail.example.com and every name below it, nothing else.\n"
            "It is in the Scope of the running Commitment, below example.com.\n");
  EXPECT_TRUE(explain("other.de")
                  .ends_with("It is not in the Scope of the running Commitment. To block it too: "
                             "stillow add other.de\n"));
  EXPECT_TRUE(explain("larchmoor.com").contains("So it cannot be blocked.\n"));
  daemon->answer = DaemonStatus{};
  EXPECT_TRUE(
      explain("other.de").ends_with("No Commitment is active, so it is not blocked now.\n"));
  daemon->answer = std::unexpected(DaemonError::daemonUnavailable{"gone"});
  EXPECT_TRUE(explain("other.de").contains("is understood as other.de"));
  EXPECT_TRUE(told().starts_with("Whether it is blocked now is not known.\nThere is no daemon."));
}

TEST_F(CommandResults, explainsInTheJSONFormOfTheResult) {
  const auto explain = [&](const char* site) {
    terminal.out.str("");
    EXPECT_EQ(run([&](Commands& commands) { return commands.explain(site, {.asJSON = true}); }),
              ExitStatus::success);
    return terminal.out.str();
  };
  EXPECT_EQ(explain("Example.com."), R"({"alreadyRegistrable":{"_0":"example.com"}})"
                                     "\n");
  EXPECT_EQ(explain(" http://www.example.com/x "),
            R"({"normalizedToRegistrable":{"registrable":"example.com",)"
            R"("original":"http:\/\/www.example.com\/x"}})"
            "\n");
  EXPECT_EQ(explain("mail.example.co.uk"), R"({"narrowerSubdomain":{"narrow":"mail.example.co.uk",)"
                                           R"("registrable":"example.co.uk"}})"
                                           "\n");
  EXPECT_TRUE(daemon->calls.empty()) << "nothing of it is the daemon's";
  EXPECT_EQ(run([](Commands& commands) { return commands.explain("10.0.0.1", {.asJSON = true}); }),
            ExitStatus::usage);
}

TEST(Explanation, readsItsOwnJSONForm) {
  for (const char* const text : {"example.com", "https://example.com/", "mail.example.com"}) {
    const auto result = test::smallNormalizer().normalize(text).value();
    EXPECT_EQ(core::decode<core::DomainNormalizationResult>(core::encode(result).value()).value(),
              result);
  }
}

TEST_F(CommandResults, printsStatusesAsRecords) {
  daemon->answer = activeStatus({"a.com"}, 600);
  EXPECT_EQ(run([](Commands& commands) { return commands.status({.asJSON = true}); }),
            ExitStatus::success);
  EXPECT_EQ(core::decode<DaemonStatus>(terminal.out.str()).value(), *daemon->answer);
  terminal.out.str("");
  EXPECT_EQ(run([](Commands& commands) { return commands.acknowledge({}); }), ExitStatus::success);
  EXPECT_TRUE(terminal.out.str().starts_with("A Commitment is active for another 10 min 0 s"));
}

}  // namespace
}  // namespace stillow::client
