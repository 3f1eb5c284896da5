#include <algorithm>
#include <atomic>
#include <cstdint>
#include <iterator>
#include <latch>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_set>
#include <vector>

#include <gtest/gtest.h>

#include "StillowFiltering/FlowClassifier.hpp"
#include "TestSupport/AllocationCount.hpp"

namespace stillow::filtering {
namespace {

using core::Date;
using core::Domain;
using core::DomainSet;
using Disposition = FlowDisposition;

constexpr Date start{700'000'000};
constexpr NameAddressAssociations::Limits limits{
    .lifetime = 600, .maximumAddresses = 1'000, .maximumNamesPerAddress = 8};

const FlowClassification blocked{FlowAttribution::scoped, Disposition::drop{}};
const FlowClassification open{FlowAttribution::unscoped, Disposition::allowAndRelease{}};
const FlowClassification shared{FlowAttribution::ambiguous, Disposition::allowAndRelease{}};
const FlowClassification held{FlowAttribution::unattributed,
                              Disposition::allowUnderInspection{4096}};
const FlowClassification unknown{FlowAttribution::unattributed, Disposition::allowAndRelease{}};

std::vector<Domain> domains(std::initializer_list<std::string_view> names) {
  std::vector<Domain> domains;
  for (const std::string_view name : names) domains.push_back(*Domain::make(name));
  return domains;
}

EnforcementDirective blocking(std::initializer_list<std::string_view> names,
                              std::int64_t generation = 1) {
  return {.scope = core::Scope{.generation = generation, .domains = DomainSet::of(domains(names))},
          .validation = std::nullopt,
          .publishedAt = start};
}

EnforcementDirective probing(std::string_view name, Date expiresAt) {
  return {.scope = std::nullopt,
          .validation = ValidationProbe{.domain = *Domain::make(name), .expiresAt = expiresAt},
          .publishedAt = start};
}

FlowAddress address(std::string_view literal) { return *FlowAddress::fromPrintedForm(literal); }

FlowEvidence named(std::string_view name) { return {.remoteHostname = name, .remoteAddress = {}}; }
FlowEvidence at(std::string_view literal) {
  return {.remoteHostname = {}, .remoteAddress = address(literal)};
}
FlowEvidence namedAt(std::string_view name, std::string_view literal) {
  return {.remoteHostname = name, .remoteAddress = address(literal)};
}
const FlowEvidence nothing{};

TEST(FlowClassifier, judgesByTheNameAlone) {
  FlowClassifier classifier(blocking({"example.com"}), start, limits);
  struct Row {
    std::string_view name;
    FlowClassification classification;
  };
  const Row rows[]{{"example.com", blocked},
                   {"mail.example.com", blocked},
                   {"MAIL.Example.COM.", blocked},
                   {"example.org", open},
                   {"badexample.com", open},
                   {"example.com.evil.net", open},
                   {"com", open},
                   {"xn--bcher-kva.example", open}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(classifier.classify(named(row.name), start), row.classification);
    EXPECT_EQ(classifier.classify(namedAt(row.name, "192.0.2.1"), start), row.classification);
    EXPECT_EQ(classifier.blocks(row.name, start), row.classification == blocked);
  }
}

TEST(FlowClassifier, inspectsAFlowWithoutEvidenceOnlyWhileAnythingIsBlocked) {
  FlowClassifier enforcing(blocking({"example.com"}), start, limits);
  EXPECT_EQ(enforcing.classify(nothing, start), held);
  EXPECT_EQ(enforcing.classify(at("192.0.2.1"), start), held);

  for (const auto& directive : {std::optional<EnforcementDirective>(), std::optional(blocking({})),
                                std::optional(EnforcementDirective{{}, {}, start}),
                                std::optional(probing("probe.example", start))}) {
    FlowClassifier idle(directive, start, limits);
    EXPECT_EQ(idle.classify(nothing, start), unknown);
    EXPECT_EQ(idle.classify(at("192.0.2.1"), start), unknown);
    EXPECT_EQ(idle.classify(named("example.com"), start), open);
    EXPECT_EQ(idle.counters().flowsHeldForInspection, 0);
  }
}

TEST(FlowClassifier, judgesAnAddressByTheNamesThatAreFreshThere) {
  FlowClassifier classifier(blocking({"example.com"}), start, limits);
  (void)classifier.classify(namedAt("ads.example.com", "192.0.2.1"), start);
  (void)classifier.classify(namedAt("www.example.com", "192.0.2.1"), start);
  (void)classifier.classify(namedAt("cdn.other.net", "192.0.2.2"), start);
  EXPECT_EQ(classifier.classify(at("192.0.2.1"), start + 1), blocked);
  EXPECT_EQ(classifier.classify(at("192.0.2.2"), start + 1), open);
  EXPECT_EQ(classifier.classify(at("192.0.2.3"), start + 1), held);
  // Exactly at the end of their lifetime the names say nothing any more.
  EXPECT_EQ(classifier.classify(at("192.0.2.1"), start + 599.5), blocked);
  EXPECT_EQ(classifier.classify(at("192.0.2.1"), start + 600), held);
}

TEST(FlowClassifier, releasesAnAddressThatBlockedAndOtherNamesShare) {
  FlowClassifier classifier(blocking({"example.com"}), start, limits);
  (void)classifier.classify(namedAt("ads.example.com", "192.0.2.1"), start);
  (void)classifier.classify(namedAt("cdn.other.net", "192.0.2.1"), start);
  EXPECT_EQ(classifier.counters().ambiguousFlowsAllowed, 0);
  EXPECT_EQ(classifier.classify(at("192.0.2.1"), start + 1), shared);
  EXPECT_EQ(classifier.counters().ambiguousFlowsAllowed, 1);
  // When the other name has gone stale, the rest agree.
  (void)classifier.classify(namedAt("ads.example.com", "192.0.2.1"), start + 300);
  EXPECT_EQ(classifier.classify(at("192.0.2.1"), start + 700), blocked);
}

TEST(FlowClassifier, letsTheFlowsOwnNameWinOverWhatItsAddressIsKnownFor) {
  FlowClassifier classifier(blocking({"example.com"}), start, limits);
  (void)classifier.classify(namedAt("ads.example.com", "192.0.2.1"), start);
  EXPECT_EQ(classifier.classify(namedAt("cdn.other.net", "192.0.2.1"), start), open);
  EXPECT_EQ(classifier.classify(namedAt("ads.example.com", "192.0.2.1"), start), blocked);
}

TEST(FlowClassifier, matchesAProbeUntilExactlyItsEnd) {
  FlowClassifier classifier(probing("probe.example", start + 20), start, limits);
  EXPECT_EQ(classifier.classify(named("probe.example"), start + 19.999), blocked);
  EXPECT_EQ(classifier.classify(named("below.probe.example"), start + 19.999), blocked);
  EXPECT_EQ(classifier.classify(nothing, start + 19.999), held);
  EXPECT_EQ(classifier.classify(named("probe.example"), start + 20), open);
  EXPECT_EQ(classifier.classify(nothing, start + 20), unknown);
  // Once over it stays over, whatever the clock does.
  EXPECT_EQ(classifier.classify(named("probe.example"), start), open);
}

TEST(FlowClassifier, forgetsAllPairsWhenTheLastProbeEnds) {
  FlowClassifier classifier(probing("probe.example", start + 20), start, limits);
  (void)classifier.classify(namedAt("probe.example", "192.0.2.1"), start);
  (void)classifier.classify(namedAt("cdn.other.net", "192.0.2.2"), start);
  EXPECT_EQ(classifier.counters().associatedAddressCount, 2);
  // Its own pair is on record when the flow is judged, and goes with the others.
  EXPECT_EQ(classifier.classify(namedAt("cdn.other.net", "192.0.2.3"), start + 20), open);
  EXPECT_EQ(classifier.counters().associatedAddressCount, 0);
  EXPECT_EQ(classifier.counters().associationsRecorded, 3);
  EXPECT_EQ(classifier.classify(at("192.0.2.2"), start + 20), unknown);
}

TEST(FlowClassifier, keepsThePairsWhenAProbeEndsBesideAScope) {
  EnforcementDirective directive = blocking({"example.com"});
  directive.validation =
      ValidationProbe{.domain = *Domain::make("probe.example"), .expiresAt = start + 20};
  FlowClassifier classifier(directive, start, limits);
  EXPECT_EQ(classifier.classify(namedAt("ads.example.com", "192.0.2.1"), start), blocked);
  EXPECT_EQ(classifier.classify(namedAt("probe.example", "192.0.2.2"), start), blocked);
  EXPECT_EQ(classifier.classify(named("probe.example"), start + 20), open);
  EXPECT_EQ(classifier.classify(at("192.0.2.1"), start + 20), blocked);
  EXPECT_EQ(classifier.classify(at("192.0.2.2"), start + 20), open);
  EXPECT_EQ(classifier.counters().associatedAddressCount, 2);
}

TEST(FlowClassifier, holdsAFlowUpToTheInspectionBoundAndNotPastIt) {
  FlowClassifier classifier(blocking({"example.com"}), start, limits);
  EXPECT_EQ(classifier.classify(nothing, start), held);
  EXPECT_EQ(classifier.reclassify(nothing, 0, start), held);
  EXPECT_EQ(classifier.reclassify(nothing, 4095, start), held);
  const FilterCounters before = classifier.counters();
  EXPECT_EQ(before.flowsHeldForInspection, 1);
  EXPECT_EQ(before.flowsReleased, 0);
  EXPECT_EQ(classifier.reclassify(nothing, 4096, start), unknown);
  EXPECT_EQ(classifier.counters().flowsHeldForInspection, 0);
  EXPECT_EQ(classifier.counters().flowsReleased, 1);
  EXPECT_EQ(classifier.counters().flowsClassified, 1);
  EXPECT_EQ(classifier.counters().unattributedFlowsAllowed, 1);
}

TEST(FlowClassifier, endsTheInspectionOnceANameIsSeen) {
  FlowClassifier classifier(blocking({"example.com"}), start, limits);
  (void)classifier.classify(at("192.0.2.1"), start);
  (void)classifier.classify(at("192.0.2.2"), start);
  EXPECT_EQ(classifier.reclassify(namedAt("www.example.com", "192.0.2.1"), 517, start), blocked);
  EXPECT_EQ(classifier.reclassify(namedAt("other.net", "192.0.2.2"), 517, start), open);
  const FilterCounters expected{.scopeGeneration = 1,
                                .flowsClassified = 2,
                                .flowsDropped = 1,
                                .flowsReleased = 1,
                                .flowsHeldForInspection = 0,
                                .ambiguousFlowsAllowed = 0,
                                .unattributedFlowsAllowed = 2,
                                .associationsRecorded = 0,
                                .associatedAddressCount = 0};
  EXPECT_EQ(classifier.counters(), expected);
  // A second look remembers no pair.
  EXPECT_EQ(classifier.classify(at("192.0.2.1"), start), held);
}

TEST(FlowClassifier, neverCountsFewerThanNoHeldFlows) {
  FlowClassifier classifier(blocking({"example.com"}), start, limits);
  (void)classifier.reclassify(named("example.com"), 100, start);
  (void)classifier.reclassify(named("other.net"), 100, start);
  (void)classifier.reclassify(nothing, 4096, start);
  EXPECT_EQ(classifier.counters().flowsHeldForInspection, 0);
  EXPECT_EQ(classifier.counters().flowsDropped, 1);
  EXPECT_EQ(classifier.counters().flowsReleased, 2);
  EXPECT_EQ(classifier.counters().flowsClassified, 0);
}

TEST(FlowClassifier, countsEachFlowOnceByWhatWasDoneWithIt) {
  FlowClassifier classifier(blocking({"example.com"}, 3), start, limits);
  (void)classifier.classify(namedAt("ads.example.com", "192.0.2.1"), start);
  (void)classifier.classify(namedAt("cdn.other.net", "192.0.2.1"), start);
  (void)classifier.classify(at("192.0.2.1"), start);
  (void)classifier.classify(named("example.com"), start);
  (void)classifier.classify(nothing, start);
  (void)classifier.classify(at("192.0.2.9"), start);
  (void)classifier.classify(namedAt("ads.example.com", "192.0.2.1"), start);
  EXPECT_FALSE(classifier.blocks("other.net", start));
  const FilterCounters expected{.scopeGeneration = 3,
                                .flowsClassified = 7,
                                .flowsDropped = 3,
                                .flowsReleased = 2,
                                .flowsHeldForInspection = 2,
                                .ambiguousFlowsAllowed = 1,
                                .unattributedFlowsAllowed = 2,
                                .associationsRecorded = 3,
                                .associatedAddressCount = 1};
  EXPECT_EQ(classifier.counters(), expected);
}

TEST(FlowClassifier, remembersPairsAlsoWhenNothingIsBlocked) {
  FlowClassifier classifier(std::nullopt, start, limits);
  EXPECT_EQ(classifier.classify(namedAt("ads.example.com", "192.0.2.1"), start), open);
  EXPECT_EQ(classifier.counters().associatedAddressCount, 1);
  EXPECT_EQ(classifier.classify(at("192.0.2.1"), start), open);
}

TEST(FlowClassifier, keepsCountersAndPairsAcrossAnAdoption) {
  FlowClassifier classifier(blocking({"example.com"}, 1), start, limits);
  (void)classifier.classify(namedAt("cdn.other.net", "192.0.2.1"), start);
  EXPECT_EQ(classifier.classify(at("192.0.2.1"), start), open);

  classifier.adopt(blocking({"example.com", "other.net"}, 2), start + 1);
  EXPECT_EQ(classifier.classify(at("192.0.2.1"), start + 1), blocked);
  EXPECT_EQ(classifier.classify(named("cdn.other.net"), start + 1), blocked);
  const FilterCounters counters = classifier.counters();
  EXPECT_EQ(counters.scopeGeneration, 2);
  EXPECT_EQ(counters.flowsClassified, 4);
  EXPECT_EQ(counters.associatedAddressCount, 1);
}

TEST(FlowClassifier, forgetsThePairsAndTheGenerationWhenAnAdoptionEndsTheBlock) {
  const std::optional<EnforcementDirective> endings[]{std::nullopt, blocking({}, 0),
                                                      EnforcementDirective{{}, {}, start},
                                                      probing("probe.example", start + 1)};
  for (const auto& ending : endings) {
    FlowClassifier classifier(blocking({"example.com"}, 5), start, limits);
    (void)classifier.classify(namedAt("ads.example.com", "192.0.2.1"), start);
    classifier.adopt(ending, start + 1);
    EXPECT_EQ(classifier.counters().associatedAddressCount, 0);
    EXPECT_EQ(classifier.counters().associationsRecorded, 1);
    EXPECT_EQ(classifier.counters().scopeGeneration, 0);
    EXPECT_EQ(classifier.classify(at("192.0.2.1"), start + 1), unknown);
    EXPECT_EQ(classifier.classify(named("example.com"), start + 1), open);
  }
}

TEST(FlowClassifier, adoptsAProbeBesideTheScopeInForceAndItsWithdrawal) {
  EnforcementDirective directive = blocking({"example.com"}, 2);
  FlowClassifier classifier(directive, start, limits);
  directive.validation =
      ValidationProbe{.domain = *Domain::make("probe.example"), .expiresAt = start + 20};
  classifier.adopt(directive, start);
  EXPECT_EQ(classifier.classify(named("probe.example"), start), blocked);
  EXPECT_EQ(classifier.classify(named("example.com"), start), blocked);
  directive.validation.reset();
  classifier.adopt(directive, start);
  EXPECT_EQ(classifier.classify(named("probe.example"), start), open);
  EXPECT_EQ(classifier.classify(named("example.com"), start), blocked);
}

TEST(FlowClassifier, doesNotIndexEqualDomainsAgain) {
  std::vector<Domain> many;
  for (int i = 0; i < 2'000; ++i) {
    many.push_back(*Domain::make("name-" + std::to_string(i) + ".of.a.large.scope.example"));
  }
  EnforcementDirective directive{
      .scope = core::Scope{.generation = 1, .domains = DomainSet::of(many)},
      .validation = std::nullopt,
      .publishedAt = start};
  FlowClassifier classifier(directive, start, limits);

  // What the filter reads again after a probe was lent: equal domains, but another set.
  directive.scope->domains = DomainSet::of(many);
  directive.validation =
      ValidationProbe{.domain = *Domain::make("probe.example"), .expiresAt = start + 20};
  const std::size_t before = test::allocatedBytesOfThisThread();
  classifier.adopt(directive, start);
  const std::size_t forTheProbe = test::allocatedBytesOfThisThread() - before;
  EXPECT_LT(forTheProbe, 2'000U);
  EXPECT_EQ(classifier.classify(named("www.name-1999.of.a.large.scope.example"), start), blocked);
  EXPECT_EQ(classifier.classify(named("probe.example"), start), blocked);

  // One more name does want a new index, which has room for every name.
  many.push_back(*Domain::make("other.net"));
  directive.scope->domains = DomainSet::of(many);
  const std::size_t beforeGrowth = test::allocatedBytesOfThisThread();
  classifier.adopt(directive, start);
  EXPECT_GT(test::allocatedBytesOfThisThread() - beforeGrowth, 10'000U);
  EXPECT_EQ(classifier.classify(named("other.net"), start), blocked);
}

TEST(FlowClassifier, allocatesNothingForANameWithoutANewPair) {
  FlowClassifier classifier(blocking({"example.com", "example.org"}), start, limits);
  const std::string_view blockedName = "a-long-name.beyond-the-small-string.example.com";
  const std::string_view openName = "A-Long-Name.Beyond-The-Small-String.Example.Net";
  (void)classifier.classify(namedAt(blockedName, "2001:db8::1"), start);
  (void)classifier.classify(namedAt(openName, "2001:db8::2"), start);

  const std::size_t before = test::allocationsOfThisThread();
  for (int i = 0; i < 100; ++i) {
    (void)classifier.classify(namedAt(blockedName, "2001:db8::1"), start + i);
    (void)classifier.classify(namedAt(openName, "2001:db8::2"), start + i);
    (void)classifier.classify(named(openName), start + i);
    (void)classifier.classify(named(blockedName), start + i);
    (void)classifier.classify(at("2001:db8::1"), start + i);
    (void)classifier.classify(at("2001:db8::3"), start + i);
    (void)classifier.reclassify(namedAt(openName, "2001:db8::3"), 100, start + i);
    (void)classifier.blocks(openName, start + i);
  }
  EXPECT_EQ(test::allocationsOfThisThread() - before, 0U);
}

/// The rule written down as plainly as possible, for ASCII: one list of domains, one of pairs in
/// order of observation, nothing kept ready. Its limits are never reached.
class PlainClassifier {
 public:
  explicit PlainClassifier(const std::optional<EnforcementDirective>& directive, Date now) {
    adopt(directive, now);
  }

  void adopt(const std::optional<EnforcementDirective>& directive, Date now) {
    scope_.clear();
    counters_.scopeGeneration = 0;
    if (directive && directive->scope) {
      for (const Domain& domain : directive->scope->domains) scope_.emplace_back(domain.name());
      counters_.scopeGeneration = directive->scope->generation;
    }
    probe_ = directive ? directive->validation : std::nullopt;
    enforce(now);
  }

  FlowClassification classify(const FlowEvidence& evidence, Date now) {
    if (evidence.remoteHostname && evidence.remoteAddress) {
      const std::string literal{evidence.remoteAddress->literal()};
      std::erase_if(pairs_, [&](const Pair& pair) {
        return pair.literal == literal && pair.name == *evidence.remoteHostname;
      });
      pairs_.push_back({literal, std::string(*evidence.remoteHostname), now});
      ++counters_.associationsRecorded;
    }
    const FlowClassification classification = decide(evidence, now);
    ++counters_.flowsClassified;
    if (classification == shared) ++counters_.ambiguousFlowsAllowed;
    if (classification.attribution == FlowAttribution::unattributed) {
      ++counters_.unattributedFlowsAllowed;
    }
    ++(classification == held      ? counters_.flowsHeldForInspection
       : classification == blocked ? counters_.flowsDropped
                                   : counters_.flowsReleased);
    return classification;
  }

  FlowClassification reclassify(const FlowEvidence& evidence, std::int64_t bytes, Date now) {
    FlowClassification classification = decide(evidence, now);
    if (classification == held) {
      if (bytes < 4096) return held;
      classification = unknown;
    }
    if (counters_.flowsHeldForInspection > 0) --counters_.flowsHeldForInspection;
    ++(classification == blocked ? counters_.flowsDropped : counters_.flowsReleased);
    return classification;
  }

  bool blocks(std::string_view name, Date now) {
    return decide({.remoteHostname = name, .remoteAddress = {}}, now) == blocked;
  }

  [[nodiscard]] FilterCounters counters() const {
    FilterCounters counters = counters_;
    std::unordered_set<std::string> literals;
    for (const Pair& pair : pairs_) literals.insert(pair.literal);
    counters.associatedAddressCount = std::ssize(literals);
    return counters;
  }

 private:
  struct Pair {
    std::string literal;
    std::string name;
    Date observedAt;
  };

  void enforce(Date now) {
    effective_ = scope_;
    if (probe_ && now < probe_->expiresAt) effective_.emplace_back(probe_->domain.name());
    if (effective_.empty()) pairs_.clear();
  }

  [[nodiscard]] bool matches(std::string_view name) const {
    return std::ranges::any_of(effective_, [&](const std::string& domain) {
      return name == domain || name.ends_with("." + domain);
    });
  }

  FlowClassification decide(const FlowEvidence& evidence, Date now) {
    if (probe_) {
      if (now >= probe_->expiresAt) probe_.reset();
      enforce(now);
    }
    if (evidence.remoteHostname) return matches(*evidence.remoteHostname) ? blocked : open;
    std::size_t matching = 0;
    std::size_t fresh = 0;
    for (const Pair& pair : pairs_) {
      const bool isHere =
          evidence.remoteAddress && pair.literal == evidence.remoteAddress->literal();
      if (!isHere || now - pair.observedAt >= limits.lifetime) continue;
      ++fresh;
      if (matches(pair.name)) ++matching;
    }
    if (fresh == 0) return effective_.empty() ? unknown : held;
    return matching == 0 ? open : matching == fresh ? blocked : shared;
  }

  std::vector<std::string> scope_;
  std::optional<ValidationProbe> probe_;
  std::vector<std::string> effective_;
  std::vector<Pair> pairs_;
  FilterCounters counters_;
};

TEST(FlowClassifier, agreesWithThePlainRuleOnAnyThread) {
  constexpr std::string_view names[]{"example.com", "www.example.com",   "badexample.com",
                                     "other.net",   "cdn.other.net",     "probe.example",
                                     "example.org", "one.probe.example", "com"};
  for (std::uint64_t seed = 0; seed < 40; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    const auto below = [&random](std::size_t bound) { return random() % bound; };
    Date now = start;
    const auto directive = [&]() -> std::optional<EnforcementDirective> {
      if (below(4) == 0) return std::nullopt;
      EnforcementDirective made{.scope = {}, .validation = {}, .publishedAt = now};
      if (below(3) != 0)
        made =
            blocking({names[below(8)], names[below(8)]}, 1 + static_cast<std::int64_t>(below(9)));
      if (below(4) == 0) made = blocking({}, 2);
      if (below(2) == 0) {
        made.validation = ValidationProbe{.domain = *Domain::make("probe.example"),
                                          .expiresAt = now + (static_cast<double>(below(30)) - 5)};
      }
      return made;
    };
    const auto first = directive();
    FlowClassifier classifier(first, now, limits);
    PlainClassifier plain(first, now);
    for (int step = 0; step < 150; ++step) {
      SCOPED_TRACE("step " + std::to_string(step));
      // Mostly forward, now and then back, seldom far enough for names to go stale.
      now = now + (below(8) == 0    ? -static_cast<double>(below(20))
                   : below(20) == 0 ? static_cast<double>(below(700))
                                    : static_cast<double>(below(4)));
      FlowEvidence evidence;
      if (below(3) != 0) evidence.remoteHostname = names[below(9)];
      if (below(2) == 0) {
        evidence.remoteAddress = address("192.0.2." + std::to_string(1 + below(5)));
      }
      const std::size_t kind = below(10);
      const auto compare = [&] {
        if (kind == 0) {
          const auto next = directive();
          classifier.adopt(next, now);
          plain.adopt(next, now);
        } else if (kind == 1) {
          const std::string_view name = names[below(9)];
          EXPECT_EQ(classifier.blocks(name, now), plain.blocks(name, now));
        } else if (kind <= 3) {
          const std::int64_t bytes = below(2) == 0 ? 4095 : 4096;
          EXPECT_EQ(classifier.reclassify(evidence, bytes, now),
                    plain.reclassify(evidence, bytes, now));
        } else {
          EXPECT_EQ(classifier.classify(evidence, now), plain.classify(evidence, now));
        }
        EXPECT_EQ(classifier.counters(), plain.counters());
      };
      // Each thread counts in a place of its own, which is another one while this one waits.
      if (below(8) == 0) {
        std::vector<std::thread> waiting;
        std::latch allHere(11);
        for (int t = 0; t < 10; ++t) {
          waiting.emplace_back([&] {
            (void)classifier.classify(named("other.net"), now);
            allHere.arrive_and_wait();
          });
        }
        allHere.arrive_and_wait();
        for (std::thread& thread : waiting) thread.join();
        for (int t = 0; t < 10; ++t) (void)plain.classify(named("other.net"), now);
      } else if (below(4) == 0) {
        std::thread(compare).join();
      } else {
        compare();
      }
      if (HasFailure()) return;
    }
  }
}

TEST(FlowClassifier, followsADirectiveOnEveryThreadFromItsAdoptionOn) {
  constexpr int threads = 3;
  constexpr int rounds = 300;
  FlowClassifier classifier(blocking({"even.example"}), start, limits);
  std::atomic<int> adopted{0};
  std::atomic<bool> isOver{false};
  std::atomic<int> wrong{0};
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&] {
      while (!isOver) {
        // Between the two looks the rule may change; if it did not, it is the one that was adopted.
        const int before = adopted;
        const bool isEvenBlocked = classifier.classify(named("www.even.example"), start) == blocked;
        const bool isOddBlocked = classifier.classify(named("www.odd.example"), start) == blocked;
        const int after = adopted;
        const bool isKnown = before == after && before % 2 == 0;
        if (isKnown && (isEvenBlocked != (before % 4 == 0) || isOddBlocked == isEvenBlocked)) {
          ++wrong;
        }
      }
    });
  }
  for (int round = 1; round <= rounds; ++round) {
    // An odd number stands for an adoption that is under way.
    adopted = 2 * round - 1;
    classifier.adopt(round % 2 == 0 ? blocking({"even.example"}) : blocking({"odd.example"}),
                     start);
    adopted = 2 * round;
    std::this_thread::yield();
  }
  isOver = true;
  for (std::thread& worker : workers) worker.join();
  EXPECT_EQ(wrong, 0);
}

TEST(FlowClassifier, countsEveryFlowOfSeveralThreadsWhileDirectivesChange) {
  constexpr int threads = 4;
  constexpr int flowsPerThread = 2'000;
  FlowClassifier classifier(blocking({"example.com"}, 1), start, limits);
  std::atomic<std::int64_t> dropped{0};
  std::atomic<int> running{threads};
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      for (int i = 0; i < flowsPerThread; ++i) {
        const std::string literal = "10.0." + std::to_string(t) + "." + std::to_string(i % 256);
        // Blocked by every directive that comes.
        if (classifier.classify(namedAt("www.example.com", literal), start + i) == blocked) {
          ++dropped;
        }
        (void)classifier.classify(at(literal), start + i);
        if (classifier.classify(named("example.com"), start + i) == blocked) ++dropped;
        if (classifier.classify(nothing, start + i) == held) {
          (void)classifier.reclassify(nothing, 4096, start + i);
        }
        (void)classifier.blocks("other.net", start + i);
      }
      --running;
    });
  }
  // Two adopters at once; the reader of the counters is a third.
  std::thread other([&] {
    for (std::int64_t generation = 2; running > 0; ++generation) {
      classifier.adopt(blocking({"example.com", "other.net"}, generation), start);
    }
  });
  std::int64_t seen = 0;
  while (running > 0) {
    EnforcementDirective directive = blocking({"example.com"}, 1);
    directive.validation =
        ValidationProbe{.domain = *Domain::make("probe.example"), .expiresAt = start + 20};
    classifier.adopt(directive, start);
    const std::int64_t now = classifier.counters().flowsClassified;
    EXPECT_GE(now, seen);
    seen = now;
  }
  for (std::thread& worker : workers) worker.join();
  other.join();

  const FilterCounters counters = classifier.counters();
  EXPECT_EQ(dropped, 2 * threads * flowsPerThread);
  EXPECT_EQ(counters.flowsClassified, 4 * threads * flowsPerThread);
  EXPECT_EQ(counters.flowsHeldForInspection, 0);
  EXPECT_EQ(counters.flowsDropped + counters.flowsReleased, 4 * threads * flowsPerThread);
  EXPECT_EQ(counters.associationsRecorded, threads * flowsPerThread);
}

TEST(FilterCounters, readsAsOneLine) {
  const FilterCounters counters{.scopeGeneration = 3,
                                .flowsClassified = 10,
                                .flowsDropped = 2,
                                .flowsReleased = 7,
                                .flowsHeldForInspection = 1,
                                .ambiguousFlowsAllowed = 0,
                                .unattributedFlowsAllowed = 1,
                                .associationsRecorded = 5,
                                .associatedAddressCount = 4};
  EXPECT_EQ(description(counters),
            "scopeGeneration=3 classified=10 dropped=2 released=7 heldForInspection=1 "
            "ambiguousAllowed=0 unattributedAllowed=1 associationsRecorded=5 "
            "associatedAddresses=4");
}

TEST(FilterCountersDeathTest, stopTheProcessInsteadOfWrapping) {
  constexpr std::int64_t last = INT64_MAX;
  struct Row {
    std::int64_t FilterCounters::* counter;
    void (*count)(FilterCounters&);
  };
  const Row rows[]{
      {&FilterCounters::flowsClassified, [](FilterCounters& c) { c.countClassified(open); }},
      {&FilterCounters::flowsDropped, [](FilterCounters& c) { c.countClassified(blocked); }},
      {&FilterCounters::flowsReleased, [](FilterCounters& c) { c.countClassified(open); }},
      {&FilterCounters::flowsHeldForInspection, [](FilterCounters& c) { c.countClassified(held); }},
      {&FilterCounters::ambiguousFlowsAllowed,
       [](FilterCounters& c) { c.countClassified(shared); }},
      {&FilterCounters::unattributedFlowsAllowed,
       [](FilterCounters& c) { c.countClassified(unknown); }},
      {&FilterCounters::associationsRecorded, [](FilterCounters& c) { c.countAssociation(1); }},
      {&FilterCounters::flowsDropped,
       [](FilterCounters& c) { c.countEndOfInspection(Disposition::drop{}); }},
      {&FilterCounters::flowsReleased,
       [](FilterCounters& c) { c.countEndOfInspection(Disposition::allowAndRelease{}); }},
  };
  for (const Row& row : rows) {
    FilterCounters counters;
    counters.*row.counter = last;
    EXPECT_DEATH(row.count(counters), "counter overflow");
    counters.*row.counter = last - 1;
    row.count(counters);
    EXPECT_EQ(counters.*row.counter, last);
  }
}

TEST(FlowClassification, isEqualAndHashedByItsFields) {
  const std::vector<FlowClassification> different{
      blocked, open,    shared,
      held,    unknown, {FlowAttribution::unattributed, Disposition::allowUnderInspection{4095}}};
  std::unordered_set<FlowClassification> set(different.begin(), different.end());
  set.insert(different.begin(), different.end());
  EXPECT_EQ(set.size(), different.size());
  EXPECT_TRUE(set.contains({FlowAttribution::scoped, Disposition::drop{}}));
}

}  // namespace
}  // namespace stillow::filtering
