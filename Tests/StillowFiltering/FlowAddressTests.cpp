#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "StillowFiltering/FlowAddress.hpp"
#include "StillowFiltering/FlowEvidence.hpp"

namespace stillow::filtering {
namespace {

std::string literal(std::string_view text) {
  const auto address = FlowAddress::fromPrintedForm(text);
  return address ? std::string(address->literal()) : "none";
}

TEST(FlowAddress, keepsThePrintedFormWithoutTheZone) {
  EXPECT_EQ(literal("192.0.2.1"), "192.0.2.1");
  EXPECT_EQ(literal("fe80::1%en0"), "fe80::1");
  EXPECT_EQ(literal("fe80::1%"), "fe80::1");
  EXPECT_EQ(literal("ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255"),
            "ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255");
}

TEST(FlowAddress, isNoneForWhatIsNoAddressByItsLength) {
  EXPECT_EQ(literal(""), "none");
  EXPECT_EQ(literal("%en0"), "none");
  EXPECT_EQ(literal(std::string(46, '1')), "none");
}

TEST(FlowAddress, isEqualAndHashedByTheText) {
  const auto one = *FlowAddress::fromPrintedForm("192.0.2.1");
  EXPECT_EQ(one, *FlowAddress::fromPrintedForm("192.0.2.1"));
  EXPECT_NE(one, *FlowAddress::fromPrintedForm("192.0.2.11"));
  EXPECT_NE(one, *FlowAddress::fromPrintedForm("192.0.2"));
  EXPECT_EQ(std::hash<FlowAddress>{}(one),
            std::hash<FlowAddress>{}(*FlowAddress::fromPrintedForm("192.0.2.1")));
  // By the text, not by the address that it stands for.
  EXPECT_NE(*FlowAddress::fromPrintedForm("2001:DB8::1"),
            *FlowAddress::fromPrintedForm("2001:db8::1"));
}

TEST(FlowAddress, printsThePacketsBytesAsThePlatformDoes) {
  std::mt19937_64 random(1);
  for (int i = 0; i < 20'000; ++i) {
    std::array<std::uint8_t, 16> bytes{};
    // Zeros and small groups often, so that every form of shortening occurs.
    const auto shape = random();
    for (std::size_t group = 0; group < 8; ++group) {
      switch (shape >> (2 * group) & 3U) {
        case 0:
        case 1:
          break;
        case 2:
          bytes[2 * group + 1] = static_cast<std::uint8_t>(random());
          break;
        default:
          bytes[2 * group] = static_cast<std::uint8_t>(random());
          bytes[2 * group + 1] = static_cast<std::uint8_t>(random());
      }
    }
    std::array<char, INET6_ADDRSTRLEN> text{};
    const std::array<std::uint8_t, 4> short4{bytes[0], bytes[3], bytes[5], bytes[15]};
    ASSERT_NE(::inet_ntop(AF_INET, short4.data(), text.data(), text.size()), nullptr);
    ASSERT_EQ(FlowAddress::fromIPv4(short4).literal(), text.data());

    // The platform prints the long abandoned IPv4-compatible addresses, twelve zeros in front, its
    // own way.
    if (std::ranges::all_of(bytes.begin(), bytes.begin() + 12, [](auto b) { return b == 0; })) {
      continue;
    }
    ASSERT_NE(::inet_ntop(AF_INET6, bytes.data(), text.data(), text.size()), nullptr);
    ASSERT_EQ(FlowAddress::fromIPv6(bytes).literal(), text.data());
  }
}

TEST(FlowAddress, printsTheSpecialFormsOfIPv6) {
  struct Row {
    std::array<std::uint8_t, 16> bytes;
    const char* text;
  };
  const Row rows[]{
      {{}, "::"},
      {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, "::1"},
      {{0xfe, 0x80}, "fe80::"},
      {{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1}, "2001:db8:0:1:1:1:1:1"},
      {{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 1}, "2001:db8::1:0:0:1"},
      {{0x20, 0x01, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1}, "2001:0:0:1::1"},
      {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 192, 0, 2, 1}, "::ffff:192.0.2.1"},
      {{0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
        0xff},
       "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}};
  for (const Row& row : rows) EXPECT_EQ(FlowAddress::fromIPv6(row.bytes).literal(), row.text);
}

TEST(FlowEvidence, prefersTheURLThenTheSocketThenTheEndpoint) {
  FlowDescription flow{.urlHost = "url.example",
                       .remoteHostname = "socket.example",
                       .endpointName = "endpoint.example",
                       .endpointAddress = ""};
  EXPECT_EQ(FlowEvidence::of(flow).remoteHostname, "url.example");
  flow.urlHost = "";
  EXPECT_EQ(FlowEvidence::of(flow).remoteHostname, "socket.example");
  flow.remoteHostname = "";
  EXPECT_EQ(FlowEvidence::of(flow).remoteHostname, "endpoint.example");
  flow.endpointName = "";
  EXPECT_EQ(FlowEvidence::of(flow).remoteHostname, std::nullopt);
  EXPECT_EQ(FlowEvidence::of(flow).remoteAddress, std::nullopt);
}

TEST(FlowEvidence, takesTheEndpointsAddressWithoutItsZone) {
  const auto evidence = FlowEvidence::of({.urlHost = "url.example",
                                          .remoteHostname = "",
                                          .endpointName = "",
                                          .endpointAddress = "fe80::1%eth0"});
  EXPECT_EQ(evidence.remoteAddress, FlowAddress::fromPrintedForm("fe80::1"));
  EXPECT_EQ(evidence.remoteHostname, "url.example");
}

}  // namespace
}  // namespace stillow::filtering
