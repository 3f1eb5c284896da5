// The classifier and its associations.
//
// `classify` is compared with a lock and a match, the least that any filter has to do for a flow
// with a name: once for flows that show their name alone, once for flows whose pair of name and
// address is on record, which has the work of remembering it in addition. The argument is the
// number of blocked names. `record` is a new pair for a full table, in which one of 10,000
// addresses has to go for it, compared with the least that a bounded table has to do: one node out
// of a hash map, another one in.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "Alternating.hpp"
#include "StillowCore/DomainMatcher.hpp"
#include "StillowFiltering/FlowClassifier.hpp"

namespace stillow::benchmarks {
namespace {

using core::Date;
using core::Domain;
using core::DomainMatcher;
using core::DomainSet;
using filtering::EnforcementDirective;
using filtering::FlowAddress;
using filtering::FlowClassifier;
using filtering::FlowEvidence;
using filtering::NameAddressAssociations;

constexpr Date start{816'458'820};
constexpr NameAddressAssociations::Limits limits{
    .lifetime = 600, .maximumAddresses = 10'000, .maximumNamesPerAddress = 16};
constexpr std::size_t flowCount = 1 << 13;  // Their pairs fit into the table.

class Names {
 public:
  std::string domain() { return label(4 + random_() % 12) + "." + suffix(); }
  std::string host(const std::string& domain) {
    constexpr std::string_view prefixes[]{"www.", "www.", "api.", "cdn-3.static.", ""};
    return std::string(prefixes[random_() % 5]) + domain;
  }
  FlowAddress address() {
    std::uint8_t bytes[16]{0x20, 0x01, 0x0d, 0xb8};
    for (std::size_t i = 4; i < 16; ++i) bytes[i] = static_cast<std::uint8_t>(random_());
    if (random_() % 2 == 0) return FlowAddress::fromIPv6(bytes);
    return FlowAddress::fromIPv4(std::span<const std::uint8_t, 4>(bytes + 12, 4));
  }
  std::size_t below(std::size_t bound) { return random_() % bound; }

 private:
  std::string label(std::size_t length) {
    std::string letters;
    for (; length > 0; --length) letters += static_cast<char>('a' + random_() % 26);
    return letters;
  }
  std::string suffix() {
    constexpr std::string_view suffixes[]{"com", "com", "net", "org", "de", "co.uk"};
    return std::string(suffixes[random_() % 6]);
  }

  std::mt19937_64 random_{86'400};
};

struct Flow {
  std::string name;
  FlowAddress address;
};

struct Fixture {
  explicit Fixture(std::size_t domainCount) {
    std::vector<Domain> domains;
    for (std::size_t i = 0; i < domainCount; ++i) domains.push_back(*Domain::make(names.domain()));
    directive = {.scope = core::Scope{.generation = 1, .domains = DomainSet::of(domains)},
                 .validation = std::nullopt,
                 .publishedAt = start};
    // One flow in ten goes to a blocked name.
    for (std::size_t i = 0; i < flowCount; ++i) {
      const bool isBlocked = names.below(10) == 0;
      const std::string domain =
          isBlocked ? domains[names.below(domains.size())].name() : names.domain();
      flows.push_back({names.host(domain), names.address()});
    }
  }

  Names names;
  EnforcementDirective directive;
  std::vector<Flow> flows;
};

/// The same flows in the same order for both sides.
template <class Judge>
auto over(const std::vector<Flow>& flows, Judge judge) {
  return [&flows, judge, next = std::size_t{0}](std::size_t count) mutable {
    for (; count > 0; --count) {
      judge(flows[next]);
      next = (next + 1) % flows.size();
    }
  };
}

template <class Ours>
void compareWithLockAndMatch(benchmark::State& state, const Fixture& fixture, Ours ours) {
  const DomainMatcher matcher(fixture.directive.scope->domains);
  std::mutex lock;
  const auto reference = [&](const Flow& flow) {
    const std::scoped_lock guard(lock);
    benchmark::DoNotOptimize(matcher.matches(flow.name));
  };
  compareAlternating(state, Measure::processorTime, over(fixture.flows, ours),
                     over(fixture.flows, reference));
}

void classifyName(benchmark::State& state) {
  const Fixture fixture(static_cast<std::size_t>(state.range(0)));
  FlowClassifier classifier(fixture.directive, start, limits);
  compareWithLockAndMatch(state, fixture, [&](const Flow& flow) {
    const FlowEvidence evidence{.remoteHostname = flow.name, .remoteAddress = std::nullopt};
    benchmark::DoNotOptimize(classifier.classify(evidence, start));
  });
}

void classifyKnownPair(benchmark::State& state) {
  const Fixture fixture(static_cast<std::size_t>(state.range(0)));
  FlowClassifier classifier(fixture.directive, start, limits);
  Date now = start;
  const auto classify = [&](const Flow& flow) {
    const FlowEvidence evidence{.remoteHostname = flow.name, .remoteAddress = flow.address};
    now = now + 1e-6;
    benchmark::DoNotOptimize(classifier.classify(evidence, now));
  };
  for (const Flow& flow : fixture.flows) classify(flow);
  compareWithLockAndMatch(state, fixture, classify);
}

void record(benchmark::State& state) {
  Names names;
  std::vector<Flow> flows;
  for (std::size_t i = 0; i < 4 * static_cast<std::size_t>(limits.maximumAddresses); ++i) {
    flows.push_back({names.host(names.domain()), names.address()});
  }
  NameAddressAssociations table(limits);
  std::unordered_map<FlowAddress, std::string> map;
  std::vector<FlowAddress> order;  // a ring: what came first goes first
  std::size_t oldest = 0;
  Date now = start;
  const auto ours = [&](const Flow& flow) {
    now = now + 1e-6;
    table.record(flow.name, flow.address, now);
  };
  const auto reference = [&](const Flow& flow) {
    if (map.size() == static_cast<std::size_t>(limits.maximumAddresses)) {
      map.erase(order[oldest]);
      order[oldest] = flow.address;
      oldest = (oldest + 1) % order.size();
    } else {
      order.push_back(flow.address);
    }
    map.emplace(flow.address, flow.name);
  };
  // Full, with addresses that never come again before they have gone.
  for (const Flow& flow : flows) ours(flow);
  for (const Flow& flow : flows) reference(flow);
  compareAlternating(state, Measure::processorTime, over(flows, ours), over(flows, reference));
  if (table.count() != static_cast<std::size_t>(limits.maximumAddresses)) {
    state.SkipWithError("the table is not full");
  }
}

BENCHMARK(classifyName)->Arg(10)->Arg(100'000)->Apply(batches);
BENCHMARK(classifyKnownPair)->Arg(10)->Arg(100'000)->Apply(batches);
BENCHMARK(record)->Apply(batches);

}  // namespace
}  // namespace stillow::benchmarks
