#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "StillowCore/DomainSet.hpp"

namespace stillow::core {
namespace {

using ::testing::ElementsAre;

Domain domain(std::string_view name) { return *Domain::make(name); }

DomainSet domains(std::initializer_list<std::string_view> names) {
  std::vector<Domain> all;
  for (const auto name : names) all.push_back(domain(name));
  return DomainSet::of(std::move(all));
}

std::vector<std::string> namesOf(const DomainSet& set) {
  std::vector<std::string> names;
  for (const Domain& domain : set) names.emplace_back(domain.name());
  return names;
}

TEST(DomainSet, isSortedWithoutDuplicates) {
  EXPECT_THAT(namesOf(domains({"b.com", "a.com", "B.com", "c"})),
              ElementsAre("a.com", "b.com", "c"));
  EXPECT_THAT(namesOf(domains({"z", "\u00E9", "a", "e\u0301", "f"})),
              ElementsAre("a", "f", "z", "\u00E9"))
      << "of canonically equal names the first stays";
  EXPECT_THAT(namesOf(domains({"z", "e\u0301", "a", "\u00E9"})), ElementsAre("a", "z", "e\u0301"));
}

TEST(DomainSet, isEmptyByDefault) {
  const DomainSet none;
  EXPECT_TRUE(none.empty());
  EXPECT_EQ(none.size(), 0U);
  EXPECT_EQ(none.begin(), none.end());
  EXPECT_FALSE(none.contains(domain("a")));
  EXPECT_EQ(none, DomainSet::of({}));
  EXPECT_TRUE(none.isSameSetAs(DomainSet::of({})));
  EXPECT_EQ(none.hash(), DomainSet{}.hash());
  EXPECT_TRUE(none.isDisjoint(none));
}

TEST(DomainSet, knowsItsMembers) {
  const auto set = domains({"a.com", "b.com", "\u00E9.com"});
  EXPECT_TRUE(set.contains(domain("b.com")));
  EXPECT_TRUE(set.contains(domain("e\u0301.com")));
  EXPECT_FALSE(set.contains(domain("c.com")));
  EXPECT_TRUE(set.isDisjoint(domains({"x", "y"})));
  EXPECT_FALSE(set.isDisjoint(domains({"x", "a.com"})));
  EXPECT_FALSE(domains({"x", "a.com", "y", "z"}).isDisjoint(set));
}

TEST(DomainSet, isItselfWhenAUnionAddsNothing) {
  const auto set = domains({"a", "b", "c"});
  EXPECT_TRUE(set.united(set).isSameSetAs(set));
  EXPECT_TRUE(set.united({}).isSameSetAs(set));
  EXPECT_TRUE(set.united(domains({"a", "c"})).isSameSetAs(set));
  EXPECT_TRUE(DomainSet{}.united({}).empty());

  const auto larger = set.united(domains({"b", "d"}));
  EXPECT_FALSE(larger.isSameSetAs(set));
  EXPECT_THAT(namesOf(larger), ElementsAre("a", "b", "c", "d"));
  EXPECT_THAT(namesOf(set), ElementsAre("a", "b", "c"));
  EXPECT_THAT(namesOf(DomainSet{}.united(set)), ElementsAre("a", "b", "c"));
  EXPECT_THAT(namesOf(domains({"\u00E9"}).united(domains({"e\u0301", "f"}))),
              ElementsAre("f", "\u00E9"));
}

TEST(DomainSet, isComparedByIdentityFirstThenByNames) {
  const auto set = domains({"a", "b"});
  const auto copy = set;  // NOLINT(performance-unnecessary-copy-initialization)
  const auto twin = domains({"b", "a"});
  EXPECT_TRUE(copy.isSameSetAs(set));
  EXPECT_FALSE(twin.isSameSetAs(set));
  EXPECT_EQ(twin, set);
  EXPECT_EQ(std::hash<DomainSet>{}(twin), std::hash<DomainSet>{}(set));
  EXPECT_EQ(twin, set) << "now with both hashes known";
  const auto other = domains({"a", "c"});
  EXPECT_NE(other, set);
  EXPECT_NE(other.hash(), set.hash());
  EXPECT_NE(other, set);
  EXPECT_NE(domains({"a"}), set);
  EXPECT_NE(DomainSet{}, set);
}

TEST(DomainSet, sharesItsNamesAmongCopies) {
  const auto set = domains({"a", "b"});
  const auto copy = set;  // NOLINT(performance-unnecessary-copy-initialization)
  EXPECT_EQ(copy.begin(), set.begin());
}

// Against std::set: a union holds all of both, never loses a name, and is commutative.
TEST(DomainSet, onlyGrowsByUnions) {
  std::mt19937_64 random(20260101);
  const auto randomName = [&] {
    constexpr std::string_view pieces[]{"a", "b", "c", "\u00E9", "e\u0301", "."};
    std::string name = "x";
    for (auto length = random() % 4; length > 0; --length) name += pieces[random() % 6];
    return name + "y";
  };
  for (int round = 0; round < 300; ++round) {
    std::vector<Domain> left;
    std::vector<Domain> right;
    for (auto count = random() % 12; count > 0; --count) {
      if (auto domain = Domain::make(randomName())) left.push_back(*domain);
      if (auto domain = Domain::make(randomName())) right.push_back(*domain);
    }
    std::set<Domain> expected(left.begin(), left.end());
    expected.insert(right.begin(), right.end());
    const auto leftSet = DomainSet::of(left);
    const auto rightSet = DomainSet::of(right);
    const auto both = leftSet.united(rightSet);
    ASSERT_TRUE(std::ranges::equal(both, expected));
    ASSERT_EQ(both, rightSet.united(leftSet));
    ASSERT_EQ(both.hash(), rightSet.united(leftSet).hash());
    ASSERT_GE(both.size(), std::max(leftSet.size(), rightSet.size()));
    ASSERT_TRUE(both.united(leftSet).isSameSetAs(both));
    for (const Domain& domain : left) ASSERT_TRUE(both.contains(domain));
    ASSERT_EQ(leftSet.isDisjoint(rightSet), both.size() == leftSet.size() + rightSet.size());
  }
}

TEST(DomainSet, holdsHundredsOfThousandsOfNames) {
  constexpr std::size_t count = 200'000;
  std::vector<Domain> all;
  all.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    all.push_back(domain("site" + std::to_string(i * 7919 % count) + ".example"));
  }
  const auto set = DomainSet::of(std::move(all));
  EXPECT_EQ(set.size(), count);
  EXPECT_TRUE(set.contains(domain("site199999.example")));
  EXPECT_FALSE(set.contains(domain("site200000.example")));
  EXPECT_EQ(set.united(domains({"site1.example"})).begin(), set.begin());
}

}  // namespace
}  // namespace stillow::core
