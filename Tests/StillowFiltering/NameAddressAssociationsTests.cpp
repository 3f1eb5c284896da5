#include <algorithm>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "StillowFiltering/NameAddressAssociations.hpp"
#include "TestSupport/AllocationCount.hpp"

namespace stillow::filtering {
namespace {

using core::Date;
using testing::ElementsAre;
using testing::IsEmpty;

FlowAddress address(const std::string& literal) { return *FlowAddress::fromPrintedForm(literal); }
FlowAddress numbered(std::size_t number) {
  return address("10." + std::to_string(number / 65'536) + "." +
                 std::to_string(number / 256 % 256) + "." + std::to_string(number % 256));
}

constexpr Date start{700'000'000};
constexpr NameAddressAssociations::Limits roomy{
    .lifetime = 600, .maximumAddresses = 100, .maximumNamesPerAddress = 8};

TEST(NameAddressAssociations, givesTheNamesOfAnAddressOldestFirst) {
  NameAddressAssociations table(roomy);
  table.record("b.example", address("192.0.2.1"), start);
  table.record("a.example", address("192.0.2.1"), start + 1);
  table.record("c.example", address("192.0.2.2"), start + 2);
  EXPECT_THAT(table.names(address("192.0.2.1"), start + 3), ElementsAre("b.example", "a.example"));
  EXPECT_THAT(table.names(address("192.0.2.2"), start + 3), ElementsAre("c.example"));
  EXPECT_EQ(table.count(), 2U);
}

TEST(NameAddressAssociations, givesNothingForAnUnknownAddress) {
  NameAddressAssociations table(roomy);
  EXPECT_THAT(table.names(address("192.0.2.9"), start), IsEmpty());
  table.record("a.example", address("192.0.2.1"), start);
  EXPECT_THAT(table.names(address("192.0.2.9"), start), IsEmpty());
}

TEST(NameAddressAssociations, keepsOnePairForARepeatedNameWithTheLaterTime) {
  NameAddressAssociations table(roomy);
  table.record("a.example", address("192.0.2.1"), start);
  table.record("b.example", address("192.0.2.1"), start + 1);
  table.record("a.example", address("192.0.2.1"), start + 2);
  EXPECT_THAT(table.names(address("192.0.2.1"), start + 3), ElementsAre("b.example", "a.example"));
  // Only the later observation is fresh any more.
  EXPECT_THAT(table.names(address("192.0.2.1"), start + 601.5), ElementsAre("a.example"));
}

TEST(NameAddressAssociations, lowerCasesNamesBeforeTheyAreCompared) {
  NameAddressAssociations table(roomy);
  table.record("Ads.EXAMPLE", address("192.0.2.1"), start);
  table.record("ads.example", address("192.0.2.1"), start + 1);
  table.record(
      "B\xC3\x9C"
      "CHER.example",
      address("192.0.2.1"), start + 2);
  EXPECT_THAT(table.names(address("192.0.2.1"), start + 3), ElementsAre("ads.example",
                                                                        "b\xC3\xBC"
                                                                        "cher.example"));
}

TEST(NameAddressAssociations, holdsCanonicallyEqualNamesForOne) {
  NameAddressAssociations table(roomy);
  table.record("caf\xC3\xA9.example", address("192.0.2.1"), start);
  table.record("cafe\xCC\x81.example", address("192.0.2.1"), start + 1);
  EXPECT_THAT(table.names(address("192.0.2.1"), start + 2), ElementsAre("cafe\xCC\x81.example"));
}

TEST(NameAddressAssociations, keepsTheNewestNamesOfAnAddress) {
  NameAddressAssociations table(
      {.lifetime = 600, .maximumAddresses = 100, .maximumNamesPerAddress = 2});
  table.record("a", address("192.0.2.1"), start);
  table.record("b", address("192.0.2.1"), start + 1);
  table.record("c", address("192.0.2.1"), start + 2);
  EXPECT_THAT(table.names(address("192.0.2.1"), start + 3), ElementsAre("b", "c"));
}

TEST(NameAddressAssociations, dropsTheNameObservedEarliestAlsoWhenTheClockWentBack) {
  NameAddressAssociations table(
      {.lifetime = 600, .maximumAddresses = 100, .maximumNamesPerAddress = 2});
  table.record("a", address("192.0.2.1"), start + 10);
  table.record("b", address("192.0.2.1"), start + 5);
  table.record("c", address("192.0.2.1"), start + 7);
  EXPECT_THAT(table.names(address("192.0.2.1"), start + 11), ElementsAre("c", "a"));
  // The newcomer itself may be the earliest.
  table.record("d", address("192.0.2.1"), start + 1);
  EXPECT_THAT(table.names(address("192.0.2.1"), start + 11), ElementsAre("c", "a"));
}

TEST(NameAddressAssociations, evictsTheOtherAddressFromATableOfOneFreshOrStale) {
  NameAddressAssociations table(
      {.lifetime = 600, .maximumAddresses = 1, .maximumNamesPerAddress = 8});
  table.record("a.example", address("192.0.2.1"), start);
  table.record("b.example", address("192.0.2.2"), start + 1);
  EXPECT_EQ(table.count(), 1U);
  EXPECT_THAT(table.names(address("192.0.2.1"), start + 1), IsEmpty());
  EXPECT_THAT(table.names(address("192.0.2.2"), start + 1), ElementsAre("b.example"));
  table.record("c.example", address("192.0.2.3"), start + 10'000);
  EXPECT_EQ(table.count(), 1U);
  EXPECT_THAT(table.names(address("192.0.2.3"), start + 10'000), ElementsAre("c.example"));
}

TEST(NameAddressAssociations, removesEveryStaleAddressBeforeAFreshOne) {
  NameAddressAssociations table(
      {.lifetime = 600, .maximumAddresses = 3, .maximumNamesPerAddress = 8});
  table.record("a.example", address("192.0.2.1"), start);
  table.record("b.example", address("192.0.2.2"), start + 1);
  table.record("c.example", address("192.0.2.3"), start + 500);
  // The first is exactly as old as the lifetime and so is stale, the second is not quite.
  table.record("d.example", address("192.0.2.4"), start + 600);
  EXPECT_EQ(table.count(), 3U);
  EXPECT_THAT(table.names(address("192.0.2.2"), start + 600), ElementsAre("b.example"));
  table.record("e.example", address("192.0.2.5"), start + 1'100);
  EXPECT_EQ(table.count(), 2U);
  EXPECT_THAT(table.names(address("192.0.2.4"), start + 1'100), ElementsAre("d.example"));
}

TEST(NameAddressAssociations, keepsStaleEntriesUntilALimitIsExceeded) {
  NameAddressAssociations table(roomy);
  table.record("a.example", address("192.0.2.1"), start);
  EXPECT_THAT(table.names(address("192.0.2.1"), start + 10'000), IsEmpty());
  EXPECT_EQ(table.count(), 1U);
  // The clock went back: what was stale is fresh again.
  EXPECT_THAT(table.names(address("192.0.2.1"), start + 1), ElementsAre("a.example"));
}

TEST(NameAddressAssociations, returnsNoNameThatIsExactlyAsOldAsTheLifetime) {
  NameAddressAssociations table(roomy);
  table.record("a.example", address("192.0.2.1"), start);
  EXPECT_THAT(table.names(address("192.0.2.1"), start + 599.5), ElementsAre("a.example"));
  EXPECT_THAT(table.names(address("192.0.2.1"), start + 600), IsEmpty());
}

TEST(NameAddressAssociations, neverEvictsTheEntryJustRecorded) {
  NameAddressAssociations table(
      {.lifetime = 600, .maximumAddresses = 2, .maximumNamesPerAddress = 8});
  table.record("a.example", address("192.0.2.1"), start + 50);
  table.record("b.example", address("192.0.2.2"), start + 60);
  table.record("c.example", address("192.0.2.3"), start + 1);
  EXPECT_EQ(table.count(), 2U);
  EXPECT_THAT(table.names(address("192.0.2.3"), start + 61), ElementsAre("c.example"));
  EXPECT_THAT(table.names(address("192.0.2.1"), start + 61), IsEmpty());
}

TEST(NameAddressAssociations, evictsOfTwoEquallyOldTheOneRecordedLongerAgo) {
  NameAddressAssociations table(
      {.lifetime = 600, .maximumAddresses = 2, .maximumNamesPerAddress = 8});
  table.record("a.example", address("192.0.2.1"), start);
  table.record("b.example", address("192.0.2.2"), start);
  table.record("a.example", address("192.0.2.1"), start);
  table.record("c.example", address("192.0.2.3"), start);
  EXPECT_THAT(table.names(address("192.0.2.1"), start), ElementsAre("a.example"));
  EXPECT_THAT(table.names(address("192.0.2.2"), start), IsEmpty());
}

TEST(NameAddressAssociations, holdsNothingWhereTheLimitsLeaveNoRoom) {
  for (const std::int64_t addresses : {std::int64_t{0}, std::int64_t{-5}, INT64_MIN}) {
    NameAddressAssociations table(
        {.lifetime = 600, .maximumAddresses = addresses, .maximumNamesPerAddress = 8});
    table.record("a.example", address("192.0.2.1"), start);
    EXPECT_EQ(table.count(), 0U);
  }
  for (const std::int64_t names : {std::int64_t{0}, std::int64_t{-5}, INT64_MIN}) {
    NameAddressAssociations table(
        {.lifetime = 600, .maximumAddresses = 1, .maximumNamesPerAddress = names});
    table.record("a.example", address("192.0.2.1"), start);
    table.record("a.example", address("192.0.2.2"), start);
    EXPECT_EQ(table.count(), 1U);
    EXPECT_THAT(table.names(address("192.0.2.2"), start), IsEmpty());
  }
}

TEST(NameAddressAssociations, isEmptyAfterRemoveAllAndUsableAgain) {
  NameAddressAssociations table(roomy);
  table.record("a.example", address("192.0.2.1"), start);
  table.record("b.example", address("192.0.2.2"), start);
  table.removeAll();
  EXPECT_EQ(table.count(), 0U);
  EXPECT_THAT(table.names(address("192.0.2.1"), start), IsEmpty());
  table.record("c.example", address("192.0.2.1"), start);
  EXPECT_THAT(table.names(address("192.0.2.1"), start), ElementsAre("c.example"));
}

TEST(NameAddressAssociations, allocatesNothingForAPairThatIsOnRecord) {
  const std::string longName = "a-name-well-beyond-the-small-string.of.some.example";
  const std::string otherName = "another-name-beyond-the-small-string.of.some.example";
  const std::string spelledLoudly = "A-NAME-Well-beyond-the-small-string.of.some.example";
  NameAddressAssociations table(roomy);
  table.record(longName, address("2001:db8::1"), start);
  table.record(otherName, address("2001:db8::1"), start);
  table.record(spelledLoudly, address("2001:db8::1"), start);

  const std::size_t before = test::allocationsOfThisThread();
  for (int i = 0; i < 100; ++i) {
    table.record(longName, address("2001:db8::1"), start + i);
    table.record(spelledLoudly, address("2001:db8::1"), start + i);
    table.record(otherName, address("2001:db8::1"), start + i);
  }
  std::size_t seen = 0;
  table.visitNames(address("2001:db8::1"), start + 100, [&](std::string_view) { ++seen; });
  EXPECT_EQ(test::allocationsOfThisThread() - before, 0U);
  EXPECT_EQ(seen, 2U);
}

TEST(NameAddressAssociations, takesAFullTablesNewAddressesWithoutAllocating) {
  NameAddressAssociations table(
      {.lifetime = 600, .maximumAddresses = 50, .maximumNamesPerAddress = 8});
  for (std::size_t i = 0; i < 100; ++i) {
    table.record("some-name-beyond-the-small-string.example", numbered(i), start);
  }
  const std::size_t before = test::allocationsOfThisThread();
  for (std::size_t i = 100; i < 1'000; ++i) {
    table.record("some-name-beyond-the-small-string.example", numbered(i), start);
  }
  EXPECT_EQ(test::allocationsOfThisThread() - before, 0U);
  EXPECT_EQ(table.count(), 50U);
}

/// The rule written down as plainly as possible: a list of entries in order of recording, sorted
/// whenever a limit is exceeded.
class PlainAssociations {
 public:
  explicit PlainAssociations(NameAddressAssociations::Limits limits) : limits_(limits) {}

  void record(const std::string& name, const std::string& literal, Date now) {
    Entry entry{.literal = literal, .names = {}, .lastObservedAt = now};
    const auto held = std::ranges::find(entries_, literal, &Entry::literal);
    if (held != entries_.end()) {
      entry.names = held->names;
      entries_.erase(held);
    }
    std::erase_if(entry.names, [&](const auto& pair) { return pair.first == name; });
    entry.names.emplace_back(name, now);
    const auto namesMax = std::max<std::int64_t>(limits_.maximumNamesPerAddress, 0);
    if (std::ssize(entry.names) > namesMax) {
      sortByTime(entry.names, [](const auto& pair) { return pair.second; });
      entry.names.erase(entry.names.begin(), entry.names.end() - namesMax);
    }
    entries_.push_back(entry);

    const auto addressesMax = std::max<std::int64_t>(limits_.maximumAddresses, 0);
    if (std::ssize(entries_) <= addressesMax) return;
    std::erase_if(entries_, [&](const Entry& other) {
      return now - other.lastObservedAt >= limits_.lifetime;
    });
    if (std::ssize(entries_) <= addressesMax) return;
    std::vector<Entry> byAge(entries_.begin(), entries_.end() - 1);
    sortByTime(byAge, [](const Entry& other) { return other.lastObservedAt; });
    byAge.push_back(entries_.back());  // the newest whatever the clock says
    byAge.erase(byAge.begin(), byAge.end() - addressesMax);
    std::erase_if(entries_, [&](const Entry& other) {
      return std::ranges::find(byAge, other.literal, &Entry::literal) == byAge.end();
    });
  }

  [[nodiscard]] std::vector<std::string> names(const std::string& literal, Date now) const {
    std::vector<std::string> names;
    const auto held = std::ranges::find(entries_, literal, &Entry::literal);
    if (held == entries_.end()) return names;
    for (const auto& [name, observedAt] : held->names) {
      if (now - observedAt < limits_.lifetime) names.push_back(name);
    }
    return names;
  }

  [[nodiscard]] std::size_t count() const { return entries_.size(); }
  void removeAll() { entries_.clear(); }

 private:
  struct Entry {
    std::string literal;
    std::vector<std::pair<std::string, Date>> names;
    Date lastObservedAt;
  };

  /// Leaves equal times in their order.
  template <class Element, class TimeOf>
  static void sortByTime(std::vector<Element>& elements, TimeOf timeOf) {
    for (std::size_t i = 1; i < elements.size(); ++i) {
      for (std::size_t j = i; j > 0 && timeOf(elements[j]) < timeOf(elements[j - 1]); --j) {
        std::swap(elements[j], elements[j - 1]);
      }
    }
  }

  NameAddressAssociations::Limits limits_;
  std::vector<Entry> entries_;
};

TEST(NameAddressAssociations, agreesWithThePlainRuleUnderAnyClock) {
  for (std::uint64_t seed = 0; seed < 150; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    const auto pick = [&random](std::int64_t low, std::int64_t high) {
      return low + static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(high - low + 1));
    };
    const NameAddressAssociations::Limits limits{.lifetime = static_cast<double>(pick(-1, 40)),
                                                 .maximumAddresses = pick(-1, 12),
                                                 .maximumNamesPerAddress = pick(-1, 4)};
    NameAddressAssociations table(limits);
    PlainAssociations plain(limits);
    Date now = start;
    // Some runs have a clock that only goes forward, some one that stands still or steps back.
    const std::int64_t backMax = pick(0, 2) == 0 ? 0 : pick(1, 60);
    for (int step = 0; step < 200; ++step) {
      const std::int64_t kind = pick(0, 9);
      if (kind >= 4) now = now + static_cast<double>(pick(0, 3));
      if (kind == 0) now = now + static_cast<double>(-pick(0, backMax));
      const std::string literal = "10.0.0." + std::to_string(pick(1, 20));
      const std::string name = "name" + std::to_string(pick(1, 6)) + ".example";
      table.record(name, address(literal), now);
      plain.record(name, literal, now);
      ASSERT_EQ(table.count(), plain.count()) << "step " << step;
      const Date asked = now + static_cast<double>(pick(-5, 50));
      for (int i = 1; i <= 20; ++i) {
        const std::string each = "10.0.0." + std::to_string(i);
        ASSERT_EQ(table.names(address(each), asked), plain.names(each, asked))
            << "step " << step << ", " << each;
      }
    }
  }
}

TEST(NameAddressAssociations, agreesWithThePlainRuleInLargerTables) {
  for (std::uint64_t seed = 0; seed < 8; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    const auto below = [&random](std::size_t bound) { return random() % bound; };
    const std::size_t addressesMax = 40 + below(160);
    const NameAddressAssociations::Limits limits{
        .lifetime = 500,
        .maximumAddresses = static_cast<std::int64_t>(addressesMax),
        .maximumNamesPerAddress = 3};
    NameAddressAssociations table(limits);
    PlainAssociations plain(limits);
    Date now = start;
    const auto expectSame = [&](std::size_t number, int step) {
      ASSERT_EQ(table.names(numbered(number), now),
                plain.names(std::string(numbered(number).literal()), now))
          << "step " << step << ", number " << number;
    };
    const std::size_t numbersEnd = 2 * addressesMax;
    for (int step = 0; step < 1'500; ++step) {
      // Now and then so long that many go at once, and seldom backwards.
      now =
          now + (below(50) == 0 ? static_cast<double>(below(400)) : static_cast<double>(below(2)));
      if (below(40) == 0) now = now + -static_cast<double>(below(30));
      if (below(700) == 0) {
        table.removeAll();
        plain.removeAll();
      }
      // Some addresses are much more frequent than others.
      const std::size_t number = below(1 + below(numbersEnd));
      const std::string name = "name" + std::to_string(below(5)) + ".of.some.length.example";
      table.record(name, numbered(number), now);
      plain.record(name, std::string(numbered(number).literal()), now);
      ASSERT_EQ(table.count(), plain.count()) << "step " << step;
      ASSERT_NO_FATAL_FAILURE(expectSame(number, step));
      ASSERT_NO_FATAL_FAILURE(expectSame(below(numbersEnd), step));
      if (step % 100 != 0) continue;
      for (std::size_t i = 0; i < numbersEnd; ++i) ASSERT_NO_FATAL_FAILURE(expectSame(i, step));
    }
  }
}

/// A name is lowered in words of eight bytes, so each length and place has to be tried.
TEST(NameAddressAssociations, lowersACapitalLetterWhereverItStands) {
  for (std::size_t size = 1; size <= 40; ++size) {
    for (std::size_t at = 0; at < size; ++at) {
      for (const char c : std::string_view{"@AMZ[`az{-09"}) {
        std::string name(size, 'x');
        name[at] = c;
        std::string expected = name;
        if (c >= 'A' && c <= 'Z') expected[at] = static_cast<char>(c - 'A' + 'a');
        NameAddressAssociations table(roomy);
        table.record(name, numbered(1), start);
        ASSERT_THAT(table.names(numbered(1), start), ElementsAre(expected));
      }
    }
  }
}

TEST(NameAddressAssociations, survivesDatesThatAreNoNumbers) {
  NameAddressAssociations table(
      {.lifetime = 600, .maximumAddresses = 4, .maximumNamesPerAddress = 2});
  constexpr double odd[]{std::numeric_limits<double>::quiet_NaN(),
                         std::numeric_limits<double>::infinity(),
                         -std::numeric_limits<double>::infinity(), 0};
  for (std::size_t i = 0; i < 64; ++i) {
    table.record("name" + std::to_string(i % 5), numbered(i % 11), Date{odd[i % 4]});
    table.record("name" + std::to_string(i % 3), numbered(i % 7), Date{odd[i / 4 % 4]});
    EXPECT_LE(table.count(), 4U);
  }
}

}  // namespace
}  // namespace stillow::filtering
