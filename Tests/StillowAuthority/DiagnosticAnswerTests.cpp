#include <string>

#include <gtest/gtest.h>

#include "StillowAuthority/DiagnosticAnswer.hpp"

namespace stillow::authority {
namespace {

using Outcome = DiagnosticConnectionOutcome;

Outcome outcomeOf(std::optional<long> status, std::string_view body, bool transportFailed = false) {
  DiagnosticAnswer answer("probe.example.com");
  answer.respond(status);
  (void)answer.take(body);
  return answer.outcome(transportFailed);
}

TEST(DiagnosticAnswer, isTheHostsOwnIfItSaysSo) {
  EXPECT_EQ(outcomeOf(200, "ok probe.example.com"), Outcome::answered);
  EXPECT_EQ(outcomeOf(200, " \r\nok probe.example.com\n"), Outcome::answered);
}

TEST(DiagnosticAnswer, isAnothersWhereAnythingElseIsSaid) {
  EXPECT_EQ(outcomeOf(200, "ok other.example.com"), Outcome::answeredByAnotherHost);
  EXPECT_EQ(outcomeOf(200, "OK probe.example.com"), Outcome::answeredByAnotherHost);
  EXPECT_EQ(outcomeOf(200, ""), Outcome::answeredByAnotherHost);
  EXPECT_EQ(outcomeOf(200, "ok probe.example.com\xff"), Outcome::answeredByAnotherHost);
  EXPECT_EQ(outcomeOf(404, "ok probe.example.com"), Outcome::answeredByAnotherHost);
  EXPECT_EQ(outcomeOf(302, "ok probe.example.com"), Outcome::answeredByAnotherHost);
  EXPECT_EQ(outcomeOf(std::nullopt, "ok probe.example.com"), Outcome::answeredByAnotherHost);
}

TEST(DiagnosticAnswer, isNoneIfTheConnectionFailed) {
  EXPECT_EQ(DiagnosticAnswer("probe.example.com").outcome(true), Outcome::connectionFailed);
  EXPECT_EQ(outcomeOf(200, "ok probe.example.com", true), Outcome::connectionFailed);
}

TEST(DiagnosticAnswer, comesInPieces) {
  DiagnosticAnswer answer("probe.example.com");
  answer.respond(200);
  EXPECT_TRUE(answer.take("ok probe."));
  EXPECT_TRUE(answer.take("example.com"));
  EXPECT_EQ(answer.outcome(false), Outcome::answered);
}

TEST(DiagnosticAnswer, isAnothersIfItIsTooLongHoweverTheConnectionThenEnds) {
  const std::string most(DiagnosticAnswer::bodyBytesMax, ' ');
  DiagnosticAnswer answer("probe.example.com");
  answer.respond(200);
  EXPECT_TRUE(answer.take(most));
  EXPECT_FALSE(answer.take(" "));
  EXPECT_FALSE(answer.take("ok probe.example.com")) << "what was left out is not made up for";
  EXPECT_EQ(answer.outcome(true), Outcome::answeredByAnotherHost);
  EXPECT_EQ(answer.outcome(false), Outcome::answeredByAnotherHost);
}

TEST(DiagnosticAnswer, beginsAnewWithAnotherResponse) {
  DiagnosticAnswer answer("probe.example.com");
  answer.respond(302);
  (void)answer.take(std::string(DiagnosticAnswer::bodyBytesMax + 1, 'x'));
  answer.respond(200);
  EXPECT_TRUE(answer.take("ok probe.example.com"));
  EXPECT_EQ(answer.outcome(false), Outcome::answered);
}

}  // namespace
}  // namespace stillow::authority
