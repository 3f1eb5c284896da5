// DomainMatcher against the obvious way: a hash set of names, and a look-up for each suffix of the
// host.
//
// The argument is the number of blocked names. `unblocked` is what nearly every flow asks,
// `blocked` asks for hosts one label below a blocked name, `mixed` has one of those in ten.

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <absl/container/flat_hash_set.h>
#include <absl/strings/string_view.h>
#include <benchmark/benchmark.h>

#include "Alternating.hpp"
#include "StillowCore/DomainMatcher.hpp"

namespace stillow::benchmarks {
namespace {

using core::Domain;
using core::DomainMatcher;
using core::DomainSet;

constexpr std::size_t hostCount = 1 << 16;  // Too many for the branch predictor to learn.

class NameSource {
 public:
  std::string registrable() {
    constexpr std::string_view suffixes[]{"com", "com", "com", "com", "net", "org",   "de",
                                          "io",  "fr",  "jp",  "ru",  "in",  "co.uk", "com.br"};
    return label(4 + random_() % 12) + "." + std::string(suffixes[random_() % 14]);
  }
  /// Most block lists hold a share of names below a registrable one.
  std::string blocked() {
    const std::string name = registrable();
    return random_() % 8 == 0 ? label(2 + random_() % 6) + "." + name : name;
  }
  std::string below(const std::string& name) {
    constexpr std::string_view prefixes[]{"www.", "www.", "www.", "api.", "cdn-3.static.", ""};
    return std::string(prefixes[random_() % 6]) + name;
  }
  std::size_t below(std::size_t bound) { return random_() % bound; }

 private:
  std::string label(std::size_t length) {
    std::string letters;
    for (; length > 0; --length) letters += static_cast<char>('a' + random_() % 26);
    return letters;
  }

  std::mt19937_64 random_{86'400};
};

/// In one piece, so that reading the next host costs neither side a wait for memory: a filter has
/// just taken it from a packet.
class Hosts {
 public:
  void add(std::string_view host) {
    ends_.push_back(static_cast<std::uint32_t>(text_.size() + host.size()));
    text_ += host;
  }
  [[nodiscard]] std::string_view operator[](std::size_t index) const {
    const std::size_t start = index == 0 ? 0 : ends_[index - 1];
    return {text_.data() + start, ends_[index] - start};
  }

 private:
  std::string text_;
  std::vector<std::uint32_t> ends_;
};

struct Fixture {
  explicit Fixture(std::size_t count) {
    std::vector<Domain> domains;
    for (std::size_t i = 0; i < count; ++i) domains.push_back(*Domain::make(names.blocked()));
    matcher = DomainMatcher(DomainSet::of(std::move(domains)));
    for (const std::string& name : matcher.domainNames()) set.insert(name);
  }

  std::vector<std::string> hosts(unsigned blockedInTen) {
    const auto blocked = matcher.domainNames();
    std::vector<std::string> hosts;
    for (std::size_t i = 0; i < hostCount; ++i) {
      const bool isBlocked = names.below(10) < blockedInTen;
      hosts.push_back(
          names.below(isBlocked ? blocked[static_cast<std::ptrdiff_t>(names.below(blocked.size()))]
                                : names.registrable()));
    }
    return hosts;
  }

  NameSource names;
  DomainMatcher matcher;
  absl::flat_hash_set<std::string> set;
};

/// Built once per size: a million names take a second.
Fixture& fixture(std::size_t count) {
  static std::size_t builtCount = 0;
  static std::unique_ptr<Fixture> built;
  if (builtCount != count) {
    built.reset();
    built = std::make_unique<Fixture>(count);
    builtCount = count;
  }
  return *built;
}

bool walksLabels(const absl::flat_hash_set<std::string>& set, std::string_view host) {
  if (host.ends_with('.')) host.remove_suffix(1);
  for (;;) {
    if (set.contains(absl::string_view(host.data(), host.size()))) return true;
    const auto dot = host.find('.');
    if (dot == std::string_view::npos) return false;
    host.remove_prefix(dot + 1);
  }
}

void compare(benchmark::State& state, unsigned blockedInTen) {
  Fixture& names = fixture(static_cast<std::size_t>(state.range(0)));
  const auto hosts = names.hosts(blockedInTen);
  for (std::size_t i = 0; i < hostCount; ++i) {
    const std::string_view host = hosts[i];
    if (names.matcher.matches(host) != walksLabels(names.set, host)) {
      state.SkipWithError("the two disagree");
      return;
    }
  }
  const auto asking = [&hosts](auto question) {
    return [&hosts, question, next = std::size_t{0}](std::size_t count) mutable {
      std::size_t matched = 0;
      for (; count > 0; --count) matched += question(hosts[next++ % hostCount]) ? 1U : 0U;
      benchmark::DoNotOptimize(matched);
    };
  };
  compareAlternating(state, Measure::processorTime,
                     asking([&](std::string_view host) { return names.matcher.matches(host); }),
                     asking([&](std::string_view host) { return walksLabels(names.set, host); }));
}

void sizes(benchmark::internal::Benchmark* benchmark) {
  for (const int count : {10, 100, 1'000, 10'000, 100'000, 1'000'000}) benchmark->Arg(count);
  batches(benchmark);
}

BENCHMARK_CAPTURE(compare, unblocked, 0U)->Apply(sizes);
BENCHMARK_CAPTURE(compare, mixed, 1U)->Apply(sizes);
BENCHMARK_CAPTURE(compare, blocked, 10U)->Apply(sizes);

}  // namespace
}  // namespace stillow::benchmarks
