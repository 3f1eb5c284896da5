#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "StillowCore/DomainMatcher.hpp"
#include "StillowCore/Scope.hpp"
#include "TestSupport/AllocationCount.hpp"

namespace stillow::core {
namespace {

using ::testing::ElementsAre;

DomainSet domains(const std::vector<std::string>& names) {
  std::vector<Domain> all;
  for (const auto& name : names) all.push_back(*Domain::make(name));
  return DomainSet::of(std::move(all));
}

DomainMatcher matcher(const std::vector<std::string>& names) {
  return DomainMatcher(domains(names));
}

TEST(DomainMatcher, matchesUpperCaseWithAFinalDot) {
  EXPECT_TRUE(matcher({"example.com"}).matches("MAIL.Example.COM."));
}

TEST(DomainMatcher, matchesADomainAndWhatLiesBelowIt) {
  const auto one = matcher({"example.com"});
  EXPECT_TRUE(one.matches("example.com"));
  EXPECT_TRUE(one.matches("mail.example.com"));
  EXPECT_TRUE(one.matches("a.b.example.com"));
  EXPECT_FALSE(one.matches("badexample.com")) << "only the same letters at the end";
  EXPECT_FALSE(one.matches("com"));
  EXPECT_FALSE(matcher({"mail.example.com"}).matches("example.com")) << "no parent";
}

TEST(DomainMatcher, doesNotMatchADomainAtTheFront) {
  EXPECT_FALSE(matcher({"example.com"}).matches("example.com.evil.net"));
}

TEST(DomainMatcher, matchesASingleLabelOnlyAsThatLabel) {
  EXPECT_FALSE(matcher({"example.com"}).matches("localhost"));
  const auto local = matcher({"localhost", "example.com"});
  EXPECT_TRUE(local.matches("localhost"));
  EXPECT_TRUE(local.matches("a.localhost"));
  EXPECT_FALSE(local.matches("localhos"));
  EXPECT_FALSE(local.matches("local.host"));
  EXPECT_TRUE(matcher({"com"}).matches("any.example.com"));
}

TEST(DomainMatcher, neverMatchesAnEmptyHost) {
  EXPECT_FALSE(matcher({"example.com"}).matches(""));
  EXPECT_FALSE(matcher({"a"}).matches("."));
  EXPECT_FALSE(DomainMatcher{}.matches(""));
}

TEST(DomainMatcher, matchesNothingWhenItIsEmpty) {
  EXPECT_FALSE(DomainMatcher{}.matches("example.com"));
  EXPECT_FALSE(matcher({}).matches("example.com"));
  EXPECT_FALSE(matcher({}).matches("\u00E9"));
}

TEST(DomainMatcher, looksPastEmptyLabels) {
  const auto one = matcher({"example.com"});
  EXPECT_TRUE(one.matches("a..example.com"));
  EXPECT_TRUE(one.matches(".example.com"));
  EXPECT_TRUE(one.matches("..............................example.com"));
  EXPECT_FALSE(one.matches("example..com"));
  EXPECT_FALSE(one.matches("example.com..")) << "only one final dot is dropped";
}

TEST(DomainMatcher, keepsItsNamesInTheOrderOfTheSet) {
  const auto three = matcher({"c", "a.b", "b"});
  const auto names = three.domainNames();
  EXPECT_THAT(std::vector<std::string>(names.begin(), names.end()), ElementsAre("a.b", "b", "c"));
  EXPECT_TRUE(DomainMatcher{}.domainNames().empty());
}

// Names and hosts are read eight bytes at a time; every length and every place of a dot goes
// through.
TEST(DomainMatcher, readsNamesOfEveryLength) {
  for (std::size_t length = 3; length <= 40; ++length) {
    for (std::size_t dot = 1; dot + 1 < length; ++dot) {
      std::string name(length, 'n');
      name[dot] = '.';
      const auto one = matcher({name});
      for (const std::string_view below : {"", "a.", "abcdefg.", "abcdefgh.", "abcdefghi.x."}) {
        EXPECT_TRUE(one.matches(std::string(below) + name)) << below << name;
      }
      std::string upper = name;
      upper[length - 1] = 'N';
      EXPECT_TRUE(one.matches(upper));
      EXPECT_FALSE(one.matches("x" + name));
      EXPECT_FALSE(one.matches(name.substr(1)));
      for (std::size_t at = 0; at < length; ++at) {
        std::string other = name;
        other[at] = at == dot ? 'n' : 'm';
        EXPECT_FALSE(one.matches(other)) << other;
        other[at] = '\0';
        EXPECT_FALSE(one.matches(other)) << at;
      }
    }
  }
}

// Alone and at the end of a longer host: what needs no change there is read in another way.
TEST(DomainMatcher, lowerCasesLettersAndNothingElse) {
  for (int byte = 1; byte < 128; ++byte) {
    const char c = static_cast<char>(byte);
    const auto domain = Domain::make(std::string{'a', c, 'b'});
    if (!domain) continue;
    const DomainMatcher one(DomainSet{*domain});
    for (int other = 1; other < 128; ++other) {
      const std::string host{'A', static_cast<char>(other), 'B'};
      const bool isSameLetter = other == domain->name()[1] ||
                                (other >= 'A' && other <= 'Z' && other + 32 == domain->name()[1]);
      ASSERT_EQ(one.matches(host), isSameLetter) << byte << " " << other;
      const std::string longer{"www.below.a" + std::string{static_cast<char>(other)} + "b"};
      ASSERT_EQ(one.matches(longer), isSameLetter) << byte << " " << other;
    }
  }
}

TEST(DomainMatcher, readsEveryByteAtEveryPlace) {
  const std::string name = "name.example";
  const auto one = matcher({name});
  for (const std::string_view below :
       {"", "w.", "www.", "a.longer-label.", "b.a-longer-label-yet."}) {
    for (std::size_t at = 0; at < below.size() + name.size(); ++at) {
      for (int byte = 0; byte < 256; ++byte) {
        std::string host = std::string(below) + name;
        const char letter = std::exchange(host[at], static_cast<char>(byte));
        const bool isSameLetter = byte == letter || (letter != '.' && byte == (letter & ~0x20));
        const bool isInName = at >= below.size();
        const bool isEdge = at + 1 == below.size();
        const bool isBlocked = isInName || isEdge ? isSameLetter : true;
        ASSERT_EQ(one.matches(host), isBlocked) << host << " at " << at << ": " << byte;
      }
    }
  }
}

TEST(DomainMatcher, findsNamesWithMoreLabelsThanItMarks) {
  const auto deep = matcher({"a.b.c.d.e.f.g.com", "x.y.com"});
  EXPECT_TRUE(deep.matches("a.b.c.d.e.f.g.com"));
  EXPECT_TRUE(deep.matches("z.a.b.c.d.e.f.g.com"));
  EXPECT_FALSE(deep.matches("b.c.d.e.f.g.com"));
  EXPECT_FALSE(deep.matches("y.com"));
  EXPECT_FALSE(deep.matches("x.b.c.d.e.f.g.com"));
  EXPECT_TRUE(deep.matches("z.x.y.com"));
}

TEST(DomainMatcher, comparesNamesBeyondASCIIByCanonicalEquivalence) {
  const auto accented = matcher({"caf\u00E9.example", "plain.example"});
  EXPECT_TRUE(accented.matches("cafe\u0301.example"));
  EXPECT_TRUE(accented.matches("WWW.CAF\u00C9.Example."));
  EXPECT_FALSE(accented.matches("cafe.example"));
  EXPECT_TRUE(accented.matches("\u00FC.plain.example"));
  EXPECT_TRUE(matcher({"k.example"}).matches("\u212A.example")) << "the Kelvin sign is a K";

  // A dot that a mark turns into another character separates nothing.
  const auto one = matcher({"example.com"});
  EXPECT_FALSE(one.matches("a\u0600.example.com"));
  EXPECT_TRUE(one.matches("\u0600a.example.com"));
  EXPECT_FALSE(one.matches("example.com.\u0301"));
  const auto marked = matcher({"a.\u0301b.com"});
  EXPECT_TRUE(marked.matches("x.a.\u0301b.com"));
  EXPECT_FALSE(marked.matches("\u0301b.com"));
}

// Hosts are read in pieces, and what decides about a dot may lie in the piece before it.
TEST(DomainMatcher, seesWhatStandsBeforeADotWhereverTheDotIs) {
  for (std::size_t length = 3; length <= 60; ++length) {
    const std::string name = std::string(length - 2, 'n') + ".c";
    const auto one = matcher({name});
    EXPECT_TRUE(one.matches("a." + name)) << length;
    EXPECT_TRUE(one.matches("\u00FC." + name)) << length;
    EXPECT_FALSE(one.matches("a\u0600." + name)) << length;
    EXPECT_FALSE(one.matches("a.b\u0600." + name)) << length;
  }
}

TEST(DomainMatcher, isNotFooledByBytesThatAreNoUTF8) {
  const auto one = matcher({"example.com"});
  EXPECT_TRUE(one.matches("\xFF.example.com"));
  EXPECT_TRUE(one.matches("\xC3\x28.EXAMPLE.com."));
  EXPECT_FALSE(
      one.matches("\xFF"
                  "example.com"));
  EXPECT_FALSE(one.matches("example.com\xFF"));
}

/// The rule in its plainest words: the entry itself, or anything that ends in a dot and the entry.
bool endsInAnyOf(const std::vector<std::string>& names, const std::string& host) {
  for (const auto& name : names) {
    if (host == name || host.ends_with("." + name)) return true;
  }
  return false;
}

TEST(DomainMatcher, agreesWithScopeContainsAndWithASuffixCheckOnRandomNames) {
  std::mt19937_64 random(816458820);
  // Few letters and short labels, so that hosts often match, nearly match, or repeat a suffix.
  const auto randomName = [&](std::size_t labelsMax, bool mayHaveEmptyLabels) {
    std::string name;
    for (auto labels = 1 + random() % labelsMax; labels > 0; --labels) {
      for (auto letters = random() % 3 + (mayHaveEmptyLabels ? 0 : 1); letters > 0; --letters) {
        name += static_cast<char>('a' + random() % 3);
      }
      if (random() % 16 == 0 && !mayHaveEmptyLabels) name += "-long-label";
      if (labels > 1) name += '.';
    }
    return name;
  };
  std::size_t matched = 0;
  std::size_t asked = 0;
  for (int round = 0; round < 200; ++round) {
    std::vector<std::string> names;
    for (auto count = 1 + random() % 40; count > 0; --count) {
      names.push_back(randomName(1 + random() % 6, false));
    }
    const DomainSet set = domains(names);
    const Scope scope{.generation = 1, .domains = set};
    const DomainMatcher matcher(set);
    for (int i = 0; i < 200; ++i) {
      std::string host = randomName(7, random() % 4 == 0);
      if (random() % 4 == 0) host += "." + names[random() % names.size()];
      const bool expected = endsInAnyOf(names, host);
      ASSERT_EQ(scope.contains(host), expected) << host;
      // The matcher alone overlooks one final dot.
      if (!host.ends_with('.')) {
        ASSERT_EQ(matcher.matches(host), expected) << host;
        std::string shouted = host + ".";
        for (char& c : shouted) {
          if (c >= 'a' && c <= 'z' && random() % 2 == 0) c = static_cast<char>(c - 32);
        }
        ASSERT_EQ(matcher.matches(shouted), expected) << shouted;
      }
      matched += expected ? 1U : 0U;
      ++asked;
    }
  }
  // The test is worth something only while both answers are common.
  EXPECT_GT(matched, asked / 10);
  EXPECT_LT(matched, asked * 9 / 10);
}

TEST(DomainMatcher, allocatesNothingForAHostOfASCII) {
  std::vector<std::string> names{"x.y.z.w.v.example", std::string(200, 'l') + ".example"};
  for (int i = 0; i < 1'000; ++i) names.push_back("n" + std::to_string(i) + ".example");
  const auto many = matcher(names);
  std::string deep;
  for (int label = 0; label < 60; ++label) deep += "a.";
  const std::vector<std::string> blocked{
      "n7.example",    "www.n7.example", "a.b.c.d.n999.example.", "WWW.N8.Example", deep + names[0],
      deep + names[1], names[1],         deep + "n7.example"};
  const std::vector<std::string> others{"",
                                        ".",
                                        "com",
                                        "a.b",
                                        "neighbour.example",
                                        deep,
                                        deep + "example",
                                        "l" + names[1],
                                        deep + "v.example."};
  std::size_t matched = 0;
  const auto before = test::allocationsOfThisThread();
  for (const auto& host : blocked) matched += many.matches(host) ? 1U : 0U;
  for (const auto& host : others) matched += many.matches(host) ? 1'000U : 0U;
  EXPECT_EQ(test::allocationsOfThisThread(), before);
  EXPECT_EQ(matched, blocked.size());
}

TEST(DomainMatcher, findsEveryOneOfManyNames) {
  std::vector<Domain> all;
  for (std::size_t i = 0; i < 150'000; ++i) {
    all.push_back(*Domain::make("n" + std::to_string(i) + (i % 3 == 0 ? ".co.example" : ".net")));
  }
  const DomainSet set = DomainSet::of(std::move(all));
  const DomainMatcher matcher(set);
  std::size_t missed = 0;
  std::size_t wrong = 0;
  for (const std::string_view view : matcher.domainNames()) {
    const std::string name(view);
    if (!matcher.matches(name) || !matcher.matches("www." + name)) ++missed;
    if (matcher.matches("x" + name) || matcher.matches(name + "x")) ++wrong;
  }
  EXPECT_EQ(missed, 0U);
  EXPECT_EQ(wrong, 0U);
}

}  // namespace
}  // namespace stillow::core
