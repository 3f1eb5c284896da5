#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

#include <gtest/gtest.h>

#include "StillowCore/Coding.hpp"
#include "StillowCore/Domain.hpp"
#include "StillowCore/DomainCoding.hpp"

namespace stillow::core {
namespace {

std::optional<std::string> nameOf(std::string_view name) {
  const auto domain = Domain::make(name);
  if (!domain) return std::nullopt;
  return std::string(domain->name());
}

constexpr auto refused = std::nullopt;

TEST(Domain, acceptsLocalhostAndRefusesBlanksEmptyLabelsAndSigns) {
  EXPECT_EQ(nameOf("localhost"), "localhost");
  EXPECT_EQ(nameOf("a b.com"), refused);
  EXPECT_EQ(nameOf("a..com"), refused);
  EXPECT_EQ(nameOf("exa_mple.com?"), refused);
  EXPECT_EQ(nameOf("exa_mple.com"), "exa_mple.com");
}

TEST(Domain, isLowerCaseWithoutOneFinalDot) {
  EXPECT_EQ(nameOf("WWW.Example.COM."), "www.example.com");
  EXPECT_EQ(nameOf("example.com.."), refused) << "only one dot is removed";
  EXPECT_EQ(nameOf(""), refused);
  EXPECT_EQ(nameOf("."), refused);
  EXPECT_EQ(nameOf(".a"), refused);
  EXPECT_EQ(nameOf("BÜCHER.example."), "bücher.example");
  EXPECT_EQ(nameOf("\u212A.com"), "k.com");
}

TEST(Domain, refusesEachForbiddenSignAndEachWhiteSpace) {
  for (int byte = 0; byte < 128; ++byte) {
    const char c = static_cast<char>(byte);
    const bool isForbidden =
        std::string_view{R"(/\?#@:[]"'<>,;=&%+!*())"}.find(c) != std::string_view::npos ||
        (c >= '\t' && c <= '\r') || c == ' ';
    for (const auto& name : {std::string{c}, std::string{'a', c}, std::string{c, 'a'},
                             std::string{'a', c, 'b'}, "ü" + std::string{c, 'b'}}) {
      const bool hasEmptyLabel = c == '.' && (name.size() == 1 || name.front() == '.');
      EXPECT_EQ(nameOf(name).has_value(), !isForbidden && !hasEmptyLabel) << byte << " " << name;
    }
  }
  for (const std::string_view blank : {"\u0085", "\u00A0", "\u1680", "\u2000", "\u200A", "\u2028",
                                       "\u2029", "\u202F", "\u205F", "\u3000"}) {
    EXPECT_EQ(nameOf("a" + std::string(blank) + "b"), refused);
  }
}

TEST(Domain, hasNoLimitOnLengthsAndNoRuleForHyphens) {
  const std::string longLabel(5'000, 'a');
  EXPECT_EQ(nameOf(longLabel + "." + longLabel), longLabel + "." + longLabel);
  EXPECT_EQ(nameOf("-a-.--b"), "-a-.--b");
}

TEST(Domain, keepsLettersBeyondASCIIAsTheyStand) {
  EXPECT_EQ(nameOf("e\u0301.example"), "e\u0301.example");
  EXPECT_EQ(nameOf("a\u200Bb"), "a\u200Bb") << "the zero-width space is no white space";
  EXPECT_EQ(nameOf("a\u180Eb"), "a\u180Eb");
  EXPECT_EQ(nameOf("a\uFEFFb"), "a\uFEFFb");
  EXPECT_EQ(nameOf("a\u001Cb"), "a\u001Cb");
  EXPECT_EQ(nameOf("中国"), "中国");
}

TEST(Domain, judgesSignsAsCharacters) {
  EXPECT_EQ(nameOf("a,b"), refused);
  EXPECT_EQ(nameOf("a,\u0301b"), "a,\u0301b") << "a sign with a mark is another character";
  EXPECT_EQ(nameOf(",\u200D"), ",\u200D");
  EXPECT_EQ(nameOf("a.\u0301.b"), "a.\u0301.b") << "a dot with a mark separates nothing";
  EXPECT_EQ(nameOf("a.\u0301"), "a.\u0301") << "and is no final dot";
  EXPECT_EQ(nameOf(".\u0301a"), ".\u0301a");
  EXPECT_EQ(nameOf("a.\u0600.b"), "a.\u0600.b") << "nor where it joins the sign before it";
  EXPECT_EQ(nameOf("a \u0301b"), refused) << "a blank is one by its first code point";
  EXPECT_EQ(nameOf("a\u037Eb"), refused) << "the same character as a semicolon";
  EXPECT_EQ(nameOf("a\u037E\u0301b"), "a\u037E\u0301b");
}

TEST(Domain, refusesWhatIsNoUTF8) {
  EXPECT_EQ(nameOf("a\xFF.com"), refused);
  EXPECT_EQ(nameOf("\xC3"), refused);
}

TEST(Domain, isEqualOrderedAndHashedUnderCanonicalEquivalence) {
  const Domain composed = *Domain::make("\u00E9.com");
  const Domain decomposed = *Domain::make("e\u0301.com");
  const Domain plain = *Domain::make("e.com");
  EXPECT_EQ(composed, decomposed);
  EXPECT_NE(composed.name(), decomposed.name());
  EXPECT_EQ(std::hash<Domain>{}(composed), std::hash<Domain>{}(decomposed));
  EXPECT_NE(plain, decomposed);
  EXPECT_LT(plain, decomposed);
  EXPECT_LT(*Domain::make("f.com"), composed) << "though e with a mark begins with an e";
  EXPECT_LT(*Domain::make("f.com"), decomposed);
  EXPECT_LT(*Domain::make("a.com"), *Domain::make("b.com"));
  EXPECT_EQ((std::unordered_set<Domain>{composed, decomposed, plain}).size(), 2U);
  EXPECT_NE(*Domain::make("ﬁ.com"), *Domain::make("fi.com"));
}

TEST(Domain, isABareStringInJSON) {
  const auto domain = decode<Domain>(R"("Example.COM.")");
  ASSERT_TRUE(domain);
  EXPECT_EQ(domain->name(), "example.com");
  EXPECT_EQ(encode(*domain).value(), R"("example.com")");

  const auto bad = decode<Domain>(R"("A b.com")");
  ASSERT_FALSE(bad);
  EXPECT_EQ(bad.error().kind, DecodingError::Kind::dataCorrupted);
  EXPECT_EQ(bad.error().description, "Not a valid domain name: A b.com");
}

}  // namespace
}  // namespace stillow::core
