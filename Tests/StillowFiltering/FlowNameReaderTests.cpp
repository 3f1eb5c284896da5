#include <random>
#include <string>

#include <gtest/gtest.h>

#include "StillowFiltering/Wire/FlowNameReader.hpp"
#include "TestSupport/AllocationCount.hpp"
#include "WireFixtures.hpp"
#include "WireTesting.hpp"

namespace stillow::filtering {
namespace {

using namespace testing;

struct Capture {
  const char* fixture;
  const char* answer;
};

const Capture captures[]{{"curl-tls.stream", "www.example.org"},
                         {"curl-tls-address.stream", "none"},
                         {"curl-http.stream", "www.example.org"},
                         {"curl-http-post.stream", "www.example.org"},
                         {"curl-proxied-http.stream", "www.example.org"},
                         {"curl-proxied-https.stream", "none"},
                         {"python-http-odd-case.stream", "www.example.org"},
                         {"python-http-folded.stream", "www.example.org"},
                         {"openssl-tls.stream", "www.example.org"},
                         {"openssl-tls-no-name.stream", "none"},
                         {"openssl-tls-two-records.stream", "www.example.org"},
                         {"openssl-tls12.stream", "www.example.org"},
                         {"chromium-tls.stream", "www.example.org"},
                         {"chromium-tls-outer-name.stream", "none"},
                         {"firefox-tls.stream", "www.example.org"},
                         {"nss-tls-ech.stream", "none"}};

/// A client's stream and where its sequence numbers begin.
class SentStream {
 public:
  SentStream(Bytes bytes, std::uint32_t initialSequence)
      : bytes_(std::move(bytes)), initialSequence_(initialSequence) {}

  [[nodiscard]] TCPSegment syn(std::size_t payloadBytes = 0) const {
    return {initialSequence_, true, WireBytes{bytes_}.first(payloadBytes)};
  }
  [[nodiscard]] TCPSegment segment(Piece piece) const {
    const auto sequence = static_cast<std::uint32_t>(initialSequence_ + 1 + piece.offset);
    return {sequence, false, WireBytes{bytes_}.subspan(piece.offset, piece.size)};
  }
  [[nodiscard]] std::size_t size() const { return bytes_.size(); }

 private:
  Bytes bytes_;
  std::uint32_t initialSequence_;
};

/// Gives a reader the pieces until it has an answer.
std::string takeAll(FlowNameReader& reader, const SentStream& stream,
                    const std::vector<Piece>& pieces) {
  std::string answer = "need more";
  for (const auto& piece : pieces) {
    if (answer != "need more") break;
    answer = text(reader.take(stream.segment(piece)));
  }
  return answer;
}

TEST(FlowNameReader, tellsTheProtocolsApart) {
  EXPECT_EQ(text(readStreamName({})), "need more");
  for (const auto& capture : captures) {
    EXPECT_EQ(text(readStreamName(loadFixture(capture.fixture))), capture.answer)
        << capture.fixture;
  }
  EXPECT_EQ(text(readStreamName(bytesOf("SSH-2.0-OpenSSH_9.2p1\r\n"))), "none");
  EXPECT_EQ(text(readStreamName(fromHex("001d9f2c0100"))), "none");
}

TEST(FlowNameReader, readsAStreamThatComesInOneSegment) {
  for (const auto& capture : captures) {
    const SentStream stream{loadFixture(capture.fixture), 1'000};
    FlowNameReader reader;
    EXPECT_EQ(text(reader.take(stream.segment({0, stream.size()}))), capture.answer)
        << capture.fixture;
  }
}

TEST(FlowNameReader, readsAStreamThatComesInThreeSegments) {
  for (const auto& capture : captures) {
    const SentStream stream{loadFixture(capture.fixture), 1'000};
    const std::size_t third = stream.size() / 3;
    FlowNameReader reader;
    EXPECT_EQ(takeAll(reader, stream,
                      {{0, third}, {third, third}, {2 * third, stream.size() - 2 * third}}),
              capture.answer)
        << capture.fixture;
  }
}

TEST(FlowNameReader, readsAStreamThatIsCutAfterAnyByte) {
  for (const auto& capture : captures) {
    SCOPED_TRACE(capture.fixture);
    // The numbers wrap around within the first segment.
    const SentStream stream{loadFixture(capture.fixture), 0xffff'fffe};
    for (std::size_t cut = 1; cut < stream.size(); ++cut) {
      const Piece head{0, cut};
      const Piece tail{cut, stream.size() - cut};
      FlowNameReader inOrder;
      ASSERT_EQ(takeAll(inOrder, stream, {head, tail}), capture.answer) << cut;
      FlowNameReader reversed;
      ASSERT_EQ(text(reversed.take(stream.syn())), "need more");
      ASSERT_EQ(takeAll(reversed, stream, {tail, head}), capture.answer) << cut;
    }
  }
}

TEST(FlowNameReader, readsAStreamByteByByte) {
  for (const auto& capture : captures) {
    const SentStream stream{loadFixture(capture.fixture), 7};
    std::vector<Piece> pieces;
    for (std::size_t at = 0; at < stream.size(); ++at) pieces.push_back({at, 1});
    FlowNameReader reader;
    EXPECT_EQ(takeAll(reader, stream, pieces), capture.answer) << capture.fixture;
  }
}

TEST(FlowNameReader, readsTheSameFromAnyPiecesInAnyOrder) {
  for (const auto& capture : captures) {
    const Bytes bytes = loadFixture(capture.fixture);
    for (unsigned seed = 0; seed < 150; ++seed) {
      SCOPED_TRACE(std::string{capture.fixture} + ", seed " + std::to_string(seed));
      std::mt19937 random{seed};
      const SentStream stream{
          bytes, static_cast<std::uint32_t>(seed % 2 == 0 ? random() : 0U - random() % 6'000)};
      FlowNameReader reader;
      ASSERT_EQ(text(reader.take(stream.syn())), "need more");
      const auto pieces = shuffledPieces(stream.size(), 1 + random() % 900, random);
      ASSERT_EQ(takeAll(reader, stream, pieces), capture.answer);
    }
  }
}

TEST(FlowNameReader, neverFindsAnotherNameWhateverPieceComesFirst) {
  // Without the SYN a stream seems to begin with the piece that comes first.
  for (const auto& capture : captures) {
    const Bytes bytes = loadFixture(capture.fixture);
    for (unsigned seed = 0; seed < 100; ++seed) {
      std::mt19937 random{seed};
      const SentStream stream{bytes, 50'000};
      FlowNameReader reader;
      const std::string answer =
          takeAll(reader, stream, shuffledPieces(stream.size(), 1 + random() % 900, random));
      ASSERT_TRUE(answer == capture.answer || answer == "none" || answer == "need more")
          << capture.fixture << ", seed " << seed << ": " << answer;
    }
  }
}

TEST(FlowNameReader, beginsWithTheFirstPayloadWhenItSawNoSYN) {
  const SentStream stream{loadFixture("firefox-tls.stream"), 123};
  FlowNameReader reader;
  EXPECT_EQ(text(reader.take({999, false, {}})), "need more") << "an acknowledgement says nothing";
  EXPECT_EQ(text(reader.take(stream.segment({0, 100}))), "need more");
  EXPECT_EQ(text(reader.take(stream.segment({100, 1'348}))), "www.example.org");
}

TEST(FlowNameReader, readsPayloadInTheSYN) {
  const SentStream stream{loadFixture("curl-tls.stream"), 0xffff'ffff};
  FlowNameReader whole;
  EXPECT_EQ(text(whole.take(stream.syn(stream.size()))), "www.example.org");

  FlowNameReader partial;
  EXPECT_EQ(text(partial.take(stream.syn(50))), "need more");
  EXPECT_EQ(text(partial.take(stream.segment({50, stream.size() - 50}))), "www.example.org");

  // A server that refuses the payload of the SYN gets it once more.
  FlowNameReader repeated;
  EXPECT_EQ(text(repeated.take(stream.syn(50))), "need more");
  EXPECT_EQ(text(repeated.take(stream.segment({0, stream.size()}))), "www.example.org");
}

TEST(FlowNameReader, ignoresBytesBeforeTheBeginning) {
  const Bytes request = bytesOf("GET / HTTP/1.1\r\nHost: a.example\r\n\r\n");
  FlowNameReader reader;
  EXPECT_EQ(text(reader.take({100, false, WireBytes{request}.first(10)})), "need more");
  const Bytes stray = bytesOf("\0\0\0\0\0");
  EXPECT_EQ(text(reader.take({95, false, stray})), "need more") << "all of it lies before";
  Bytes straddling = bytesOf("xxxxx");
  append(straddling, request);
  EXPECT_EQ(text(reader.take({95, false, straddling})), "a.example");
}

TEST(FlowNameReader, keepsTheFirstCopyOfAByte) {
  const Bytes request = bytesOf("GET / HTTP/1.1\r\nHost: a.example\r\n\r\n");
  const Bytes other = bytesOf("GET / HTTP/1.1\r\nHost: b.other-1\r\n\r\n");
  FlowNameReader reader;
  EXPECT_EQ(text(reader.take({1, false, WireBytes{request}.first(31)})), "need more");
  EXPECT_EQ(text(reader.take({1, false, other})), "a.example");
}

TEST(FlowNameReader, countsWhatItInspectedUpToTheFirstGap) {
  const Bytes request = bytesOf("GET /" + std::string(5'000, 'a'));
  const auto segment = [&](Piece piece) {
    return TCPSegment{static_cast<std::uint32_t>(1 + piece.offset), false,
                      WireBytes{request}.subspan(piece.offset, piece.size)};
  };
  FlowNameReader reader;
  EXPECT_EQ(reader.inspectedByteCount(), 0U);
  EXPECT_EQ(text(reader.take(segment({0, 1'000}))), "need more");
  EXPECT_EQ(reader.inspectedByteCount(), 1'000U);
  EXPECT_EQ(text(reader.take(segment({2'000, 2'000}))), "need more");
  EXPECT_EQ(reader.inspectedByteCount(), 1'000U);
  EXPECT_EQ(text(reader.take(segment({1'000, 1'000}))), "need more");
  EXPECT_EQ(reader.inspectedByteCount(), 4'000U);
  EXPECT_EQ(text(reader.take(segment({4'000, 95}))), "need more");
  EXPECT_EQ(reader.inspectedByteCount(), 4'095U);
  EXPECT_EQ(text(reader.take(segment({4'095, 1}))), "none");
  EXPECT_EQ(reader.inspectedByteCount(), 4'096U);
}

TEST(FlowNameReader, countsTheWholeBoundOnceNoNameCanFollow) {
  FlowNameReader reader;
  EXPECT_EQ(text(reader.take({1, false, bytesOf("SSH-2.0-x\r\n")})), "none");
  EXPECT_EQ(reader.inspectedByteCount(), inspectedBytesMax);
  EXPECT_EQ(text(reader.take({1, false, loadFixture("curl-tls.stream")})), "none")
      << "the answer is final";
}

TEST(FlowNameReader, givesUpAFlowWhoseGapNeverCloses) {
  const Bytes later = Bytes(1'000, 'a');
  FlowNameReader reader;
  ASSERT_EQ(text(reader.take({0, true, {}})), "need more");
  const std::size_t rounds = (FlowNameReader::offeredBytesMax - 1) / later.size();
  for (std::size_t i = 0; i < rounds; ++i) {
    const auto sequence = static_cast<std::uint32_t>(2 + i * later.size());
    ASSERT_EQ(text(reader.take({sequence, false, later})), "need more") << i;
  }
  EXPECT_EQ(text(reader.take({2, false, later})), "none");
}

TEST(FlowNameReader, allocatesNothing) {
  for (const auto& capture : captures) {
    const SentStream stream{loadFixture(capture.fixture), 9};
    const std::size_t before = test::allocationsOfThisThread();
    FlowNameReader whole;
    (void)whole.take(stream.segment({0, stream.size()}));
    FlowNameReader pieces;
    (void)pieces.take(stream.syn());
    (void)pieces.take(stream.segment({20, stream.size() - 20}));
    (void)pieces.take(stream.segment({0, 40}));
    EXPECT_EQ(test::allocationsOfThisThread(), before) << capture.fixture;
  }
}

TEST(FlowNameReader, mayBeCopiedWhileItWaits) {
  const SentStream stream{loadFixture("chromium-tls.stream"), 9};
  FlowNameReader first;
  EXPECT_EQ(text(first.take(stream.segment({0, 40}))), "need more");
  FlowNameReader copy = first;
  EXPECT_EQ(text(copy.take(stream.segment({40, stream.size() - 40}))), "www.example.org");
  EXPECT_EQ(text(first.take(stream.segment({40, stream.size() - 40}))), "www.example.org");
}

}  // namespace
}  // namespace stillow::filtering
