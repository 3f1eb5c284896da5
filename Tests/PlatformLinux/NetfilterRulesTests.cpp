#include <array>
#include <cstdio>
#include <memory>
#include <regex>
#include <string>

#include <gmock/gmock.h>

#include "PlatformLinuxFilter/FlowMark.hpp"
#include "PlatformLinuxFilter/NetfilterRules.hpp"
#include "PlatformLinuxFilter/PayloadMatch.hpp"

namespace stillow::platform {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr std::array families{IPFamily::v4, IPFamily::v6};

std::string standardOutput(const std::string& command) {
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), ::pclose);
  std::string output;
  std::array<char, 512> buffer{};
  while (pipe && std::fgets(buffer.data(), buffer.size(), pipe.get())) output += buffer.data();
  return output;
}

std::size_t occurrences(std::string_view text, std::string_view part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string_view::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

TEST(PayloadMatch, isWhatItsExpressionCompilesTo) {
  for (const auto& match : {tcpPayloadIPv4, tcpPayloadIPv6, quicInitialIPv4, quicInitialIPv6}) {
    SCOPED_TRACE(match.expression);
    const auto command =
        "PATH=$PATH:/usr/sbin:/usr/bin tcpdump -y RAW -ddd '" + std::string(match.expression) + "'";
    auto compiled = standardOutput(command + " 2>/dev/null");
    ASSERT_FALSE(compiled.empty()) << "tcpdump is needed for this test";
    compiled.pop_back();
    for (char& character : compiled) {
      if (character == '\n') character = ',';
    }
    EXPECT_EQ(match.bytecode, compiled);
  }
}

TEST(FlowMark, leavesTheBitsOfOthersAlone) {
  EXPECT_EQ(FlowMark::replacing(0xffffffff, FlowMark::released), 0xdfffffffU);
  EXPECT_EQ(FlowMark::replacing(0x0000ca6c, FlowMark::dropped), 0x3000ca6cU);
  EXPECT_EQ(FlowMark::replacing(0x3000ca6c, FlowMark::undecided), 0x0000ca6cU);
}

TEST(NetfilterRules, insertsEachJumpOnceIntoAnEmptyRuleSet) {
  for (const auto family : families) {
    const auto text = NetfilterRules::armText(family, {});
    EXPECT_THAT(text, Not(HasSubstr("\n-D ")));
    for (const auto* jump :
         {"-I OUTPUT 1 -j STILLOW-HOLD\n", "-I FORWARD 1 -j STILLOW-HOLD\n",
          "-I OUTPUT 1 -j STILLOW-VERDICT\n", "-I FORWARD 1 -j STILLOW-VERDICT\n"}) {
      EXPECT_EQ(occurrences(text, jump), 1U) << jump;
    }
  }
}

TEST(NetfilterRules, takesAwayExactlyTheJumpsThatAreThere) {
  const InstalledRules installed{.hold = {.output = 2, .forward = 1}, .verdict = {.output = 1}};
  for (const auto& text : {NetfilterRules::armText(IPFamily::v4, installed),
                           NetfilterRules::disarmText(IPFamily::v4, installed)}) {
    EXPECT_EQ(occurrences(text, "-D OUTPUT -j STILLOW-HOLD\n"), 2U);
    EXPECT_EQ(occurrences(text, "-D FORWARD -j STILLOW-HOLD\n"), 1U);
    EXPECT_EQ(occurrences(text, "-D OUTPUT -j STILLOW-VERDICT\n"), 1U);
    EXPECT_EQ(occurrences(text, "-D FORWARD -j STILLOW-VERDICT\n"), 0U);
  }
}

TEST(NetfilterRules, neverHoldsAPacketWithoutTheRulesThatRefuse) {
  const auto arm = NetfilterRules::armText(IPFamily::v4, {});
  EXPECT_LT(arm.find("*filter"), arm.find("*mangle"));
  const auto disarm = NetfilterRules::disarmText(IPFamily::v4, {});
  EXPECT_LT(disarm.find("*mangle"), disarm.find("*filter"));
}

TEST(NetfilterRules, refusesOnlyTCPAndUDPAndNoReset) {
  for (const auto family : families) {
    const auto text = NetfilterRules::armText(family, {});
    EXPECT_EQ(occurrences(text, "-j REJECT"), 2U);
    EXPECT_THAT(text,
                HasSubstr("-A STILLOW-VERDICT -p tcp -m connmark --mark 0x30000000/0x30000000 "
                          "-m tcp ! --tcp-flags RST RST -j REJECT --reject-with tcp-reset\n"));
    EXPECT_THAT(text, HasSubstr("-A STILLOW-VERDICT -p udp -m connmark --mark "
                                "0x30000000/0x30000000 -j REJECT --reject-with "));
    EXPECT_THAT(text, Not(HasSubstr("-j DROP")));
    EXPECT_THAT(text, Not(HasSubstr("-j ACCEPT")));
  }
  EXPECT_THAT(NetfilterRules::armText(IPFamily::v4, {}), HasSubstr("icmp-admin-prohibited\n"));
  EXPECT_THAT(NetfilterRules::armText(IPFamily::v6, {}), HasSubstr("icmp6-adm-prohibited\n"));
}

TEST(NetfilterRules, readsAndChangesOnlyItsOwnBitsOfAMark) {
  for (const auto family : families) {
    const auto text = NetfilterRules::armText(family, {});
    const std::regex use("mark 0x[0-9a-f]+(/0x[0-9a-f]+)?");
    std::size_t uses = 0;
    for (std::sregex_iterator at(text.begin(), text.end(), use), end; at != end; ++at) {
      EXPECT_EQ(at->str(1), "/0x30000000") << at->str();
      ++uses;
    }
    EXPECT_EQ(uses, occurrences(text, "--mark ") + occurrences(text, "--set-xmark "));
  }
}

TEST(NetfilterRules, letsPacketsPassWhenNobodyListens) {
  for (const auto family : families) {
    const auto text = NetfilterRules::armText(family, {});
    EXPECT_EQ(occurrences(text, "-j NFQUEUE"), 2U);
    EXPECT_EQ(occurrences(text, "-j NFQUEUE --queue-num 5300 --queue-bypass\n"), 2U);
  }
}

TEST(NetfilterRules, checksEveryJumpAndEveryRule) {
  const auto text = NetfilterRules::armText(IPFamily::v6, {});
  const auto commands = NetfilterRules::checkCommands(IPFamily::v6);
  EXPECT_EQ(commands.size(), occurrences(text, "\n-A ") + occurrences(text, "\n-I "));
  EXPECT_EQ(commands.front(), (RuleCommand{"ip6tables", "-w", "3", "-t", "mangle", "-C", "OUTPUT",
                                           "-j", "STILLOW-HOLD"}));
}

// As iptables-save prints it, between other people's rules.
constexpr std::string_view listing = R"(# Generated by iptables-save v1.8.9 (nf_tables)
*mangle
:PREROUTING ACCEPT [0:0]
:OUTPUT ACCEPT [0:0]
:STILLOW-HOLD - [0:0]
-A FORWARD -j STILLOW-HOLD
-A OUTPUT -j STILLOW-HOLD
-A OUTPUT -j STILLOW-HOLD
-A OUTPUT -s 10.0.0.1/32 -j STILLOW-HOLD
-A OUTPUT -j STILLOW-HOLDER
-A STILLOW-HOLD -o lo -j RETURN
-A STILLOW-HOLDER -j RETURN
-A STILLOW-ANSWER -j MARK --set-xmark 0x0/0x30000000
COMMIT
*filter
:INPUT ACCEPT [0:0]
-A OUTPUT -j STILLOW-VERDICT
-A OUTPUT -j STILLOW-HOLD
-A STILLOW-VERDICT -p udp -j REJECT
-A STILLOW-VERDICT -p tcp -j REJECT
COMMIT)";

TEST(InstalledRules, countsOurJumpsAndRulesAndNobodyElses) {
  const auto installed = InstalledRules::parse(listing);
  EXPECT_EQ(installed, (InstalledRules{.hold = {.output = 2, .forward = 1},
                                       .verdict = {.output = 1, .forward = 0},
                                       .holdRules = 1,
                                       .answerRules = 1,
                                       .verdictRules = 2}));
  EXPECT_EQ(InstalledRules::parse(""), InstalledRules{});
}

TEST(NetfilterRules, areInPlaceOnlyWhenNothingIsMissing) {
  const InstalledRules whole{.hold = {.output = 1, .forward = 1},
                             .verdict = {.output = 1, .forward = 1},
                             .holdRules = 6,
                             .answerRules = 3,
                             .verdictRules = 2};
  for (const auto family : families) {
    EXPECT_TRUE(NetfilterRules::areInPlace(family, whole));
    EXPECT_FALSE(NetfilterRules::areInPlace(family, {}));
    auto lacking = whole;
    lacking.hold.output = 0;
    EXPECT_FALSE(NetfilterRules::areInPlace(family, lacking));
    lacking = whole;
    lacking.hold.forward = 0;
    EXPECT_FALSE(NetfilterRules::areInPlace(family, lacking));
    lacking = whole;
    lacking.verdict.output = 0;
    EXPECT_FALSE(NetfilterRules::areInPlace(family, lacking));
    lacking = whole;
    lacking.verdict.forward = 0;
    EXPECT_FALSE(NetfilterRules::areInPlace(family, lacking));
    for (auto count : {&InstalledRules::holdRules, &InstalledRules::answerRules,
                       &InstalledRules::verdictRules}) {
      lacking = whole;
      --(lacking.*count);
      EXPECT_FALSE(NetfilterRules::areInPlace(family, lacking));
    }
  }
}

}  // namespace
}  // namespace stillow::platform
