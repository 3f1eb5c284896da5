#include <algorithm>
#include <random>

#include <gtest/gtest.h>

#include "QUICSealing.hpp"
#include "StillowFiltering/Wire/QUICInitialReader.hpp"
#include "WireFixtures.hpp"
#include "WireTesting.hpp"

namespace stillow::filtering {
namespace {

using namespace testing;

class QUICInitialReaderTest : public ::testing::Test {
 protected:
  std::string take(WireBytes datagram) { return text(reader_.take(datagram, crypto_)); }
  /// The answer to the last of these, given to a fresh reader.
  std::string takeAll(const std::vector<Bytes>& datagrams) {
    reader_ = QUICInitialReader{};
    std::string answer = "need more";
    for (const auto& datagram : datagrams) {
      EXPECT_EQ(answer, "need more") << "asked again after its last answer";
      answer = take(datagram);
    }
    return answer;
  }
  Bytes sealPiece(Piece piece, std::uint64_t packetNumber) {
    return sealer_.seal(cryptoPiece(hello_, piece), {.packetNumber = packetNumber});
  }
  Bytes firstHalf() { return sealPiece({0, hello_.size() / 2}, 0); }
  Bytes secondHalf() {
    return sealPiece({hello_.size() / 2, hello_.size() - hello_.size() / 2}, 1);
  }

  QUICInitialCrypto crypto_;
  QUICInitialReader reader_;
  InitialSealer sealer_;
  std::uint64_t packetNumber_ = 0;
  Bytes hello_ =
      helloMessage({{.type = 51, .body = Bytes(600, 0x77)}, serverName("quic.example.com")});
};

// RFC 9001, A.2 and RFC 9369, A.2.
TEST_F(QUICInitialReaderTest, opensThePacketsOfTheStandards) {
  EXPECT_EQ(takeAll(loadDatagrams("rfc9001-a2.datagrams")), "example.com");
  EXPECT_EQ(takeAll(loadDatagrams("rfc9369-a2.datagrams")), "example.com");
}

TEST_F(QUICInitialReaderTest, findsTheNameInOneCapturedDatagram) {
  EXPECT_EQ(takeAll({loadDatagrams("ngtcp2-quic-v1.datagrams").at(0)}), "www.example.org");
}

TEST_F(QUICInitialReaderTest, findsTheNameInTwoCapturedDatagramsInEitherOrder) {
  for (const char* fixture :
       {"chromium-quic.datagrams", "chromium-quic-v2.datagrams", "firefox-quic.datagrams"}) {
    SCOPED_TRACE(fixture);
    const auto datagrams = loadDatagrams(fixture);
    const Bytes& first = datagrams.at(0);
    const Bytes& second = datagrams.at(1);
    EXPECT_EQ(takeAll({first, second}), "www.example.org");
    EXPECT_EQ(takeAll({second, first}), "www.example.org");
    EXPECT_EQ(takeAll({first, first, first, second}), "www.example.org");
  }
}

TEST_F(QUICInitialReaderTest, readsCapturedRetransmissionsInEveryOrder) {
  for (const char* fixture : {"chromium-quic.datagrams", "firefox-quic.datagrams"}) {
    const auto datagrams = loadDatagrams(fixture);
    std::vector<std::size_t> order{0, 1, 2, 3};
    ASSERT_GE(datagrams.size(), order.size());
    do {
      reader_ = QUICInitialReader{};
      std::string answer = "need more";
      for (const std::size_t i : order) {
        if (answer == "need more") answer = take(datagrams[i]);
      }
      ASSERT_EQ(answer, "www.example.org") << fixture;
    } while (std::ranges::next_permutation(order).found);
  }
}

TEST_F(QUICInitialReaderTest, isTriedOnACaptureWhoseHelloIsShuffledOverTwoPackets) {
  const auto datagrams = loadDatagrams("chromium-quic.datagrams");
  EXPECT_EQ(takeAll({datagrams.at(0)}), "need more");
  EXPECT_EQ(takeAll({datagrams.at(1)}), "need more");
}

TEST_F(QUICInitialReaderTest, hasNoNameForCapturedDatagramsAfterTheHello) {
  const auto datagrams = loadDatagrams("ngtcp2-quic-v1.datagrams");
  ASSERT_GE(datagrams.size(), 4U);
  for (std::size_t i = 1; i < datagrams.size(); ++i) {
    EXPECT_EQ(takeAll({datagrams[i]}), "none") << "datagram " << i;
  }
}

TEST_F(QUICInitialReaderTest, findsTheNameWhereverTheHelloIsCut) {
  for (std::size_t cut = 1; cut < hello_.size(); ++cut) {
    const Bytes head = sealPiece({0, cut}, 0);
    const Bytes tail = sealPiece({cut, hello_.size() - cut}, 1);
    reader_ = QUICInitialReader{};
    const std::string early = take(head);
    if (early == "need more") {
      ASSERT_EQ(take(tail), "quic.example.com") << cut;
    } else {
      ASSERT_EQ(early, "quic.example.com") << cut;
    }
    ASSERT_EQ(takeAll({tail, head}), "quic.example.com") << cut;
  }
}

TEST_F(QUICInitialReaderTest, findsTheNameInFramesOfAnyOrderOverAnyPackets) {
  for (unsigned seed = 0; seed < 200; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random{seed};
    InitialSealer sealer{seed % 2 == 0 ? QUICVersion::v1 : QUICVersion::v2,
                         Bytes(8 + seed % 13, 0x5c)};
    reader_ = QUICInitialReader{};
    Bytes frames;
    std::uint64_t packetNumber = random() % 1000;
    std::string answer = "need more";
    const auto pieces = shuffledPieces(hello_.size(), 1 + random() % 300, random);
    for (std::size_t i = 0; i < pieces.size() && answer == "need more"; ++i) {
      append(frames, cryptoPiece(hello_, pieces[i]));
      append(frames, Bytes(random() % 5, 0));      // PADDING
      if (random() % 2 == 0) frames.push_back(1);  // PING
      if (i + 1 < pieces.size() && frames.size() < 600) continue;
      packetNumber += 1 + random() % 3;
      answer = take(sealer.seal(
          frames, {.packetNumber = packetNumber, .packetNumberBytes = 2 + random() % 3}));
      frames.clear();
    }
    EXPECT_EQ(answer, "quic.example.com");
  }
}

TEST_F(QUICInitialReaderTest, readsPacketsThatShareADatagram) {
  Bytes both = firstHalf();
  append(both, secondHalf());
  EXPECT_EQ(takeAll({both}), "quic.example.com");

  Bytes padded = firstHalf();
  padded.resize(1'200, 0);
  EXPECT_EQ(takeAll({padded, secondHalf()}), "quic.example.com");
}

TEST_F(QUICInitialReaderTest, ignoresAPacketForAnotherConnectionInTheSameDatagram) {
  InitialSealer other{QUICVersion::v1, fromHex("0102030405060708")};
  Bytes mixed = firstHalf();
  append(mixed, other.seal(cryptoFrame(0, helloMessage({serverName("other.example")}))));
  EXPECT_EQ(takeAll({mixed}), "need more");
  EXPECT_EQ(take(secondHalf()), "quic.example.com");
}

TEST_F(QUICInitialReaderTest, readsALimitedNumberOfPacketsInADatagram) {
  Bytes many;
  for (std::uint64_t i = 0; i < QUICInitialReader::packetsPerDatagramMax; ++i) {
    append(many, sealer_.seal(Bytes(1, 1), {.packetNumber = i}));
  }
  append(many, sealer_.seal(cryptoFrame(0, hello_), {.packetNumber = 100}));
  EXPECT_EQ(takeAll({many}), "need more");
}

TEST_F(QUICInitialReaderTest, waitsForTheHelloBesideEarlyData) {
  Bytes earlyData = fromHex(
      "d0"
      "00000001"
      "08"
      "8394c8f03e515708"
      "00"
      "4020");
  earlyData.resize(earlyData.size() + 32, 0xee);
  EXPECT_EQ(takeAll({earlyData, firstHalf(), earlyData, secondHalf()}), "quic.example.com");

  Bytes coalesced = firstHalf();
  append(coalesced, earlyData);
  EXPECT_EQ(takeAll({coalesced, secondHalf()}), "quic.example.com");
}

TEST_F(QUICInitialReaderTest, hasNoNameOnceTheHandshakeHasGoneOn) {
  Bytes handshake = fromHex(
      "e0"
      "00000001"
      "08"
      "8394c8f03e515708"
      "00"
      "4020");
  handshake.resize(handshake.size() + 32, 0xee);
  EXPECT_EQ(takeAll({firstHalf(), handshake}), "none");
  EXPECT_EQ(takeAll({firstHalf(), fromHex("41aabbccdd")}), "none");
  EXPECT_EQ(takeAll({handshake}), "none");
}

TEST_F(QUICInitialReaderTest, acceptsEveryFrameOfAnInitialBeforeTheHello) {
  Bytes frames = fromHex(
      "00"
      "01"
      "02"
      "05"
      "00"
      "01"
      "01"
      "00"
      "01"  // ACK with a second range
      "03"
      "4005"
      "00"
      "00"
      "02"
      "01"
      "02"
      "4003");  // ACK with ECN counts
  append(frames, cryptoFrame(0, hello_));
  EXPECT_EQ(takeAll({sealer_.seal(frames)}), "quic.example.com");
}

TEST_F(QUICInitialReaderTest, hasNoNameAfterAFrameThatNoInitialMayHold) {
  for (const char* hex : {"04", "05", "07", "08", "10", "1d", "1e", "30", "4040", "ff"}) {
    Bytes frames = cryptoFrame(0, hello_);
    append(frames, fromHex(hex));
    EXPECT_EQ(takeAll({sealer_.seal(frames)}), "none") << hex;
  }
}

TEST_F(QUICInitialReaderTest, hasNoNameAfterAFrameThatIsCutShort) {
  for (const char* hex : {"06", "0600", "060005aabb", "06c0", "02", "0205", "020500", "02050001",
                          "0205000101", "020500ffffffffffffffff00", "03050000000102"}) {
    EXPECT_EQ(takeAll({sealer_.seal(fromHex(hex), {.payloadBytesMin = 0})}), "none") << hex;
  }
}

TEST_F(QUICInitialReaderTest, hasNoNameAfterTheClientClosesTheConnection) {
  Bytes frames = cryptoPiece(hello_, {0, 100});
  append(frames, fromHex("1c000000"));
  EXPECT_EQ(takeAll({sealer_.seal(frames)}), "none");

  Bytes complete = cryptoFrame(0, hello_);
  append(complete, fromHex("1c000000"));
  EXPECT_EQ(takeAll({sealer_.seal(complete)}), "quic.example.com") << "it did name the host";
}

TEST_F(QUICInitialReaderTest, hasNoNameWhenTheFirstInitialDoesNotAuthenticate) {
  const Bytes good = sealer_.seal(cryptoFrame(0, hello_));
  ASSERT_EQ(takeAll({good}), "quic.example.com");
  Bytes bad = good;
  bad.back() ^= 1;
  EXPECT_EQ(takeAll({bad}), "none");
  EXPECT_EQ(take(good), "none") << "the answer is final";
}

TEST_F(QUICInitialReaderTest, passesOverWhatDoesNotAuthenticateLater) {
  Bytes bad = secondHalf();
  bad.back() ^= 1;
  EXPECT_EQ(takeAll({firstHalf(), bad, secondHalf()}), "quic.example.com");
}

TEST_F(QUICInitialReaderTest, findsNothingInADatagramWithAnyBitTurned) {
  const Bytes good = loadDatagrams("rfc9001-a2.datagrams").at(0);
  for (std::size_t at = 0; at < good.size(); ++at) {
    Bytes bad = good;
    bad[at] = static_cast<std::uint8_t>(bad[at] ^ 1 << at % 8);
    ASSERT_EQ(takeAll({bad}).find('.'), std::string::npos) << "byte " << at;
  }
}

TEST_F(QUICInitialReaderTest, findsNothingInADatagramThatIsCutAnywhere) {
  for (const char* fixture : {"rfc9001-a2.datagrams", "ngtcp2-quic-v1.datagrams"}) {
    const Bytes whole = loadDatagrams(fixture).at(0);
    for (std::size_t size = 0; size < whole.size(); ++size) {
      reader_ = QUICInitialReader{};
      ASSERT_EQ(take(WireBytes{whole}.first(size)), "none") << fixture << " cut to " << size;
    }
  }
}

TEST_F(QUICInitialReaderTest, keepsItsKeysWhenTheClientTakesUpTheServersID) {
  const Bytes tail = sealer_.seal(cryptoPiece(hello_, {300, hello_.size() - 300}),
                                  {.packetNumber = 1, .destination = fromHex("aabbccdd")});
  EXPECT_EQ(takeAll({sealPiece({0, 300}, 0), tail}), "quic.example.com");
}

TEST_F(QUICInitialReaderTest, startsAnewAfterARetry) {
  // The client repeats its hello under keys from the id that the Retry gave, with the token.
  InitialSealer retried{QUICVersion::v1, fromHex("f067a5502a4262b5")};
  const auto seal = [&](Piece piece, std::uint64_t number) {
    return retried.seal(cryptoPiece(hello_, piece),
                        {.packetNumber = number, .token = Bytes(90, 0x4b)});
  };
  EXPECT_EQ(takeAll({firstHalf(), seal({0, 200}, 1), seal({200, hello_.size() - 200}, 2)}),
            "quic.example.com");
}

TEST_F(QUICInitialReaderTest, waitsForAClientThatBeginsInAnUnknownVersion) {
  const Bytes unknown = loadDatagrams("ngtcp2-quic-unknown-version.datagrams").at(0);
  EXPECT_EQ(takeAll({unknown, sealer_.seal(cryptoFrame(0, hello_))}), "quic.example.com");
  EXPECT_EQ(takeAll({Bytes(unknown.begin(), unknown.end() - 1)}), "none") << "no server answers";

  const std::size_t rounds = (QUICInitialReader::offeredBytesMax - 1) / unknown.size();
  EXPECT_EQ(takeAll(std::vector<Bytes>(rounds, unknown)), "need more");
  EXPECT_EQ(take(unknown), "none") << "nobody waits for ever";
}

TEST_F(QUICInitialReaderTest, doesNotMixTheHellosOfTwoAttempts) {
  const Bytes otherHello =
      helloMessage({{.type = 51, .body = Bytes(600, 0x66)}, serverName("next.example.org")});
  InitialSealer next{QUICVersion::v2, fromHex("1122334455667788")};
  const Bytes tail = next.seal(cryptoPiece(otherHello, {400, otherHello.size() - 400}));
  const Bytes head = next.seal(cryptoPiece(otherHello, {0, 400}), {.packetNumber = 1});
  EXPECT_EQ(takeAll({firstHalf(), tail, head}), "next.example.org");
}

TEST_F(QUICInitialReaderTest, readsPacketNumbersOfEveryLength) {
  for (std::size_t bytes = 1; bytes <= 4; ++bytes) {
    EXPECT_EQ(takeAll({sealer_.seal(cryptoFrame(0, hello_),
                                    {.packetNumber = 0x7f, .packetNumberBytes = bytes})}),
              "quic.example.com")
        << bytes;
  }
  // 0x100 in one byte says 0x00; only the number before tells which is meant.
  EXPECT_EQ(takeAll({sealer_.seal(cryptoPiece(hello_, {0, 300}),
                                  {.packetNumber = 0xff, .packetNumberBytes = 2}),
                     sealer_.seal(cryptoPiece(hello_, {300, hello_.size() - 300}),
                                  {.packetNumber = 0x100, .packetNumberBytes = 1})}),
            "quic.example.com");
}

TEST_F(QUICInitialReaderTest, knowsAtTheFirstDatagramThatItIsNotQUIC) {
  struct Row {
    const char* what;
    Bytes datagram;
  };
  const Row rows[]{
      {"nothing", {}},
      {"DNS query", fromHex("c0de01000001000000000000076578616d706c6503636f6d0000010001")},
      {"NTP", fromHex("e30006ec")},
      {"DTLS", inRecords(helloMessage({serverName("example.com")}))},
      {"STUN", fromHex("000100002112a442000102030405060708090a0b")},
      {"an unknown version", fromHex("c0"
                                     "ff00001d"
                                     "08"
                                     "8394c8f03e515708"
                                     "00"
                                     "00"
                                     "4004"
                                     "aabbccdd")},
      {"version negotiation", fromHex("c0"
                                      "00000000"
                                      "08"
                                      "8394c8f03e515708"
                                      "00"
                                      "00000001")},
      {"a Retry", fromHex("ff"
                          "00000001"
                          "00"
                          "08"
                          "f067a5502a4262b5"
                          "746f6b656e")},
      {"an Initial without room for a sample", fromHex("c0"
                                                       "00000001"
                                                       "08"
                                                       "8394c8f03e515708"
                                                       "00"
                                                       "00"
                                                       "13"
                                                       "00000000000000000000000000000000000000")},
      {"a later packet", fromHex("4faabbccddeeff00112233445566778899")}};
  for (const auto& row : rows) EXPECT_EQ(takeAll({row.datagram}), "none") << row.what;
}

TEST_F(QUICInitialReaderTest, countsTheHelloAsInspectedUpToTheFirstGap) {
  EXPECT_EQ(reader_.inspectedByteCount(), 0U);
  EXPECT_EQ(take(sealPiece({200, 100}, 0)), "need more");
  EXPECT_EQ(reader_.inspectedByteCount(), 0U);
  EXPECT_EQ(take(sealPiece({0, 150}, 1)), "need more");
  EXPECT_EQ(reader_.inspectedByteCount(), 150U);
  EXPECT_EQ(take(fromHex("41aabb")), "none");
  EXPECT_EQ(reader_.inspectedByteCount(), inspectedBytesMax);
}

TEST_F(QUICInitialReaderTest, givesUpAtTheInspectionBound) {
  const Bytes hello =
      helloMessage({{.type = 21, .body = Bytes(5'000, 0)}, serverName("late.example")});
  const auto seal = [&](Piece piece) {
    return sealer_.seal(cryptoPiece(hello, piece), {.packetNumber = packetNumber_++});
  };
  EXPECT_EQ(takeAll({seal({0, 1'500}), seal({1'500, 1'500}), seal({3'000, 1'095})}), "need more");
  EXPECT_EQ(reader_.inspectedByteCount(), inspectedBytesMax - 1);
  EXPECT_EQ(take(seal({4'095, 1})), "none");
}

TEST_F(QUICInitialReaderTest, givesUpAFlowThatSaysNothingNew) {
  const Bytes ping = sealer_.seal(fromHex("01"), {.payloadBytesMin = 1'000});
  const std::size_t rounds = (QUICInitialReader::offeredBytesMax - 1) / ping.size();
  for (std::size_t i = 0; i < rounds; ++i) ASSERT_EQ(take(ping), "need more") << i;
  EXPECT_EQ(take(ping), "none");
}

TEST_F(QUICInitialReaderTest, refusesAnInitialLargerThanAnyClients) {
  const std::size_t overhead = 4 + QUICInitialCrypto::tagBytes;
  const auto withPayload = [&](std::size_t bytes) {
    return sealer_.seal(cryptoFrame(0, hello_), {.payloadBytesMin = bytes});
  };
  EXPECT_EQ(takeAll({withPayload(QUICInitialReader::packetPayloadBytesMax)}), "quic.example.com");
  EXPECT_EQ(takeAll({withPayload(QUICInitialReader::packetPayloadBytesMax + overhead)}), "none");
}

TEST_F(QUICInitialReaderTest, treatsAHelloLikeThatOfATCPFlow) {
  const auto answer = [&](const std::vector<TestExtension>& extensions) {
    return takeAll({sealer_.seal(cryptoFrame(0, helloMessage(extensions)))});
  };
  EXPECT_EQ(answer({}), "none");
  EXPECT_EQ(answer({serverName("192.0.2.1")}), "none");
  EXPECT_EQ(answer({serverName("cloudflare-ech.com"), encryptedHello()}), "none");
  EXPECT_EQ(answer({serverName("example.com"), encryptedHello()}), "example.com");
}

TEST_F(QUICInitialReaderTest, mayBeCopiedWhileItWaits) {
  QUICInitialReader first;
  EXPECT_EQ(text(first.take(firstHalf(), crypto_)), "need more");
  QUICInitialReader copy = first;
  EXPECT_EQ(text(copy.take(secondHalf(), crypto_)), "quic.example.com");
  EXPECT_EQ(text(first.take(secondHalf(), crypto_)), "quic.example.com");
}

}  // namespace
}  // namespace stillow::filtering
