#include <initializer_list>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>

#include "../StillowFiltering/QUICSealing.hpp"
#include "../StillowFiltering/WireFixtures.hpp"
#include "PacketTesting.hpp"
#include "PlatformLinuxFilter/PacketJudge.hpp"
#include "TestSupport/AllocationCount.hpp"

namespace stillow::platform {
namespace {

using namespace std::chrono_literals;
using namespace testing;
using filtering::testing::loadDatagrams;
using filtering::testing::loadFixture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr filtering::NameAddressAssociations::Limits associationLimits{
    .lifetime = 600, .maximumAddresses = 1'000, .maximumNamesPerAddress = 8};
constexpr Moment start{{700'000'000}, std::chrono::steady_clock::time_point{1'000s}};

Moment after(std::chrono::milliseconds time) {
  return {start.date + static_cast<double>(time.count()) / 1'000, start.steady + time};
}

filtering::EnforcementDirective blocking(std::initializer_list<std::string_view> names) {
  std::vector<core::Domain> domains;
  for (const auto name : names) domains.push_back(*core::Domain::make(name));
  return {.scope = core::Scope{.generation = 1, .domains = core::DomainSet::of(std::move(domains))},
          .validation = std::nullopt,
          .publishedAt = start.date};
}

class PacketJudgeTest : public ::testing::Test {
 protected:
  PacketAnswer judge(const Bytes& packet, Moment now = start) { return judge_.judge(packet, now); }
  /// A request for `host` in one segment.
  PacketAnswer request(const FlowKey& flow, std::string_view host, TCPFields fields = {},
                       Moment now = start) {
    return judge(tcpPacket(flow, requestFor(host), fields), now);
  }
  void adopt(std::initializer_list<std::string_view> names) {
    classifier_.adopt(blocking(names), start.date);
  }
  [[nodiscard]] filtering::FilterCounters counters() const { return classifier_.counters(); }

  filtering::FlowClassifier classifier_{blocking({"blocked.example"}), start.date,
                                        associationLimits};
  PacketJudge judge_{classifier_,
                     {.undecided = {.flowsMax = 4, .lifetime = 30s},
                      .decisions = {.flowsMax = 64, .lifetime = 10s},
                      .releasedFlowsBytes = 64 << 10}};
};

TEST_F(PacketJudgeTest, dropsBlockedNamesAndReleasesOthers) {
  for (const bool isIPv6 : {false, true}) {
    const auto flow = [&](std::uint16_t port) {
      return flowTo(1, port, FlowKey::Protocol::tcp, isIPv6);
    };
    EXPECT_EQ(request(flow(1), "blocked.example"), PacketAnswer::drop);
    EXPECT_EQ(request(flow(2), "www.blocked.example"), PacketAnswer::drop);
    EXPECT_EQ(request(flow(3), "notblocked.example"), PacketAnswer::release);
  }
  EXPECT_EQ(counters().flowsDropped, 4);
  EXPECT_EQ(counters().flowsReleased, 2);
  EXPECT_EQ(counters().associatedAddressCount, 2);
}

TEST_F(PacketJudgeTest, readsWhatRealClientsSend) {
  adopt({"example.org", "example.com"});
  EXPECT_EQ(judge(tcpPacket(flowTo(1, 1), loadFixture("curl-http.stream"))), PacketAnswer::drop);
  EXPECT_EQ(judge(tcpPacket(flowTo(1, 2), loadFixture("curl-tls.stream"))), PacketAnswer::drop);
}

TEST_F(PacketJudgeTest, letsPacketsWithoutPayloadPassWithoutATrace) {
  for (std::uint16_t port = 1; port < 10'000; ++port) {
    ASSERT_EQ(judge(tcpPacket(flowTo(1, port), {}, {.isSYN = true})), PacketAnswer::keepLooking);
  }
  EXPECT_EQ(judge_.undecidedCount(), 0U);
  EXPECT_EQ(judge_.decisionCount(), 0U);
  EXPECT_EQ(counters().flowsClassified, 0);
}

TEST_F(PacketJudgeTest, letsWhatIsNoFlowPass) {
  EXPECT_EQ(judge({}), PacketAnswer::keepLooking);
  EXPECT_EQ(judge(bytesOf("no packet at all")), PacketAnswer::keepLooking);
  EXPECT_EQ(counters().flowsClassified, 0);
}

TEST_F(PacketJudgeTest, waitsForANameInLaterSegments) {
  const auto stream = requestFor("blocked.example");
  const WireBytes bytes(stream);
  const auto segment = [&](std::size_t from, std::size_t to) {
    return tcpPacket(flowTo(1), bytes.subspan(from, to - from),
                     {.sequence = static_cast<std::uint32_t>(0xfffffff8 + from)});
  };
  EXPECT_EQ(judge(segment(0, 20)), PacketAnswer::keepLooking);
  EXPECT_EQ(judge(segment(25, 30)), PacketAnswer::keepLooking);  // a gap before it
  EXPECT_EQ(judge_.undecidedCount(), 1U);
  EXPECT_EQ(counters().flowsClassified, 0);
  EXPECT_EQ(judge(segment(20, bytes.size())), PacketAnswer::drop);
  EXPECT_EQ(judge_.undecidedCount(), 0U);
  EXPECT_EQ(counters().flowsClassified, 1);
  EXPECT_EQ(counters().associationsRecorded, 1);
}

// The neighbours of a blocked site on a shared address must not let it out before its name is read.
TEST_F(PacketJudgeTest, doesNotJudgeByTheAddressWhileTheNameMayStillCome) {
  EXPECT_EQ(request(flowTo(1, 1), "neighbour.example"), PacketAnswer::release);
  const auto stream = requestFor("blocked.example");
  const WireBytes bytes(stream);
  EXPECT_EQ(judge(tcpPacket(flowTo(1, 2), bytes.first(20))), PacketAnswer::keepLooking);
  EXPECT_EQ(judge(tcpPacket(flowTo(1, 2), bytes.subspan(20), {.sequence = 1'020})),
            PacketAnswer::drop);
}

TEST_F(PacketJudgeTest, judgesNamelessFlowsByTheirAddress) {
  const auto nameless = bytesOf("SSH-2.0-OpenSSH_9.2\r\n");
  EXPECT_EQ(judge(tcpPacket(flowTo(9, 1), nameless)), PacketAnswer::release);
  EXPECT_EQ(counters().unattributedFlowsAllowed, 1);
  EXPECT_EQ(counters().flowsHeldForInspection, 0);
  EXPECT_EQ(request(flowTo(1, 2), "blocked.example"), PacketAnswer::drop);
  EXPECT_EQ(judge(tcpPacket(flowTo(1, 3), nameless)), PacketAnswer::drop);
  EXPECT_EQ(request(flowTo(1, 4), "neighbour.example"), PacketAnswer::release);
  EXPECT_EQ(judge(tcpPacket(flowTo(1, 5), nameless)), PacketAnswer::release);
  EXPECT_EQ(counters().ambiguousFlowsAllowed, 1);
}

TEST_F(PacketJudgeTest, answersLaterSegmentsOfADecidedFlowLikeTheFirst) {
  const auto rest = bytesOf("bytes that name nobody");
  EXPECT_EQ(request(flowTo(1, 1), "neighbour.example"), PacketAnswer::release);
  EXPECT_EQ(request(flowTo(1, 2), "blocked.example"), PacketAnswer::drop);
  EXPECT_EQ(judge(tcpPacket(flowTo(1, 1), rest, {.sequence = 2'448})), PacketAnswer::release);
  EXPECT_EQ(judge(tcpPacket(flowTo(1, 2), rest, {.sequence = 2'448})), PacketAnswer::drop);
  EXPECT_EQ(request(flowTo(1, 2), "blocked.example"), PacketAnswer::drop);  // sent again
  EXPECT_EQ(counters().flowsClassified, 2);
}

TEST_F(PacketJudgeTest, forgetsADecisionAfterItsLifetime) {
  EXPECT_EQ(request(flowTo(1), "blocked.example"), PacketAnswer::drop);
  EXPECT_EQ(request(flowTo(1), "neighbour.example", {}, after(9'999ms)), PacketAnswer::drop);
  EXPECT_EQ(request(flowTo(1), "neighbour.example", {}, after(10s)), PacketAnswer::release);
  EXPECT_EQ(counters().flowsClassified, 2);
}

TEST_F(PacketJudgeTest, judgesANewConnectionOverTheSamePortsAnew) {
  EXPECT_EQ(request(flowTo(1), "blocked.example", {.sequence = 1'000}), PacketAnswer::drop);
  EXPECT_EQ(request(flowTo(1), "neighbour.example", {.sequence = 1'000 + 65'535}),
            PacketAnswer::drop);
  EXPECT_EQ(request(flowTo(1), "neighbour.example", {.sequence = 1'000 + 65'536}),
            PacketAnswer::release);
  EXPECT_EQ(request(flowTo(1), "blocked.example", {.sequence = 2'000'000'000, .isSYN = true}),
            PacketAnswer::drop);
  EXPECT_EQ(counters().flowsClassified, 3);
  // The same SYN once more is the same connection.
  EXPECT_EQ(request(flowTo(1), "blocked.example", {.sequence = 2'000'000'000, .isSYN = true}),
            PacketAnswer::drop);
  EXPECT_EQ(counters().flowsClassified, 3);
}

TEST_F(PacketJudgeTest, startsReadingAnewWhenUndecidedPortsAreUsedAgain) {
  const auto half = bytesOf("GET / HTTP/1.1\r\n");
  EXPECT_EQ(judge(tcpPacket(flowTo(1), half, {.sequence = 1'000})), PacketAnswer::keepLooking);
  EXPECT_EQ(request(flowTo(1), "blocked.example", {.sequence = 90'000'000}), PacketAnswer::drop);
  EXPECT_EQ(judge_.undecidedCount(), 0U);
  EXPECT_EQ(counters().flowsClassified, 2);
  EXPECT_EQ(counters().flowsReleased, 1);
}

TEST_F(PacketJudgeTest, readsTheHelloInASYN) {
  EXPECT_EQ(request(flowTo(1, 1), "blocked.example", {.isSYN = true}), PacketAnswer::drop);
  const auto stream = requestFor("blocked.example");
  const WireBytes bytes(stream);
  EXPECT_EQ(judge(tcpPacket(flowTo(1, 2), bytes.first(20), {.sequence = 500, .isSYN = true})),
            PacketAnswer::keepLooking);
  EXPECT_EQ(judge(tcpPacket(flowTo(1, 2), bytes.subspan(20), {.sequence = 521})),
            PacketAnswer::drop);
}

TEST_F(PacketJudgeTest, decidesAFlowWithoutANameWhenItsTimeIsOver) {
  const auto half = bytesOf("GET / HTTP/1.1\r\n");
  EXPECT_EQ(judge(tcpPacket(flowTo(1), half)), PacketAnswer::keepLooking);
  judge_.expire(after(29'999ms));
  EXPECT_EQ(judge_.undecidedCount(), 1U);
  judge_.expire(after(30s));
  EXPECT_EQ(judge_.undecidedCount(), 0U);
  EXPECT_EQ(counters().flowsReleased, 1);
  EXPECT_EQ(counters().flowsHeldForInspection, 0);
  // It has been released, and stays so, even if its name turns up now.
  EXPECT_EQ(request(flowTo(1), "blocked.example", {.sequence = 1'016}, after(31s)),
            PacketAnswer::release);
  EXPECT_EQ(counters().flowsClassified, 1);
}

TEST_F(PacketJudgeTest, givesUpTheOldestUndecidedFlowWhenThereAreTooMany) {
  const auto half = bytesOf("GET / HTTP/1.1\r\n");
  for (std::uint16_t port = 1; port <= 5; ++port) {
    EXPECT_EQ(judge(tcpPacket(flowTo(1, port), half)), PacketAnswer::keepLooking);
  }
  EXPECT_EQ(judge_.undecidedCount(), 4U);
  EXPECT_EQ(judge_.evictedCount(), 1U);
  EXPECT_EQ(counters().flowsReleased, 1);
  const auto rest = bytesOf("Host: blocked.example\r\n\r\n");
  EXPECT_EQ(judge(tcpPacket(flowTo(1, 1), rest, {.sequence = 1'016})), PacketAnswer::release);
  EXPECT_EQ(judge(tcpPacket(flowTo(1, 2), rest, {.sequence = 1'016})), PacketAnswer::drop);
}

TEST_F(PacketJudgeTest, staysWithinItsBoundsUnderAFloodOfDatagrams) {
  for (std::uint16_t port = 1; port <= 20'000; ++port) {
    // Of one version that nobody knows, and of version 1 with a tag that is none.
    const Bytes garbage = port % 2 == 0 ? Bytes(1'200, 0xc3) : [] {
      Bytes bytes{0xc0, 0, 0, 0, 1, 0, 0, 0, 0x44, 0xa0};
      bytes.resize(1'200, 0x5a);
      return bytes;
    }();
    ASSERT_NE(judge(udpPacket(flowTo(1, port, FlowKey::Protocol::udp), garbage)),
              PacketAnswer::drop);
    ASSERT_LE(judge_.decisionCount(), 64U);
    ASSERT_LE(judge_.undecidedCount(), 4U);
  }
}

TEST_F(PacketJudgeTest, readsNamesFromQUICInOneAndInTwoDatagrams) {
  adopt({"example.org", "example.com"});
  const auto standard = loadDatagrams("rfc9001-a2.datagrams");
  EXPECT_EQ(judge(udpPacket(flowTo(1, 1, FlowKey::Protocol::udp), standard.at(0))),
            PacketAnswer::drop);
  const auto chromium = loadDatagrams("chromium-quic.datagrams");
  const auto flow = flowTo(1, 2, FlowKey::Protocol::udp, true);
  EXPECT_EQ(judge(udpPacket(flow, chromium.at(0))), PacketAnswer::keepLooking);
  EXPECT_EQ(judge(udpPacket(flow, chromium.at(1))), PacketAnswer::drop);
  EXPECT_EQ(counters().flowsClassified, 2);
}

// A refused first datagram leaves no entry in connection tracking, so each further one comes here.
TEST_F(PacketJudgeTest, refusesEveryFurtherDatagramAndCountsTheFlowOnce) {
  adopt({"example.com"});
  const auto datagram = loadDatagrams("rfc9001-a2.datagrams").at(0);
  const auto flow = flowTo(1, 1, FlowKey::Protocol::udp);
  for (int count = 0; count < 5; ++count) {
    EXPECT_EQ(judge(udpPacket(flow, datagram)), PacketAnswer::drop);
    EXPECT_EQ(judge(udpPacket(flow, Bytes(1'200, 0xd0))), PacketAnswer::drop);
  }
  EXPECT_EQ(counters().flowsClassified, 1);
}

TEST_F(PacketJudgeTest, judgesAnotherConnectionFromTheSamePortByItsOwnName) {
  adopt({"example.com"});
  const auto blocked = loadDatagrams("rfc9001-a2.datagrams").at(0);
  const auto other = loadDatagrams("ngtcp2-quic-v1.datagrams").at(0);  // www.example.org
  const auto flow = flowTo(1, 1, FlowKey::Protocol::udp);
  EXPECT_EQ(judge(udpPacket(flow, blocked)), PacketAnswer::drop);
  EXPECT_EQ(judge(udpPacket(flow, other)), PacketAnswer::release);
  EXPECT_EQ(counters().flowsClassified, 2);
}

TEST_F(PacketJudgeTest, namesTheReleasedFlowsThatAGrownScopeBlocks) {
  EXPECT_EQ(request(flowTo(1, 1), "www.neighbour.example"), PacketAnswer::release);
  EXPECT_EQ(request(flowTo(1, 2), "third.example"), PacketAnswer::release);
  EXPECT_EQ(judge(tcpPacket(flowTo(1, 3), bytesOf("SSH-2.0-x\r\n"))), PacketAnswer::release);
  EXPECT_EQ(request(flowTo(1, 4), "blocked.example"), PacketAnswer::drop);
  EXPECT_THAT(judge_.reviseDecisions(start), IsEmpty());
  adopt({"blocked.example", "neighbour.example"});
  EXPECT_THAT(judge_.reviseDecisions(start), ElementsAre(flowTo(1, 1)));
  EXPECT_THAT(judge_.reviseDecisions(start), IsEmpty()) << "named once";
  EXPECT_EQ(judge(tcpPacket(flowTo(1, 1), bytesOf("more"), {.sequence = 1'100})),
            PacketAnswer::drop);
  EXPECT_EQ(judge(tcpPacket(flowTo(1, 2), bytesOf("more"), {.sequence = 1'100})),
            PacketAnswer::release);
}

TEST_F(PacketJudgeTest, doesNotNameAFlowWhosePortsAnotherOneHasNow) {
  EXPECT_EQ(request(flowTo(1), "neighbour.example", {.sequence = 1'000}), PacketAnswer::release);
  EXPECT_EQ(request(flowTo(1), "third.example", {.sequence = 90'000'000}), PacketAnswer::release);
  adopt({"neighbour.example"});
  EXPECT_THAT(judge_.reviseDecisions(start), IsEmpty());
}

TEST_F(PacketJudgeTest, judgesWhatIsNoLongerBlockedAnew) {
  EXPECT_EQ(request(flowTo(1, 1), "blocked.example"), PacketAnswer::drop);
  adopt({"neighbour.example"});
  EXPECT_THAT(judge_.reviseDecisions(start), IsEmpty());
  EXPECT_EQ(request(flowTo(1, 1), "blocked.example"), PacketAnswer::release);
}

TEST_F(PacketJudgeTest, allocatesNothingForAFlowWithANameThatIsOnRecord) {
  EXPECT_EQ(request(flowTo(1, 1), "neighbour.example"), PacketAnswer::release);
  EXPECT_EQ(request(flowTo(1, 2), "blocked.example"), PacketAnswer::drop);
  const auto open = tcpPacket(flowTo(1, 3), requestFor("neighbour.example"));
  const auto closed = tcpPacket(flowTo(1, 4), requestFor("blocked.example"));
  const auto stream = requestFor("blocked.example");
  const auto half = tcpPacket(flowTo(1, 5), WireBytes(stream).first(20));
  const auto rest = tcpPacket(flowTo(1, 5), WireBytes(stream).subspan(20), {.sequence = 1'020});
  const auto before = test::allocationsOfThisThread();
  EXPECT_EQ(judge(open), PacketAnswer::release);
  EXPECT_EQ(judge(closed), PacketAnswer::drop);
  EXPECT_EQ(judge(half), PacketAnswer::keepLooking);
  EXPECT_EQ(judge(rest), PacketAnswer::drop);
  EXPECT_EQ(test::allocationsOfThisThread(), before);
}

TEST(PacketJudge, releasesEverythingWhileNothingIsBlocked) {
  filtering::FlowClassifier classifier(std::nullopt, start.date, associationLimits);
  PacketJudge judge(classifier);
  EXPECT_EQ(judge.judge(tcpPacket(flowTo(1, 1), requestFor("blocked.example")), start),
            PacketAnswer::release);
  EXPECT_EQ(judge.judge(tcpPacket(flowTo(1, 2), bytesOf("SSH-2.0-x\r\n")), start),
            PacketAnswer::release);
  // And remembers their names, for the Commitment that may begin now.
  classifier.adopt(blocking({"blocked.example"}), start.date);
  EXPECT_THAT(judge.reviseDecisions(start), ElementsAre(flowTo(1, 1)));
}

}  // namespace
}  // namespace stillow::platform
