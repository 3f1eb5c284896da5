#include <cmath>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "StillowCore/Commitment.hpp"
#include "StillowCore/CommitmentDuration.hpp"

namespace stillow::core {
namespace {

constexpr Date activation{1'000'000};

ProjectedEndTime endAfter(double seconds) { return {activation + seconds}; }

Domain domain(std::string_view name) { return *Domain::make(name); }
DomainSet domains(std::initializer_list<std::string_view> names) {
  std::vector<Domain> all;
  for (const auto name : names) all.push_back(domain(name));
  return DomainSet::of(std::move(all));
}
Group::ID group(std::uint8_t number) {
  UUID uuid;
  uuid.bytes[15] = number;
  return {uuid};
}

TEST(CommitmentDuration, existsFromAboveZeroToTwentyFourHours) {
  EXPECT_TRUE(CommitmentDuration::fromSeconds(86'400).has_value());
  EXPECT_TRUE(CommitmentDuration::fromSeconds(5e-324).has_value());
  EXPECT_FALSE(CommitmentDuration::fromSeconds(0).has_value());
  EXPECT_FALSE(CommitmentDuration::fromSeconds(-1).has_value());
  EXPECT_FALSE(CommitmentDuration::fromSeconds(std::nextafter(86'400, 1e9)).has_value());
  EXPECT_FALSE(CommitmentDuration::fromSeconds(std::nan("")).has_value());
  EXPECT_EQ(CommitmentDuration::fromHours(24), CommitmentDuration::maximum());
  EXPECT_FALSE(CommitmentDuration::fromHours(24.0001).has_value());
  EXPECT_TRUE(CommitmentDuration::fromMinutes(1'440).has_value());
  EXPECT_FALSE(CommitmentDuration::fromMinutes(1'441).has_value());
}

TEST(CommitmentDuration, isABareNumberWhoseBoundsAreChecked) {
  EXPECT_EQ(encode(*CommitmentDuration::fromSeconds(90)), "90");
  EXPECT_EQ(decode<CommitmentDuration>("90"), *CommitmentDuration::fromSeconds(90));
  const auto refusal = [](std::string_view json) {
    return decode<CommitmentDuration>(json).error().description;
  };
  EXPECT_EQ(refusal("86400.5"), "CommitmentDuration must be in (0, 24h]; got 86400.5");
  EXPECT_EQ(refusal("0"), "CommitmentDuration must be in (0, 24h]; got 0.0");
  EXPECT_EQ(refusal("90000"), "CommitmentDuration must be in (0, 24h]; got 90000.0");
}

// Where the limit lies is a promise to the user, so both sides of it are pinned.
TEST(ActivationBoundary, rulesOnBothSidesOfTheCurrentEndAndOfTheLimit) {
  struct Row {
    const char* proposal;
    double seconds;
    ExtensionRuling ruling;
  };
  using Ruling = ExtensionRuling;
  const ActivationBoundary boundary{activation};
  const Row rows[]{
      {"before the current end", 3'599, Ruling::doesNotStrengthen{}},
      {"the current end again", 3'600, Ruling::doesNotStrengthen{}},
      {"one second later", 3'601, Ruling::permitted{}},
      {"exactly the limit", 86'400, Ruling::permitted{}},
      {"one second past it", 86'401, Ruling::exceedsOriginalBoundary{activation + 86'400}},
      {"not a number", NAN, Ruling::doesNotStrengthen{}}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.proposal);
    EXPECT_EQ(boundary.rule(endAfter(3'600), endAfter(row.seconds)), row.ruling);
  }
}

TEST(ActivationBoundary, saysThatAnEarlierEndPastTheLimitDoesNotStrengthen) {
  EXPECT_EQ(ActivationBoundary{activation}.rule(endAfter(90'000), endAfter(89'000)),
            ExtensionRuling(ExtensionRuling::doesNotStrengthen{}));
}

TEST(ActivationBoundary, hasNoNegativeHeadroom) {
  const ActivationBoundary boundary{activation};
  EXPECT_EQ(boundary.remainingHeadroom(activation), 86'400);
  EXPECT_EQ(boundary.remainingHeadroom(activation + 86'399), 1);
  EXPECT_EQ(boundary.remainingHeadroom(activation + 86'400), 0);
  EXPECT_EQ(boundary.remainingHeadroom(activation + 90'000), 0);
}

TEST(Scope, resolvesASelectionOverTheWebsites) {
  const std::vector<Website> websites{
      {domain("a.com"), GroupIDSet({group(1)})},
      {domain("b.com"), GroupIDSet({group(1), group(2)})},
      {domain("c.com"), GroupIDSet()},
      {domain("a.com"), GroupIDSet({group(3)})},
  };
  const auto resolve = [&](const CommitmentSelection& selection) {
    return Scope::resolving(selection, websites);
  };
  const auto groups = [](std::vector<Group::ID> ids) {
    return CommitmentSelection::groups{*NonEmptySet<Group::ID>::make(std::move(ids))};
  };
  EXPECT_EQ(resolve(CommitmentSelection::allWebsites{}),
            (Scope{1, domains({"a.com", "b.com", "c.com"})}));
  EXPECT_EQ(resolve(groups({group(2)})), (Scope{1, domains({"b.com"})}));
  EXPECT_EQ(resolve(groups({group(2), group(3)})), (Scope{1, domains({"a.com", "b.com"})}));
}

TEST(Scope, resolvesAGroupWithoutWebsitesToNothing) {
  const auto selection = CommitmentSelection::groups{*NonEmptySet<Group::ID>::make({group(9)})};
  const std::vector<Website> websites{{domain("a.com"), GroupIDSet({group(1)})}};
  EXPECT_TRUE(Scope::resolving(selection, websites).domains.empty());
}

TEST(Scope, growsByOneGenerationAndRefusesWhatAddsNothing) {
  const Scope scope{7, domains({"a.com"})};
  const auto grown = scope.strengthened(domains({"b.com"}));
  ASSERT_TRUE(grown.has_value());
  EXPECT_EQ(*grown, (Scope{8, domains({"a.com", "b.com"})}));
  EXPECT_EQ(grown->strengthened(domains({"b.com"})).error(),
            ScopeStrengtheningError::noAdditionalDomains);
  EXPECT_EQ(grown->strengthened(DomainSet()).error(), ScopeStrengtheningError::noAdditionalDomains);
}

TEST(Scope, refusesToGrowPastItsCapacity) {
  std::vector<Domain> many;
  const std::string filler(250, 'x');
  for (std::size_t i = 0; i * 260 < ScopeCapacity::nameBytesMax + 2'000; ++i) {
    many.push_back(domain(filler + std::to_string(1'000'000'000 + i)));
  }
  const Scope scope{1, domains({"a.com"})};
  EXPECT_EQ(scope.strengthened(DomainSet::of(std::move(many))).error(),
            ScopeStrengtheningError::exceedsCapacity);
}

TEST(ScopeDeathTest, stopsTheProcessRatherThanWrappingTheGeneration) {
  const Scope scope{INT64_MAX, domains({"a.com"})};
  EXPECT_DEATH((void)scope.strengthened(domains({"b.com"})), "counter overflow");
}

TEST(Scope, containsItsDomainsAndWhatLiesBelowThem) {
  const Scope scope{1, domains({"example.com"})};
  EXPECT_TRUE(scope.contains("example.com"));
  EXPECT_TRUE(scope.contains("mail.example.com"));
  EXPECT_TRUE(scope.contains("a.b.example.com"));
  EXPECT_FALSE(scope.contains("notexample.com"));
  EXPECT_FALSE(scope.contains("example.com.evil.net"));
  EXPECT_FALSE(scope.contains("com"));
  EXPECT_FALSE(scope.contains(""));
}

TEST(Scope, onlyGrowsWhateverIsAdded) {
  std::mt19937 random(3);
  Scope scope{1, domains({"seed.com"})};
  for (int i = 0; i < 500; ++i) {
    const auto addition = domain("d" + std::to_string(random() % 60) + ".com");
    const Scope before = scope;
    if (auto grown = scope.strengthened(DomainSet::of({addition}))) {
      scope = *grown;
      EXPECT_EQ(scope.generation, before.generation + 1);
      EXPECT_EQ(scope.domains.size(), before.domains.size() + 1);
    } else {
      EXPECT_TRUE(before.domains.contains(addition));
    }
    for (const Domain& old : before.domains) EXPECT_TRUE(scope.domains.contains(old));
  }
}

TEST(Commitment, staysAsItWasWhenStrengtheningAddsNothing) {
  Commitment commitment{activation, {3, domains({"a.com"})}, 60, CommitmentHealth::healthy};
  const Commitment before = commitment;
  EXPECT_EQ(commitment.strengthen(domains({"a.com"})).error(),
            ScopeStrengtheningError::noAdditionalDomains);
  EXPECT_EQ(commitment, before);
  EXPECT_TRUE(commitment.strengthen(domains({"b.com"})).has_value());
  EXPECT_EQ(commitment.scope, (Scope{4, domains({"a.com", "b.com"})}));
}

TEST(Commitment, writesItsFieldsInOrderAndReadsThemBack) {
  const Commitment commitment{activation, {3, domains({"a.com"})}, 1e6, CommitmentHealth::degraded};
  const std::string text = R"({"activatedAt":1000000,"scope":{"generation":3,"domains":["a.com"]},)"
                           R"("remainingDuration":1000000,"health":"degraded"})";
  EXPECT_EQ(encode(commitment), text);
  EXPECT_EQ(decode<Commitment>(text), commitment);
}

TEST(CommitmentSelection, hasOneKeyAndANonEmptySetOfGroups) {
  EXPECT_EQ(encode(CommitmentSelection(CommitmentSelection::allWebsites{})),
            R"({"allWebsites":{}})");
  const CommitmentSelection groups =
      CommitmentSelection::groups{*NonEmptySet<Group::ID>::make({group(1)})};
  const std::string text = R"({"groups":{"_0":["00000000-0000-0000-0000-000000000001"]}})";
  EXPECT_EQ(encode(groups), text);
  EXPECT_EQ(decode<CommitmentSelection>(text), groups);
  EXPECT_EQ(decode<CommitmentSelection>(R"({"groups":{"_0":[]}})").error(),
            (DecodingError{DecodingError::Kind::dataCorrupted, "groups._0",
                           "NonEmptySet cannot be decoded from an empty collection"}));
  EXPECT_EQ(decode<CommitmentSelection>("{}").error().description,
            "Invalid number of keys found, expected one.");
}

TEST(Website, isCodedWithItsDomainAndGroups) {
  const std::string text =
      R"({"domain":"a.com","groups":["00000000-0000-0000-0000-000000000001"]})";
  const Website website{domain("a.com"), GroupIDSet({group(1)})};
  EXPECT_EQ(encode(website), text);
  EXPECT_EQ(decode<Website>(text), website);
  EXPECT_EQ(decode<Website>(R"({"domain":"a b","groups":[]})").error(),
            (DecodingError{DecodingError::Kind::dataCorrupted, "domain",
                           "Not a valid domain name: a b"}));
}

TEST(Group, comparesByIdentifierAndName) {
  const Group work{group(1), "work"};
  EXPECT_NE(work, (Group{group(1), "play"}));
  EXPECT_EQ(decode<Group>(*encode(work)), work);
}

TEST(Date, describesItselfInUTCWithWholeSeconds) {
  struct Row {
    double seconds;
    const char* text;
  };
  const Row rows[]{{816458820, "2026-11-15 18:07:00 +0000"},
                   {753451200.999, "2024-11-16 12:00:00 +0000"},
                   {753451199.9999999, "2024-11-16 12:00:00 +0000"},
                   {753451199.9997, "2024-11-16 11:59:59 +0000"},
                   {-0.5, "2000-12-31 23:59:59 +0000"},
                   {-978307200.5, "1970-01-01 00:00:00 +0000"},
                   {63113904000.5, "<description unavailable>"},
                   {-63114076800, "0000-12-30 00:00:00 +0000"},
                   {-63114076801, "<description unavailable>"},
                   {NAN, "<description unavailable>"}};
  for (const Row& row : rows) EXPECT_EQ(description(Date{row.seconds}), row.text) << row.seconds;
}

TEST(Date, isWrittenAsSecondsAndKeepsItsFraction) {
  EXPECT_EQ(encode(Date{816458820.25}), "816458820.25");
  EXPECT_EQ(decode<Date>("816458820.25"), Date{816458820.25});
  EXPECT_EQ(encode(Date::fromUnixSeconds(978307200)), "0");
  EXPECT_EQ(decode<Date>("\"x\"").error().description,
            "Expected to decode Double but found a string instead.");
}

}  // namespace
}  // namespace stillow::core
