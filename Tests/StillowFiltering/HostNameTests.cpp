#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "StillowFiltering/Wire/HostName.hpp"
#include "WireTesting.hpp"

namespace stillow::filtering {
namespace {

using testing::bytesOf;

std::optional<std::string> readName(std::string_view text) {
  const auto name = HostName::read(bytesOf(text));
  if (!name) return std::nullopt;
  return std::string{name->text()};
}

std::string labels(std::size_t count, std::size_t size) {
  std::string name;
  for (std::size_t i = 0; i < count; ++i) name += (i > 0 ? "." : "") + std::string(size, 'a');
  return name;
}

TEST(HostName, isLowerCaseWithoutTheDotAtTheEnd) {
  EXPECT_EQ(readName("example.com"), "example.com");
  EXPECT_EQ(readName("MAIL.Example.COM"), "mail.example.com");
  EXPECT_EQ(readName("example.com."), "example.com");
  EXPECT_EQ(readName("localhost"), "localhost");
  EXPECT_EQ(readName("xn--mnchen-3ya.example"), "xn--mnchen-3ya.example");
  EXPECT_EQ(readName("_dmarc.under_score.example"), "_dmarc.under_score.example");
  EXPECT_EQ(readName("a-.-b.example"), "a-.-b.example");
}

TEST(HostName, refusesEmptyNamesAndEmptyLabels) {
  for (const char* text : {"", ".", "..", ".example.com", "a..example.com", "example.com.."}) {
    EXPECT_EQ(readName(text), std::nullopt) << text;
  }
}

TEST(HostName, refusesAddresses) {
  for (const char* text :
       {"192.168.0.1", "10.1", "123", "1.2.3.4.", "::1", "[::1]", "fe80::1%eth0"}) {
    EXPECT_EQ(readName(text), std::nullopt) << text;
  }
  EXPECT_EQ(readName("1.2.3.example"), "1.2.3.example");
  EXPECT_EQ(readName("4.3.2.1.in-addr.arpa"), "4.3.2.1.in-addr.arpa");
}

TEST(HostName, acceptsExactlyTheCharactersOfDomainThatAreASCII) {
  const std::string forbidden = "/\\?#@:[]\"'<>,;=&%+!*()";
  for (int c = 0; c < 256; ++c) {
    const std::string name = std::string{"a"} + static_cast<char>(c) + "b.example";
    const bool isAllowed =
        c > 0x20 && c < 0x7f && forbidden.find(static_cast<char>(c)) == std::string::npos;
    EXPECT_EQ(readName(name).has_value(), isAllowed) << "byte " << c;
  }
}

TEST(HostName, isBoundedByTheLimitsOfDNS) {
  EXPECT_TRUE(readName(std::string(63, 'a') + ".example"));
  EXPECT_FALSE(readName(std::string(64, 'a') + ".example"));
  EXPECT_TRUE(readName("example." + std::string(63, 'a')));
  EXPECT_FALSE(readName("example." + std::string(64, 'a')));

  const std::string longest = labels(4, 62) + "." + "a";  // 251 + 2
  ASSERT_EQ(longest.size(), 253U);
  EXPECT_EQ(readName(longest), longest);
  EXPECT_EQ(readName(longest + "."), longest);
  EXPECT_FALSE(readName(longest + "a"));
  EXPECT_FALSE(readName(labels(2000, 1)));
}

TEST(HostName, comparesByItsText) {
  EXPECT_EQ(HostName::read(bytesOf("EXAMPLE.com.")), HostName::read(bytesOf("example.COM")));
  EXPECT_NE(HostName::read(bytesOf("example.com")), HostName::read(bytesOf("example.org")));
}

}  // namespace
}  // namespace stillow::filtering
