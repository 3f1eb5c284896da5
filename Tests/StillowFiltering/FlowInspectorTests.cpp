#include <chrono>
#include <cstdint>
#include <string_view>

#include <gtest/gtest.h>

#include "QUICSealing.hpp"
#include "StillowFiltering/FlowInspector.hpp"
#include "WireFixtures.hpp"
#include "WireTesting.hpp"

namespace stillow::filtering {
namespace {

using namespace testing;
using Disposition = FlowDisposition;
using Transport = FlowInspector::Transport;
using Moment = FlowInspector::Moment;

constexpr core::Date start{700'000'000};
const FlowDisposition drop = Disposition::drop{};
const FlowDisposition release = Disposition::allowAndRelease{};

FlowDisposition inspect(std::int64_t peekBytes) {
  return Disposition::allowUnderInspection{peekBytes};
}

EnforcementDirective blocking(std::string_view name) {
  return {.scope = core::Scope{.generation = 1,
                               .domains = core::DomainSet::of({*core::Domain::make(name)})},
          .validation = std::nullopt,
          .publishedAt = start};
}

class FlowInspectorTest : public ::testing::Test {
 protected:
  static core::UUID flow(std::uint16_t number) {
    core::UUID identifier;
    identifier.bytes[0] = static_cast<std::uint8_t>(number);
    identifier.bytes[1] = static_cast<std::uint8_t>(number >> 8U);
    return identifier;
  }
  FlowDisposition begin(std::uint16_t number, Transport transport, std::string_view address = {}) {
    return inspector_.begin(
        flow(number), transport,
        {.remoteHostname = {}, .remoteAddress = FlowAddress::fromPrintedForm(address)}, now_);
  }
  FlowDisposition show(std::uint16_t number, std::uint64_t offset, WireBytes bytes) {
    return inspector_.showOutbound(flow(number), offset, bytes, now_);
  }
  void remember(std::string_view name, std::string_view address) {
    (void)classifier_.classify(
        {.remoteHostname = name, .remoteAddress = FlowAddress::fromPrintedForm(address)},
        now_.date);
  }

  Moment now_{start, std::chrono::steady_clock::time_point{}};
  FlowClassifier classifier_{blocking("blocked.example"), start,
                             NameAddressAssociations::machineLimits};
  FlowInspector inspector_{classifier_};
};

TEST_F(FlowInspectorTest, decidesByTheNameOnTheFlowWithoutLookingAtItsBytes) {
  EXPECT_EQ(inspector_.begin(flow(1), Transport::stream,
                             {.remoteHostname = "www.blocked.example", .remoteAddress = {}}, now_),
            drop);
  EXPECT_EQ(inspector_.begin(flow(2), Transport::stream,
                             {.remoteHostname = "open.example", .remoteAddress = {}}, now_),
            release);
  EXPECT_EQ(inspector_.heldCount(), 0U);
}

TEST_F(FlowInspectorTest, readsTheNameFromTheBytesOfAStream) {
  const Bytes blocked = bytesOf("GET / HTTP/1.1\r\nHost: www.blocked.example\r\n\r\n");
  const Bytes open = bytesOf("GET / HTTP/1.1\r\nHost: open.example\r\n\r\n");
  EXPECT_EQ(begin(1, Transport::stream), inspect(4096));
  EXPECT_EQ(show(1, 0, blocked), drop);
  EXPECT_EQ(begin(2, Transport::stream), inspect(4096));
  EXPECT_EQ(show(2, 0, open), release);
  EXPECT_EQ(inspector_.heldCount(), 0U);
  EXPECT_EQ(classifier_.counters().flowsHeldForInspection, 0);
  EXPECT_EQ(classifier_.counters().flowsDropped, 1);
  EXPECT_EQ(classifier_.counters().flowsReleased, 1);
  EXPECT_EQ(classifier_.counters().flowsClassified, 2);
}

TEST_F(FlowInspectorTest, letsHalfAHelloPassAndAsksForNoMoreThanTheBound) {
  const Bytes hello = bytesOf("GET / HTTP/1.1\r\nHost: www.blocked.example\r\n\r\n");
  const WireBytes bytes(hello);
  EXPECT_EQ(begin(1, Transport::stream), inspect(4096));
  EXPECT_EQ(show(1, 0, bytes.first(10)), inspect(4086));
  EXPECT_EQ(show(1, 10, bytes.subspan(10)), drop);
}

TEST_F(FlowInspectorTest, readsTheHelloOfABrowserInWhateverPiecesItIsShown) {
  const Bytes stream = loadFixture("chromium-tls.stream");
  const WireBytes bytes(stream);
  const NameReading whole = readStreamName(bytes);
  ASSERT_NE(whole.name(), nullptr);
  classifier_.adopt(blocking(whole.name()->text()), start);
  for (const std::size_t piece : {1U, 7U, 517U, 1400U}) {
    SCOPED_TRACE(piece);
    const auto number = static_cast<std::uint16_t>(piece);
    ASSERT_EQ(begin(number, Transport::stream), inspect(4096));
    FlowDisposition answer = inspect(4096);
    for (std::size_t at = 0; at < bytes.size() && answer != drop; at += piece) {
      ASSERT_TRUE(core::is<Disposition::allowUnderInspection>(answer));
      answer = show(number, at, bytes.subspan(at, std::min(piece, bytes.size() - at)));
    }
    EXPECT_EQ(answer, drop);
  }
}

TEST_F(FlowInspectorTest, readsTheNameFromQUICDatagramsInEitherOrder) {
  const auto datagrams = loadDatagrams("chromium-quic.datagrams");
  ASSERT_GE(datagrams.size(), 2U);
  QUICInitialReader reader;
  QUICInitialCrypto crypto;
  (void)reader.take(datagrams[0], crypto);
  const NameReading reading = reader.take(datagrams[1], crypto);
  ASSERT_NE(reading.name(), nullptr);
  classifier_.adopt(blocking(reading.name()->text()), start);

  EXPECT_EQ(begin(1, Transport::datagrams), inspect(4096));
  EXPECT_EQ(show(1, 0, datagrams[1]), inspect(4096)) << "a datagram is never cut";
  EXPECT_EQ(show(1, datagrams[1].size(), datagrams[0]), drop);
}

TEST_F(FlowInspectorTest, releasesWhatCannotHoldAName) {
  EXPECT_EQ(begin(1, Transport::stream), inspect(4096));
  EXPECT_EQ(show(1, 0, bytesOf("SSH-2.0-OpenSSH_9.2\r\n")), release);
  EXPECT_EQ(begin(2, Transport::datagrams), inspect(4096));
  EXPECT_EQ(show(2, 0, Bytes(40, 0x11)), release);
  EXPECT_EQ(begin(3, Transport::other), release);
  EXPECT_EQ(inspector_.heldCount(), 0U);
}

TEST_F(FlowInspectorTest, releasesAStreamThatShowsNoNameWithinTheBound) {
  EXPECT_EQ(begin(1, Transport::stream), inspect(4096));
  Bytes endless = bytesOf("GET / HTTP/1.1\r\nX: ");
  endless.resize(4095, 'x');
  EXPECT_EQ(show(1, 0, endless), inspect(1));
  EXPECT_EQ(show(1, 4095, Bytes(1, 'x')), release);
  EXPECT_EQ(classifier_.counters().flowsHeldForInspection, 0);
}

TEST_F(FlowInspectorTest, decidesAFlowThatEndsWithoutANameAsItStands) {
  EXPECT_EQ(begin(1, Transport::stream, "192.0.2.1"), inspect(4096));
  EXPECT_EQ(inspector_.endOutbound(flow(1), now_), release);
  EXPECT_EQ(begin(2, Transport::stream, "192.0.2.2"), inspect(4096));
  remember("blocked.example", "192.0.2.2");
  EXPECT_EQ(inspector_.endOutbound(flow(2), now_), drop);
  EXPECT_EQ(inspector_.endOutbound(flow(2), now_), release) << "nothing is known of it any more";
  EXPECT_EQ(classifier_.counters().flowsHeldForInspection, 0);
}

TEST_F(FlowInspectorTest, usesANameThatItsAddressGetsMeanwhile) {
  EXPECT_EQ(begin(1, Transport::stream, "192.0.2.2"), inspect(4096));
  remember("blocked.example", "192.0.2.2");
  EXPECT_EQ(show(1, 0, bytesOf("GET")), drop);
}

TEST_F(FlowInspectorTest, followsADirectiveThatComesWhileAFlowIsHeld) {
  EXPECT_EQ(begin(1, Transport::stream), inspect(4096));
  classifier_.adopt(std::nullopt, start);
  EXPECT_EQ(show(1, 0, bytesOf("GET")), release) << "nothing is blocked any more";
}

TEST_F(FlowInspectorTest, holdsNoMoreFlowsThanItMayAndCountsThoseThatLoseTheirPlace) {
  for (std::uint16_t number = 0; number <= FlowInspector::heldFlowsMax; ++number) {
    ASSERT_EQ(begin(number, Transport::stream), inspect(4096));
  }
  EXPECT_EQ(inspector_.heldCount(), FlowInspector::heldFlowsMax);
  EXPECT_EQ(classifier_.counters().flowsHeldForInspection,
            static_cast<std::int64_t>(FlowInspector::heldFlowsMax));
  const Bytes hello = bytesOf("GET / HTTP/1.1\r\nHost: blocked.example\r\n\r\n");
  EXPECT_EQ(show(0, 0, hello), release) << "the oldest was decided as it stood";
  EXPECT_EQ(show(1, 0, hello), drop);
}

TEST_F(FlowInspectorTest, holdsNoFlowForLongerThanItMay) {
  EXPECT_EQ(begin(1, Transport::stream), inspect(4096));
  now_.steady += FlowInspector::heldLifetime - std::chrono::nanoseconds(1);
  EXPECT_EQ(show(1, 0, bytesOf("G")), inspect(4095));
  now_.steady += std::chrono::nanoseconds(1);
  EXPECT_EQ(show(1, 1, bytesOf("ET / HTTP/1.1\r\nHost: blocked.example\r\n\r\n")), release);
  EXPECT_EQ(inspector_.heldCount(), 0U);
  EXPECT_EQ(classifier_.counters().flowsHeldForInspection, 0);
}

TEST_F(FlowInspectorTest, takesAnIdentifierThatComesAgainForAnotherFlow) {
  EXPECT_EQ(begin(1, Transport::stream), inspect(4096));
  EXPECT_EQ(show(1, 0, bytesOf("GET / HTTP/1.1\r\nHost: op")), inspect(4072));
  EXPECT_EQ(begin(1, Transport::stream), inspect(4096));
  EXPECT_EQ(show(1, 0, bytesOf("GET / HTTP/1.1\r\nHost: blocked.example\r\n\r\n")), drop);
  EXPECT_EQ(classifier_.counters().flowsHeldForInspection, 0);
}

TEST(FlowDescription, takesAnEndpointForWhatItsHostIs) {
  struct Row {
    const char* host;
    bool isAddress;
  };
  for (const Row row :
       {Row{"192.0.2.1", true}, Row{"2001:db8::1", true}, Row{"fe80::1%en0", true},
        Row{"::ffff:192.0.2.1", true}, Row{"ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255", true},
        Row{"www.example.com", false}, Row{"192.0.2", false}, Row{"192.0.2.1.example", false},
        Row{"2001:db8", false}, Row{"", false}, Row{"%en0", false}}) {
    SCOPED_TRACE(row.host);
    FlowDescription description;
    description.setEndpoint(row.host);
    EXPECT_EQ(description.endpointAddress, row.isAddress ? row.host : "");
    EXPECT_EQ(description.endpointName, row.isAddress ? "" : row.host);
  }
  FlowDescription zoned;
  zoned.setEndpoint("fe80::1%en0");
  EXPECT_EQ(FlowEvidence::of(zoned).remoteAddress, FlowAddress::fromPrintedForm("fe80::1"));
}

}  // namespace
}  // namespace stillow::filtering
