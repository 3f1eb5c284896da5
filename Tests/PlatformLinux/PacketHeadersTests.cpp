#include <random>
#include <string>

#include <gtest/gtest.h>

#include "PacketTesting.hpp"
#include "PlatformLinuxFilter/PacketHeaders.hpp"

namespace stillow::platform {
namespace {

using namespace testing;

const Bytes hello = bytesOf("hello");

std::string payloadOf(const std::optional<PacketHeaders>& headers) {
  return headers ? std::string(headers->payload.begin(), headers->payload.end()) : "no packet";
}

TEST(PacketHeaders, readATCPSegmentWithOptionsInBothHeaders) {
  const auto flow = flowTo(7);
  const auto segment = tcpSegment(flow, hello, {.sequence = 0xfffffff0, .optionBytes = 40});
  const auto packet = ipv4Packet(flow, segment, 40);
  const auto headers = PacketHeaders::read(packet);
  ASSERT_TRUE(headers);
  EXPECT_EQ(headers->flow, flow);
  EXPECT_EQ(headers->sequence, 0xfffffff0U);
  EXPECT_FALSE(headers->isSYN);
  EXPECT_EQ(payloadOf(headers), "hello");
  EXPECT_EQ(headers->flow.remoteAddress().literal(), "198.51.100.7");
}

TEST(PacketHeaders, readTheSYNThatCarriesPayload) {
  const auto flow = flowTo(7);
  const auto packet = tcpPacket(flow, hello, {.isSYN = true});
  const auto headers = PacketHeaders::read(packet);
  ASSERT_TRUE(headers);
  EXPECT_TRUE(headers->isSYN);
  EXPECT_EQ(payloadOf(headers), "hello");
}

TEST(PacketHeaders, readADatagramOverEitherFamily) {
  for (const bool isIPv6 : {false, true}) {
    const auto flow = flowTo(7, 50'000, FlowKey::Protocol::udp, isIPv6);
    const auto packet = udpPacket(flow, hello);
    const auto headers = PacketHeaders::read(packet);
    ASSERT_TRUE(headers);
    EXPECT_EQ(headers->flow, flow);
    EXPECT_EQ(payloadOf(headers), "hello");
  }
  EXPECT_EQ(flowTo(7, 1, FlowKey::Protocol::udp, true).remoteAddress().literal(), "2001:db8::107");
}

TEST(PacketHeaders, lookThroughExtensionHeaders) {
  const auto flow = flowTo(7, 50'000, FlowKey::Protocol::tcp, true);
  const auto segment = tcpSegment(flow, hello);
  struct Row {
    const char* name;
    std::uint8_t first;
    Bytes headers;
  };
  const Row rows[]{
      {"hop by hop", 0, {6, 0, 0, 0, 0, 0, 0, 0}},
      {"destination options of 16 bytes", 60, {6, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {"routing", 43, {6, 0, 0, 0, 0, 0, 0, 0}},
      {"authentication", 51, {6, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {"first fragment", 44, {6, 0, 0, 1, 0, 0, 0, 9}},
      {"two in a row", 0, {60, 0, 0, 0, 0, 0, 0, 0, 6, 0, 0, 0, 0, 0, 0, 0}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto packet = ipv6Packet(flow, segment, row.headers, row.first);
    const auto headers = PacketHeaders::read(packet);
    ASSERT_TRUE(headers);
    EXPECT_EQ(headers->flow, flow);
    EXPECT_EQ(payloadOf(headers), "hello");
  }
}

TEST(PacketHeaders, giveUpOnAnEndlessChainOfExtensionHeaders) {
  const auto flow = flowTo(7, 50'000, FlowKey::Protocol::tcp, true);
  const auto chainOf = [&](int count) {
    Bytes chain;
    for (int index = 0; index < count; ++index) {
      append(chain,
             Bytes{static_cast<std::uint8_t>(index + 1 == count ? 6 : 60), 0, 0, 0, 0, 0, 0, 0});
    }
    return ipv6Packet(flow, tcpSegment(flow, hello), chain, 60);
  };
  EXPECT_TRUE(PacketHeaders::read(chainOf(PacketHeaders::extensionHeadersMax)));
  EXPECT_FALSE(PacketHeaders::read(chainOf(PacketHeaders::extensionHeadersMax + 1)));
}

TEST(PacketHeaders, areNoneForLaterFragments) {
  const auto flow4 = flowTo(7);
  const auto segment = tcpSegment(flow4, hello);
  EXPECT_TRUE(PacketHeaders::read(ipv4Packet(flow4, segment, 0, 0x2000)));
  EXPECT_FALSE(PacketHeaders::read(ipv4Packet(flow4, segment, 0, 0x2001)));
  const auto flow6 = flowTo(7, 50'000, FlowKey::Protocol::tcp, true);
  EXPECT_FALSE(PacketHeaders::read(
      ipv6Packet(flow6, tcpSegment(flow6, hello), Bytes{6, 0, 0, 9, 0, 0, 0, 9}, 44)));
}

TEST(PacketHeaders, areNoneForOtherProtocolsAndVersions) {
  auto flow = flowTo(7);
  flow.protocol = static_cast<FlowKey::Protocol>(1);  // ICMP
  EXPECT_FALSE(PacketHeaders::read(ipv4Packet(flow, tcpSegment(flow, hello))));
  auto packet = tcpPacket(flowTo(7), hello);
  packet[0] = 0x55;
  EXPECT_FALSE(PacketHeaders::read(packet));
  EXPECT_FALSE(PacketHeaders::read({}));
}

TEST(PacketHeaders, leaveOutWhatLiesPastTheLengths) {
  const auto flow = flowTo(7);
  auto packet = tcpPacket(flow, hello);
  append(packet, bytesOf("padding"));
  EXPECT_EQ(payloadOf(PacketHeaders::read(packet)), "hello");

  const auto udpFlow = flowTo(7, 50'000, FlowKey::Protocol::udp);
  auto datagram = udpDatagram(udpFlow, hello);
  datagram[5] = 8 + 2;  // a length field shorter than the IP payload
  EXPECT_EQ(payloadOf(PacketHeaders::read(ipv4Packet(udpFlow, datagram))), "he");
}

TEST(PacketHeaders, takeWhatThereIsOfAPacketThatWasCutShort) {
  const auto packet = tcpPacket(flowTo(7), hello);
  EXPECT_EQ(payloadOf(PacketHeaders::read(WireBytes(packet).first(packet.size() - 2))), "hel");
  EXPECT_EQ(payloadOf(PacketHeaders::read(WireBytes(packet).first(packet.size() - 5))), "");
  EXPECT_FALSE(PacketHeaders::read(WireBytes(packet).first(packet.size() - 6)));
}

TEST(PacketHeaders, areNoneWhereLengthsContradictEachOther) {
  const auto flow = flowTo(7);
  const auto whole = tcpPacket(flow, hello);
  auto packet = whole;
  packet[0] = 0x44;  // an IP header of 16 bytes
  EXPECT_FALSE(PacketHeaders::read(packet));
  packet = whole;
  packet[2] = 0, packet[3] = 19;  // a packet shorter than its header
  EXPECT_FALSE(PacketHeaders::read(packet));
  packet = whole;
  packet[32] = 0x40;  // a TCP header of 16 bytes
  EXPECT_FALSE(PacketHeaders::read(packet));
  packet = whole;
  packet[32] = 0xf0;  // a TCP header longer than the packet
  EXPECT_FALSE(PacketHeaders::read(packet));
  const auto udpFlow = flowTo(7, 50'000, FlowKey::Protocol::udp);
  auto datagram = udpDatagram(udpFlow, hello);
  datagram[5] = 7;
  EXPECT_FALSE(PacketHeaders::read(ipv4Packet(udpFlow, datagram)));
}

TEST(PacketHeaders, readAJumbogramUpToTheCapturesEnd) {
  const auto flow = flowTo(7, 50'000, FlowKey::Protocol::tcp, true);
  auto packet = ipv6Packet(flow, tcpSegment(flow, hello), Bytes{6, 0, 0xc2, 4, 0, 1, 0, 0}, 0);
  packet[4] = packet[5] = 0;
  EXPECT_EQ(payloadOf(PacketHeaders::read(packet)), "hello");
}

// The sanitizers see a read outside the bytes, which lie on the heap and end where the packet does.
TEST(PacketHeaders, stayInsideAnyBytes) {
  std::mt19937 random(20'260'101);
  const Bytes seeds[]{tcpPacket(flowTo(7), hello),
                      udpPacket(flowTo(7, 1, FlowKey::Protocol::udp, true), hello),
                      ipv6Packet(flowTo(7, 1, FlowKey::Protocol::tcp, true),
                                 tcpSegment(flowTo(7), hello), Bytes{6, 0, 0, 0, 0, 0, 0, 0}, 60)};
  for (int round = 0; round < 20'000; ++round) {
    Bytes packet = seeds[random() % std::size(seeds)];
    for (unsigned change = random() % 4; change > 0; --change) {
      packet[random() % packet.size()] = static_cast<std::uint8_t>(random());
    }
    packet.resize(random() % (packet.size() + 1));
    packet.shrink_to_fit();
    const auto headers = PacketHeaders::read(packet);
    if (!headers || headers->payload.empty()) continue;
    EXPECT_GE(headers->payload.data(), packet.data());
    EXPECT_LE(headers->payload.data() + headers->payload.size(), packet.data() + packet.size());
  }
}

}  // namespace
}  // namespace stillow::platform
