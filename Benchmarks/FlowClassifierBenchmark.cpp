// The classifier and its associations.
//
// `classify` is compared with a lock and a match, the least that any filter has to do for a flow
// with a name: once for flows that show their name alone, once for flows whose pair of name and
// address is on record, which has the work of remembering it in addition. The argument is the
// number of blocked names. On two threads that share one classifier it is compared with itself on
// one, by the wall: it needs two processors.
//
// `lookUpAddress` asks a full table of 10,000 addresses for the names that are fresh there, which a
// quarter is not; the reference is the bare look-up of the same addresses in the hash map. `record`
// is a new pair for the full table, in which the address seen longest ago has to go for it; the
// reference is the usual list of recency with a hash map from addresses to its nodes.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <absl/container/flat_hash_map.h>
#include <absl/hash/hash.h>
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
          isBlocked ? std::string(domains[names.below(domains.size())].name()) : names.domain();
      flows.push_back({names.host(domain), names.address()});
    }
  }

  Names names;
  EnforcementDirective directive;
  std::vector<Flow> flows;
};

/// The same flows in the same order for both sides.
template <class Flow, class Judge>
auto over(const std::vector<Flow>& flows, Judge judge) {
  return [&flows, judge, next = std::size_t{0}](std::size_t count) mutable {
    for (; count > 0; --count) {
      judge(flows[next]);
      if (++next == flows.size()) next = 0;
    }
  };
}

FlowEvidence named(const Flow& flow) {
  return {.remoteHostname = flow.name, .remoteAddress = std::nullopt};
}
FlowEvidence namedAt(const Flow& flow) {
  return {.remoteHostname = flow.name, .remoteAddress = flow.address};
}

bool isDropped(const filtering::FlowClassification& classification) {
  return core::is<filtering::FlowDisposition::drop>(classification.disposition);
}

template <class Ours>
void compareWithLockAndMatch(benchmark::State& state, const Fixture& fixture, Ours ours) {
  const DomainMatcher matcher(fixture.directive.scope->domains);
  std::mutex lock;
  for (const Flow& flow : fixture.flows) {
    if (isDropped(ours(flow)) != matcher.matches(flow.name)) {
      return state.SkipWithError("the two sides differ");
    }
  }
  const auto reference = [&](const Flow& flow) {
    const std::scoped_lock guard(lock);
    benchmark::DoNotOptimize(matcher.matches(flow.name));
  };
  const auto judge = [&](const Flow& flow) { benchmark::DoNotOptimize(ours(flow)); };
  compareAlternating(state, Measure::processorTime, over(fixture.flows, judge),
                     over(fixture.flows, reference));
}

void classifyName(benchmark::State& state) {
  const Fixture fixture(static_cast<std::size_t>(state.range(0)));
  FlowClassifier classifier(fixture.directive, start, limits);
  compareWithLockAndMatch(
      state, fixture, [&](const Flow& flow) { return classifier.classify(named(flow), start); });
}

void classifyKnownPair(benchmark::State& state) {
  const Fixture fixture(static_cast<std::size_t>(state.range(0)));
  FlowClassifier classifier(fixture.directive, start, limits);
  Date now = start;
  compareWithLockAndMatch(state, fixture, [&](const Flow& flow) {
    now = now + 1e-6;
    return classifier.classify(namedAt(flow), now);
  });
}

void twoThreads(benchmark::State& state) {
  if (std::thread::hardware_concurrency() < 2) return state.SkipWithError("needs two processors");
  const Fixture fixture(static_cast<std::size_t>(state.range(0)));
  FlowClassifier classifier(fixture.directive, start, limits);
  const auto classify = [&](const Flow& flow) {
    benchmark::DoNotOptimize(classifier.classify(named(flow), start));
  };
  // An operation is so many flows that beginning a thread does not count beside it. Each thread
  // keeps its place among the flows to itself, on its own stack.
  constexpr std::size_t flowsPerOperation = 100'000;
  const auto work = [&](std::size_t count) { over(fixture.flows, classify)(count); };
  std::size_t classified = 0;
  const auto ours = [&](std::size_t count) {
    const std::size_t half = count * flowsPerOperation / 2;
    std::thread other([&] { work(half); });
    work(half);
    other.join();
    classified += 2 * half;
  };
  const auto reference = [&](std::size_t count) {
    work(count * flowsPerOperation);
    classified += count * flowsPerOperation;
  };
  compareAlternating(state, Measure::wallTime, ours, reference);
  for (const char* side : {"ours_ns", "reference_ns"}) {
    state.counters[side].value /= static_cast<double>(flowsPerOperation);
  }
  // Threads that lose some of their flows are no quicker.
  const filtering::FilterCounters counters = classifier.counters();
  if (counters.flowsClassified != static_cast<std::int64_t>(classified) ||
      counters.flowsDropped + counters.flowsReleased != counters.flowsClassified) {
    state.SkipWithError("flows were lost");
  }
}

struct AddressHash {
  std::size_t operator()(const FlowAddress& address) const noexcept {
    return absl::Hash<std::string_view>{}(address.literal());
  }
};
template <class Value>
using AddressMap = absl::flat_hash_map<FlowAddress, Value, AddressHash>;

std::vector<Flow> someFlows(std::size_t count) {
  Names names;
  std::vector<Flow> flows;
  for (std::size_t i = 0; i < count; ++i) {
    flows.push_back({names.host(names.domain()), names.address()});
  }
  return flows;
}

void lookUpAddress(benchmark::State& state) {
  std::vector<Flow> flows = someFlows(static_cast<std::size_t>(limits.maximumAddresses));
  NameAddressAssociations table(limits);
  AddressMap<std::string> map;
  const Date now = start + limits.lifetime;
  const std::size_t staleCount = flows.size() / 4;
  for (std::size_t i = 0; i < flows.size(); ++i) {
    table.record(flows[i].name, flows[i].address, i < staleCount ? start : start + 1);
    map.emplace(flows[i].address, flows[i].name);
  }
  for (std::size_t i = 0; i < flows.size(); ++i) {
    const std::vector<std::string> fresh = table.names(flows[i].address, now);
    const bool isStale = i < staleCount;
    if (fresh.size() != (isStale ? 0 : 1) ||
        (!isStale && fresh.front() != map.find(flows[i].address)->second)) {
      return state.SkipWithError("the two sides differ");
    }
  }
  // In another order than they were recorded in, which is that of the tables' memory.
  std::ranges::shuffle(flows, std::mt19937_64{86'400});
  std::vector<FlowAddress> addresses;
  for (const Flow& flow : flows) addresses.push_back(flow.address);
  const auto ours = [&](const FlowAddress& address) {
    table.visitNames(address, now,
                     [](std::string_view name) { benchmark::DoNotOptimize(name.data()); });
  };
  const auto reference = [&](const FlowAddress& address) {
    const auto found = map.find(address);
    if (found != map.end()) benchmark::DoNotOptimize(found->second.data());
  };
  compareAlternating(state, Measure::processorTime, over(addresses, ours),
                     over(addresses, reference));
}

/// What one would write first: the entries in order of recency, and where each address has its own.
class RecencyList {
 public:
  explicit RecencyList(std::size_t sizeMax) : sizeMax_(sizeMax) { index_.reserve(sizeMax + 1); }

  void record(const std::string& name, const FlowAddress& address, Date now) {
    const auto [place, isNew] = index_.try_emplace(address);
    if (!isNew) {
      entries_.splice(entries_.end(), entries_, place->second);
    } else if (index_.size() <= sizeMax_) {
      entries_.push_back({address, {}, now});
    } else {
      // The node serves again.
      index_.erase(entries_.front().address);
      entries_.splice(entries_.end(), entries_, entries_.begin());
    }
    Entry& entry = entries_.back();
    entry.address = address;
    entry.name = name;
    entry.observedAt = now;
    place->second = std::prev(entries_.end());
  }

  struct Entry {
    FlowAddress address;
    std::string name;
    Date observedAt;
  };
  [[nodiscard]] const std::list<Entry>& entries() const { return entries_; }

 private:
  std::size_t sizeMax_;
  std::list<Entry> entries_;
  AddressMap<std::list<Entry>::iterator> index_;
};

void record(benchmark::State& state) {
  constexpr auto addressesMax = static_cast<std::size_t>(limits.maximumAddresses);
  // Addresses never come again before they have gone.
  const std::vector<Flow> flows = someFlows(4 * addressesMax);
  NameAddressAssociations table(limits);
  RecencyList list(addressesMax);
  Date now = start;
  Date referenceNow = start;
  const auto ours = [&](const Flow& flow) {
    now = now + 1e-6;
    table.record(flow.name, flow.address, now);
  };
  const auto reference = [&](const Flow& flow) {
    referenceNow = referenceNow + 1e-6;
    list.record(flow.name, flow.address, referenceNow);
  };
  for (const Flow& flow : flows) ours(flow);
  for (const Flow& flow : flows) reference(flow);
  bool isSame = table.count() == addressesMax && list.entries().size() == addressesMax;
  for (const RecencyList::Entry& entry : list.entries()) {
    isSame = isSame && table.names(entry.address, now) == std::vector{entry.name};
  }
  if (!isSame) return state.SkipWithError("the two sides differ");
  compareAlternating(state, Measure::processorTime, over(flows, ours), over(flows, reference));
}

BENCHMARK(classifyName)->Arg(10)->Arg(1'000)->Arg(100'000)->Apply(batches);
BENCHMARK(twoThreads)->Arg(1'000)->Apply(batches);
BENCHMARK(lookUpAddress)->Apply(batches);
BENCHMARK(record)->Apply(batches);
BENCHMARK(classifyKnownPair)->Arg(10)->Arg(1'000)->Arg(100'000)->Apply(batches);

}  // namespace
}  // namespace stillow::benchmarks
