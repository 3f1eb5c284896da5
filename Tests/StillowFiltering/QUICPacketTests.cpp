#include <gtest/gtest.h>

#include "QUICSealing.hpp"
#include "StillowFiltering/Wire/QUICPacket.hpp"
#include "WireFixtures.hpp"
#include "WireTesting.hpp"

namespace stillow::filtering {
namespace {

using namespace testing;
using Kind = QUICLongPacket::Kind;

// RFC 9000, A.1.
TEST(QUICFieldCursor, readsNumbersOfEveryLength) {
  const Bytes bytes = fromHex(
      "c2197c5eff14e88c"
      "9d7f3e7d"
      "7bbd"
      "25"
      "4025");
  QUICFieldCursor cursor{bytes};
  EXPECT_EQ(cursor.varint(), 151'288'809'941'952'652U);
  EXPECT_EQ(cursor.varint(), 494'878'333U);
  EXPECT_EQ(cursor.varint(), 15'293U);
  EXPECT_EQ(cursor.varint(), 37U);
  EXPECT_EQ(cursor.varint(), 37U);
  EXPECT_EQ(cursor.varint(), std::nullopt);
}

TEST(QUICFieldCursor, takesNothingPastTheEnd) {
  const Bytes bytes = fromHex("9d7f3e");
  QUICFieldCursor cursor{bytes};
  EXPECT_EQ(cursor.varint(), std::nullopt);
  EXPECT_FALSE(cursor.bytes(4));
  EXPECT_FALSE(cursor.bytes(~std::uint64_t{0}));
  EXPECT_EQ(cursor.rest().size(), 3U);
  EXPECT_EQ(cursor.byte(), 0x9d);
  EXPECT_FALSE(cursor.skipVarints(~std::uint64_t{0}));
}

TEST(QUICFieldCursor, skipsZerosUpToTheFirstOtherByteOrTheEnd) {
  const Bytes bytes = fromHex("0000000100");
  QUICFieldCursor cursor{bytes};
  cursor.skipZeros();
  EXPECT_EQ(cursor.rest().size(), 2U);
  cursor.skipZeros();
  EXPECT_EQ(cursor.byte(), 1);
  cursor.skipZeros();
  EXPECT_TRUE(cursor.rest().empty());
}

// RFC 9000, A.3.
TEST(QUICPacketNumber, isTheOneClosestToTheExpected) {
  EXPECT_EQ(fullQUICPacketNumber(0xa82f30eb, 0x9b32, 2), 0xa82f9b32U);
  EXPECT_EQ(fullQUICPacketNumber(0, 0, 1), 0U);
  EXPECT_EQ(fullQUICPacketNumber(0, 0xff, 1), 0xffU);
  EXPECT_EQ(fullQUICPacketNumber(0x100, 0x00, 1), 0x100U);
  EXPECT_EQ(fullQUICPacketNumber(0x1ff, 0x01, 1), 0x201U);
  EXPECT_EQ(fullQUICPacketNumber(0x201, 0xfe, 1), 0x1feU);
  const std::uint64_t largest = (std::uint64_t{1} << 62) - 1;
  EXPECT_EQ(fullQUICPacketNumber(largest, 0x00, 1), largest - 0xff);
}

TEST(QUICLongPacket, readsTheHeaderOfTheStandard) {
  const Bytes datagram = loadDatagrams("rfc9001-a2.datagrams").at(0);
  const auto packet = QUICLongPacket::read(datagram);
  ASSERT_TRUE(packet);
  EXPECT_EQ(packet->kind, Kind::initial);
  EXPECT_EQ(packet->version, QUICVersion::v1);
  EXPECT_EQ(Bytes(packet->destinationConnectionID.begin(), packet->destinationConnectionID.end()),
            fromHex("8394c8f03e515708"));
  EXPECT_EQ(packet->header.size(), 18U);
  EXPECT_EQ(packet->protectedPart.size(), 1'182U);
  EXPECT_TRUE(packet->rest.empty());
}

TEST(QUICLongPacket, numbersItsKindsByTheVersion) {
  const auto kindOf = [](std::string_view hex) -> std::optional<Kind> {
    const Bytes bytes = fromHex(hex);
    const auto packet = QUICLongPacket::read(bytes);
    if (!packet) return std::nullopt;
    return packet->kind;
  };
  EXPECT_EQ(kindOf("c0"
                   "00000001"
                   "00"
                   "00"
                   "00"
                   "01aa"),
            Kind::initial);
  EXPECT_EQ(kindOf("d0"
                   "00000001"
                   "00"
                   "00"
                   "01aa"),
            Kind::zeroRTT);
  EXPECT_EQ(kindOf("e0"
                   "00000001"
                   "00"
                   "00"
                   "01aa"),
            Kind::handshake);
  EXPECT_EQ(kindOf("f0"
                   "00000001"
                   "00"
                   "00"
                   "01aa"),
            std::nullopt);
  EXPECT_EQ(kindOf("d0"
                   "6b3343cf"
                   "00"
                   "00"
                   "00"
                   "01aa"),
            Kind::initial);
  EXPECT_EQ(kindOf("e0"
                   "6b3343cf"
                   "00"
                   "00"
                   "01aa"),
            Kind::zeroRTT);
  EXPECT_EQ(kindOf("f0"
                   "6b3343cf"
                   "00"
                   "00"
                   "01aa"),
            Kind::handshake);
  EXPECT_EQ(kindOf("c0"
                   "6b3343cf"
                   "00"
                   "00"
                   "01aa"),
            std::nullopt);
}

TEST(QUICLongPacket, refusesWhatIsNotWhole) {
  const Bytes datagram = InitialSealer{}.seal({}, {.token = Bytes(70, 0x33)});
  EXPECT_TRUE(QUICLongPacket::read(datagram));
  for (std::size_t size = 0; size < datagram.size(); ++size) {
    EXPECT_FALSE(QUICLongPacket::read(WireBytes{datagram}.first(size))) << size;
  }
}

TEST(QUICLongPacket, refusesOtherHeadersAndVersions) {
  for (const char* hex : {"40"
                          "00000001"
                          "00"
                          "00"
                          "00"
                          "01aa",  // short header
                          "80"
                          "00000001"
                          "00"
                          "00"
                          "00"
                          "01aa",  // fixed bit missing
                          "c0"
                          "00000000"
                          "00"
                          "00"
                          "00"
                          "01aa",  // version negotiation
                          "c0"
                          "ff00001d"
                          "00"
                          "00"
                          "00"
                          "01aa",  // a draft
                          "c0"
                          "1a2a3a4a"
                          "00"
                          "00"
                          "00"
                          "01aa"}) {  // a version to be refused
    EXPECT_FALSE(QUICLongPacket::read(fromHex(hex))) << hex;
  }
  Bytes longID = fromHex(
      "c0"
      "00000001"
      "15");
  longID.resize(longID.size() + 21, 0x11);
  append(longID, fromHex("00"
                         "00"
                         "01aa"));
  EXPECT_FALSE(QUICLongPacket::read(longID));
}

}  // namespace
}  // namespace stillow::filtering
