#include <algorithm>
#include <array>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "StillowFiltering/Wire/ClientHelloReader.hpp"
#include "WireFixtures.hpp"
#include "WireTesting.hpp"

namespace stillow::filtering {
namespace {

using namespace testing;

std::string readStream(WireBytes stream) { return text(readClientHello(stream)); }
std::string readHello(const std::vector<TestExtension>& extensions) {
  return readStream(inRecords(helloMessage(extensions)));
}

const TestExtension grease{.type = 0x4a4a, .body = {}};
const TestExtension alpn{.type = 16, .body = fromHex("000c02683208687474702f312e31")};
const TestExtension keyShare{.type = 51, .body = Bytes(1'300, 0x77)};

TEST(ClientHelloReader, findsTheNameInCapturedHellos) {
  struct Row {
    const char* fixture;
    const char* answer;
  };
  const Row rows[]{{"curl-tls.stream", "www.example.org"},
                   {"openssl-tls.stream", "www.example.org"},
                   {"openssl-tls12.stream", "www.example.org"},
                   {"openssl-tls-two-records.stream", "www.example.org"},
                   {"chromium-tls.stream", "www.example.org"},
                   {"firefox-tls.stream", "www.example.org"},
                   {"curl-tls-address.stream", "none"},
                   {"openssl-tls-no-name.stream", "none"},
                   {"nss-tls-ech.stream", "none"},
                   {"chromium-tls-outer-name.stream", "none"},
                   {"curl-http.stream", "none"}};
  for (const auto& row : rows) {
    EXPECT_EQ(readStream(loadFixture(row.fixture)), row.answer) << row.fixture;
  }
}

TEST(ClientHelloReader, isTriedOnHellosWithAPostQuantumKeyShare) {
  // The captures stand for the hellos that outgrew one segment; a capture without would not.
  for (const char* fixture : {"chromium-tls.stream", "firefox-tls.stream"}) {
    const Bytes stream = loadFixture(fixture);
    EXPECT_GT(stream.size(), 1'460U) << fixture;
    const Bytes group = fromHex("11ec04c0");  // X25519MLKEM768, a share of 1216 bytes
    EXPECT_FALSE(std::ranges::search(stream, group).empty()) << fixture;
  }
}

TEST(ClientHelloReader, findsTheNameAmongOtherExtensions) {
  EXPECT_EQ(readHello({serverName("example.com")}), "example.com");
  EXPECT_EQ(readHello({grease, alpn, keyShare, serverName("late.example.com"), grease}),
            "late.example.com");
  EXPECT_EQ(readHello({serverName("EXAMPLE.Com.")}), "example.com");
}

TEST(ClientHelloReader, answersAsSoonAsTheNameIsThere) {
  const Bytes stream = inRecords(helloMessage({serverName("example.com"), keyShare}));
  const auto name = std::ranges::search(stream, bytesOf("example.com"));
  const auto nameEnd = static_cast<std::size_t>(name.end() - stream.begin());
  EXPECT_EQ(readStream(WireBytes{stream}.first(nameEnd - 1)), "need more");
  EXPECT_EQ(readStream(WireBytes{stream}.first(nameEnd)), "example.com");
}

TEST(ClientHelloReader, hasNoNameWithoutServerName) {
  EXPECT_EQ(readHello({}), "none");
  EXPECT_EQ(readHello({grease, alpn}), "none");

  Bytes old = fromHex("010000290303");  // a hello that ends before its extensions
  old.insert(old.end(), 32, 0x11);
  append(old, fromHex("000002002f0100"));
  ASSERT_EQ(old.size(), 4U + 0x29);
  EXPECT_EQ(readStream(inRecords(old)), "none");
}

TEST(ClientHelloReader, hasNoNameWhenItsBytesAreNoHostName) {
  for (const char* name :
       {"", "a..b", "192.0.2.1", "2001:db8::1", "[::1]", "a b.example", "exa\nmple.com",
        "b\xc3\xbc"
        "cher.example",
        "*.example.com", "user@example.com"}) {
    EXPECT_EQ(readHello({serverName(name), alpn}), "none") << name;
  }
  EXPECT_EQ(readHello({serverName(std::string(254, 'a'))}), "none");
  EXPECT_EQ(readHello({serverName(std::string{"a\0b.example", 11})}), "none");
}

TEST(ClientHelloReader, readsTheFirstHostNameOfTheFirstServerName) {
  EXPECT_EQ(readHello({serverName("first.example"), serverName("second.example")}),
            "first.example");
  EXPECT_EQ(readHello({serverName("other-type.example", 1), alpn}), "none");

  TestExtension list;  // an entry of another type, then the host name
  list.body = fromHex(
      "0010"
      "070002beef"
      "000008");
  append(list.body, bytesOf("host.one"));
  EXPECT_EQ(readHello({list}), "host.one");
}

TEST(ClientHelloReader, takesAProvidersOuterNameOfAnEncryptedHelloForNone) {
  const auto outer = serverName("cloudflare-ech.com");
  EXPECT_EQ(readHello({outer, alpn, encryptedHello()}), "none");
  EXPECT_EQ(readHello({encryptedHello(), alpn, outer}), "none");
  EXPECT_EQ(readHello({serverName("Cloudflare-ECH.com."), encryptedHello()}), "none");
  EXPECT_EQ(readHello({serverName("encryptedsni.com"), encryptedHello()}), "none");
}

TEST(ClientHelloReader, takesAnyOtherNameBesideTheEncryptedHelloExtensionForReal) {
  EXPECT_EQ(readHello({serverName("example.com"), encryptedHello()}), "example.com");
  EXPECT_EQ(readHello({encryptedHello(), serverName("example.com")}), "example.com");
  EXPECT_EQ(readHello({encryptedHello(), serverName("www.cloudflare-ech.com")}),
            "www.cloudflare-ech.com");
}

TEST(ClientHelloReader, takesAProvidersOuterNameForRealWithoutTheExtension) {
  const Bytes stream = inRecords(helloMessage({serverName("cloudflare-ech.com"), alpn}));
  EXPECT_EQ(readStream(stream), "cloudflare-ech.com");
  // Only the header of the last extension tells that this one is missing.
  const std::size_t headerEnd = stream.size() - alpn.body.size();
  EXPECT_EQ(readStream(WireBytes{stream}.first(headerEnd - 1)), "need more");
  EXPECT_EQ(readStream(WireBytes{stream}.first(headerEnd)), "cloudflare-ech.com");
}

TEST(ClientHelloReader, joinsAHelloFromRecordsOfAnySize) {
  const Bytes message = helloMessage({grease, alpn, serverName("cut.example.com"), grease});
  for (std::size_t fragment = 1; fragment <= message.size(); ++fragment) {
    EXPECT_EQ(readStream(inRecords(message, fragment)), "cut.example.com") << fragment;
  }
}

TEST(ClientHelloReader, ignoresWhatFollowsTheHello) {
  Bytes stream = inRecords(helloMessage({alpn}));
  append(stream, fromHex("140303000101"));
  append(stream, inRecords(helloMessage({serverName("second.example")})));
  EXPECT_EQ(readStream(stream), "none");
}

TEST(ClientHelloReader, hasNoNameOnceAnotherRecordInterruptsTheHello) {
  const Bytes message = helloMessage({alpn, serverName("example.com")});
  for (const char* foreign :
       {"15030100020228", "140303000101", "1603010000", "47455420", "1602", "160305"}) {
    Bytes stream = inRecords(WireBytes{message}.first(60));
    EXPECT_EQ(readStream(stream), "need more");
    append(stream, fromHex(foreign));
    EXPECT_EQ(readStream(stream), "none") << foreign;
  }
}

TEST(ClientHelloReader, knowsAtTheFirstWrongByteThatItIsNoHello) {
  struct Row {
    const char* hex;
    const char* answer;
  };
  const Row rows[]{{"", "need more"},
                   {"16", "need more"},
                   {"1603", "need more"},
                   {"160301", "need more"},
                   {"1603010200", "need more"},
                   {"160301020001", "need more"},
                   {"17", "none"},
                   {"80", "none"},
                   {"1602", "none"},
                   {"160305", "none"},
                   {"1603010000", "none"},
                   {"1603014001", "none"},
                   {"160303020002", "none"},
                   {"53", "none"},
                   {"804601030100", "none"}};
  for (const auto& row : rows) EXPECT_EQ(readStream(fromHex(row.hex)), row.answer) << row.hex;
}

TEST(ClientHelloReader, hasNoNameWhenALengthPointsOutOfItsFrame) {
  const Bytes message = helloMessage({serverName("example.com")});
  // Where the lengths of that message lie, and how many bytes each has.
  struct Row {
    const char* what;
    std::size_t at;
    std::size_t bytes;
  };
  const Row rows[]{{"session id", 38, 1}, {"cipher suites", 71, 2}, {"compression", 77, 1},
                   {"extensions", 79, 2}, {"extension", 83, 2},     {"name list", 85, 2},
                   {"name", 88, 2}};
  for (const auto& row : rows) {
    Bytes damaged = message;
    std::fill_n(damaged.begin() + static_cast<std::ptrdiff_t>(row.at), row.bytes, 0xff);
    EXPECT_EQ(readStream(inRecords(damaged)), "none") << row.what;
  }
  Bytes shortened = message;
  shortened[3] = static_cast<std::uint8_t>(shortened[3] - 3);  // the message ends inside the name
  EXPECT_EQ(readStream(inRecords(shortened)), "none");
}

TEST(ClientHelloReader, givesUpAtTheInspectionBound) {
  const TestExtension large{.type = 21, .body = Bytes(5'000, 0)};
  EXPECT_EQ(readHello({serverName("early.example"), large}), "early.example");

  const Bytes late = inRecords(helloMessage({large, serverName("late.example")}));
  EXPECT_EQ(readStream(WireBytes{late}.first(inspectedBytesMax - 1)), "need more");
  EXPECT_EQ(readStream(WireBytes{late}.first(inspectedBytesMax)), "none");
  EXPECT_EQ(readStream(late), "none");
}

TEST(ClientHelloReader, readsTheMessageAloneToo) {
  const Bytes message = helloMessage({alpn, serverName("quic.example")});
  EXPECT_EQ(text(readClientHelloMessage(message)), "quic.example");
  EXPECT_EQ(text(readClientHelloMessage({})), "need more");
  EXPECT_EQ(text(readClientHelloMessage(fromHex("02000000"))), "none");
}

/// Every beginning of a stream asks for more until one decides; from there on nothing changes.
void expectFinalAnswers(const Bytes& stream, const std::string& answer) {
  bool isSettled = false;
  for (std::size_t size = 0; size <= stream.size(); ++size) {
    const std::string reading = readStream(WireBytes{stream}.first(size));
    if (!isSettled && reading == "need more") continue;
    isSettled = true;
    ASSERT_EQ(reading, answer) << "after " << size << " bytes";
  }
  EXPECT_TRUE(isSettled);
}

TEST(ClientHelloReader, neverChangesAnAnswer) {
  const std::array fixtures{"curl-tls.stream",           "openssl-tls-two-records.stream",
                            "chromium-tls.stream",       "chromium-tls-outer-name.stream",
                            "firefox-tls.stream",        "nss-tls-ech.stream",
                            "openssl-tls-no-name.stream"};
  for (const char* fixture : fixtures) {
    SCOPED_TRACE(fixture);
    const Bytes stream = loadFixture(fixture);
    expectFinalAnswers(stream, readStream(stream));
  }
  expectFinalAnswers(inRecords(helloMessage({alpn, serverName("a.example"), grease}), 7),
                     "a.example");
}

TEST(ClientHelloReader, neverReadsPastTheNameInADamagedHello) {
  const Bytes message = helloMessage({alpn, serverName("example.com"), grease});
  const Bytes stream = inRecords(message, 64);
  for (std::size_t at = 0; at < stream.size(); ++at) {
    for (const std::uint8_t value : std::to_array<std::uint8_t>({0x00, 0x01, 0x7f, 0x80, 0xff})) {
      Bytes damaged = stream;
      damaged[at] = value;
      const auto reading = readClientHello(damaged);
      // A damaged length may cut the name or let the following bytes into it, which are none of a
      // host name; a damaged letter is another letter.
      if (const auto* name = reading.name()) {
        EXPECT_TRUE(name->text().size() <= 11) << name->text() << " at " << at;
      }
    }
  }
}

/// The rule written down as plainly as possible: all records joined, every field read where it
/// lies, and the first one that cannot be read ends it.
class PlainReader {
 public:
  static std::string read(WireBytes stream) {
    const bool isWhole = stream.size() >= inspectedBytesMax;
    PlainReader reader;
    const bool canGrow = reader.join(isWhole ? stream.first(inspectedBytesMax) : stream);
    try {
      return reader.readMessage();
    } catch (const Broken&) {
      return "none";
    } catch (const NotThere&) {
      return canGrow && !isWhole ? "need more" : "none";
    }
  }

 private:
  struct Broken {};
  struct NotThere {};

  /// False once what follows is no handshake record.
  bool join(WireBytes stream) {
    while (!stream.empty()) {
      if (stream[0] != 22 || (stream.size() > 1 && stream[1] != 3) ||
          (stream.size() > 2 && stream[2] > 4)) {
        return false;
      }
      if (stream.size() < 5) return true;
      const std::size_t size = stream[3] * std::size_t{256} + stream[4];
      if (size == 0 || size > 16'384) return false;
      stream = stream.subspan(5);
      append(message_, stream.first(std::min(size, stream.size())));
      if (stream.size() < size) return true;
      stream = stream.subspan(size);
    }
    return true;
  }

  /// `size` bytes on; what they belong to ends at `end`.
  void skip(std::size_t size, std::size_t end) {
    if (at_ + size > end) throw Broken();
    at_ += size;
  }
  std::size_t number(std::size_t size, std::size_t end) {
    skip(size, end);
    if (at_ > message_.size()) throw NotThere();
    std::size_t value = 0;
    for (std::size_t i = at_ - size; i < at_; ++i) value = value * 256 + message_[i];
    return value;
  }
  /// Where what follows with its size in front of it ends.
  std::size_t endOfPart(std::size_t sizeBytes, std::size_t end) {
    const std::size_t size = number(sizeBytes, end);
    if (at_ + size > end) throw Broken();
    return at_ + size;
  }

  std::string readMessage() {
    if (number(1, 4) != 1) throw Broken();
    const std::size_t size = number(3, 4);
    const std::size_t end = 4 + size;
    skip(34, end);
    const std::size_t sessionIDBytes = number(1, end);
    if (sessionIDBytes > 32) throw Broken();
    skip(sessionIDBytes, end);
    at_ = endOfPart(2, end);
    at_ = endOfPart(1, end);
    if (at_ == end) return "none";
    const std::size_t extensionsEnd = endOfPart(2, end);
    std::string publicName;
    bool isEncrypted = false;
    while (at_ < extensionsEnd) {
      const std::size_t type = number(2, extensionsEnd);
      const std::size_t extensionEnd = endOfPart(2, extensionsEnd);
      if (type == 0xfe0d) isEncrypted = true;
      if (type == 0 && publicName.empty()) {
        const std::string name = readServerName(extensionEnd);
        if (!isPublicNameOfEncryptedHello(std::vector<std::uint8_t>(name.begin(), name.end()))) {
          return name;
        }
        publicName = name;
      }
      if (isEncrypted && !publicName.empty()) return "none";
      at_ = extensionEnd;
    }
    return publicName.empty() ? "none" : publicName;
  }

  std::string readServerName(std::size_t extensionEnd) {
    const std::size_t end = endOfPart(2, extensionEnd);
    while (at_ < end) {
      const std::size_t type = number(1, end);
      const std::size_t size = number(2, end);
      skip(size, end);
      if (at_ > message_.size()) throw NotThere();
      if (type != 0) continue;
      const auto name = HostName::read(WireBytes{message_}.subspan(at_ - size, size));
      return name ? std::string(name->text()) : "none";
    }
    return "none";
  }

  Bytes message_;
  std::size_t at_ = 0;
};

TEST(ClientHelloReader, agreesWithThePlainRuleOnAnyBytes) {
  std::mt19937_64 random(8'446);
  const auto below = [&random](std::size_t bound) { return random() % bound; };
  const auto anExtension = [&]() -> TestExtension {
    switch (below(9)) {
      case 0:
        return serverName("www.example.com");
      case 1:
        return serverName("CloudFlare-ECH.com.");
      case 2:
        return serverName("cloudflare-ech.com");
      case 3:
        return serverName("not/a/name");
      case 4:
        return serverName("another.example", static_cast<std::uint8_t>(below(2)));
      case 5:
        return encryptedHello();
      case 6:
        return {.type = 51, .body = Bytes(below(2'500), 0x77)};
      case 7:
        return {.type = 0, .body = Bytes(below(6), static_cast<std::uint8_t>(below(3)))};
      default:
        return alpn;
    }
  };
  std::size_t named = 0;
  for (int round = 0; round < 20'000; ++round) {
    std::vector<TestExtension> extensions;
    for (std::size_t count = below(5); count > 0; --count) extensions.push_back(anExtension());
    Bytes stream = inRecords(helloMessage(extensions), below(2) == 0 ? 16'384 : 1 + below(300));
    // Mostly in the head, where the lengths are.
    for (std::size_t damages = below(4); damages > 0; --damages) {
      stream[below(std::min<std::size_t>(stream.size(), below(3) == 0 ? stream.size() : 140))] =
          static_cast<std::uint8_t>(below(2) == 0 ? below(4) : below(256));
    }
    if (below(2) == 0) stream.resize(below(stream.size() + 1));
    const std::string expected = PlainReader::read(stream);
    ASSERT_EQ(readStream(stream), expected) << "round " << round;
    if (expected != "none" && expected != "need more") ++named;
  }
  EXPECT_GT(named, 1'000U);
}

}  // namespace
}  // namespace stillow::filtering
