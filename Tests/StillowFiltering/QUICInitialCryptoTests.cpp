#include <algorithm>

#include <gtest/gtest.h>

#include "StillowFiltering/Wire/QUICInitialCrypto.hpp"
#include "WireFixtures.hpp"
#include "WireTesting.hpp"

namespace stillow::filtering {
namespace {

using namespace testing;

template <std::size_t size>
std::array<std::uint8_t, size> arrayFromHex(std::string_view hex) {
  std::array<std::uint8_t, size> array{};
  std::ranges::copy(fromHex(hex), array.begin());
  return array;
}

const Bytes exampleID = fromHex("8394c8f03e515708");

// RFC 9001, A.1 and RFC 9369, A.1.
TEST(QUICInitialCrypto, derivesTheKeysOfTheStandards) {
  QUICInitialCrypto crypto;
  const QUICInitialKeys v1{
      .key = arrayFromHex<16>("1f369613dd76d5467730efcbe3b1a22d"),
      .iv = arrayFromHex<12>("fa044b2f42a3fd3b46fb255c"),
      .headerProtectionKey = arrayFromHex<16>("9f50449e04a0e810283a1e9933adedd2")};
  const QUICInitialKeys v2{
      .key = arrayFromHex<16>("8b1a0bc121284290a29e0971b5cd045d"),
      .iv = arrayFromHex<12>("91f73e2351d8fa91660e909f"),
      .headerProtectionKey = arrayFromHex<16>("45b95e15235d6f45a6b19cbcb0294ba9")};
  EXPECT_EQ(crypto.deriveClientKeys(QUICVersion::v1, exampleID), v1);
  EXPECT_EQ(crypto.deriveClientKeys(QUICVersion::v2, exampleID), v2);
  EXPECT_EQ(crypto.deriveClientKeys(QUICVersion::v1, exampleID), v1) << "nothing stays behind";
}

TEST(QUICInitialCrypto, derivesKeysFromIDsOfEveryLength) {
  QUICInitialCrypto crypto;
  std::optional<QUICInitialKeys> previous;
  for (std::size_t size = 0; size <= quicConnectionIDBytesMax; ++size) {
    const auto keys = crypto.deriveClientKeys(QUICVersion::v1, Bytes(size, 0x42));
    ASSERT_TRUE(keys) << size;
    EXPECT_NE(keys, previous) << size;
    previous = keys;
  }
}

// RFC 9001, A.2 and RFC 9369, A.2.
TEST(QUICInitialCrypto, masksTheHeadersOfTheStandards) {
  QUICInitialCrypto crypto;
  const auto maskOf = [&](QUICVersion version, std::string_view sampleHex) {
    const auto sample = arrayFromHex<16>(sampleHex);
    return crypto.headerMask(crypto.deriveClientKeys(version, exampleID).value(), sample);
  };
  EXPECT_EQ(maskOf(QUICVersion::v1, "d1b1c98dd7689fb8ec11d242b123dc9b"),
            arrayFromHex<5>("437b9aec36"));
  EXPECT_EQ(maskOf(QUICVersion::v2, "ffe67b6abcdb4298b485dd04de806071"),
            arrayFromHex<5>("94a0c95e80"));
}

class OpenedExample {
 public:
  OpenedExample() : datagram(loadDatagrams("rfc9001-a2.datagrams").at(0)) {}

  bool open() {
    const WireBytes bytes = datagram;
    return crypto.open(crypto.deriveClientKeys(QUICVersion::v1, exampleID).value(),
                       {.packetNumber = packetNumber,
                        .header = {header, WireBytes{}, WireBytes{}},
                        .payload = bytes.subspan(22).first(payloadBytes)},
                       plaintext);
  }

  QUICInitialCrypto crypto;
  Bytes datagram;
  Bytes header = fromHex("c300000001088394c8f03e5157080000449e00000002");
  std::uint64_t packetNumber = 2;
  std::size_t payloadBytes = 1'178;
  Bytes plaintext = Bytes(1'162);
};

TEST(QUICInitialCrypto, opensThePacketOfTheStandard) {
  OpenedExample example;
  ASSERT_TRUE(example.open());
  const Bytes frame = fromHex("060040f1010000ed0303ebf8fa56f12939b9584a3896472ec40bb863cfd3e868");
  EXPECT_TRUE(std::ranges::equal(WireBytes{example.plaintext}.first(frame.size()), frame));
  EXPECT_EQ(std::ranges::count(WireBytes{example.plaintext}.subspan(245), 0), 1'162 - 245);
  EXPECT_TRUE(example.open()) << "once more with the same contexts";
}

TEST(QUICInitialCrypto, refusesWhatDoesNotAuthenticate) {
  OpenedExample example;
  example.packetNumber = 3;
  EXPECT_FALSE(example.open());
  example.packetNumber = 2;
  example.header.back() ^= 1;
  EXPECT_FALSE(example.open());
  example.header.back() ^= 1;
  for (const std::size_t at : {22U, 600U, 1'183U, 1'199U}) {
    example.datagram[at] ^= 0x80;
    EXPECT_FALSE(example.open()) << at;
    example.datagram[at] ^= 0x80;
  }
  EXPECT_TRUE(example.open()) << "refusals leave nothing behind";
}

TEST(QUICInitialCrypto, refusesPayloadsThatAreTooShortOrFindNoRoom) {
  OpenedExample example;
  for (const std::size_t size : {0U, 1U, 15U, 16U, 17U}) {
    example.payloadBytes = size;
    EXPECT_FALSE(example.open()) << size;
  }
  example.payloadBytes = 1'178;
  example.plaintext.resize(1'161);
  EXPECT_FALSE(example.open());
}

}  // namespace
}  // namespace stillow::filtering
