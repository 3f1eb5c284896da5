// DomainMatcher against the obvious way: a hash set of names, and a look-up for each suffix of the
// host.
//
// The argument is the number of blocked names. `halfBlocked` asks for few enough hosts that caches
// and branch predictors know them, as a machine that keeps talking to the same sites does; half of
// them lie at or below a blocked name. `distinct` asks for a million different ones. `unblocked` is
// what nearly every flow asks, `blocked` has hits only, both with too many hosts to be learned.
// `manyLabels` asks for hosts of 127 labels, the most that a name on the wire can have.

#include <algorithm>
#include <cstddef>
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

struct Mix {
  std::size_t hostCount;
  unsigned blockedInTen;
  std::size_t labelsMin;  ///< labels are put before shorter names
  std::size_t labelsMax;
};

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
  std::string below(std::string name, std::size_t labelCount) {
    constexpr std::string_view usual[]{"www.", "www.", "api.", "cdn-3.", "static.", "img1."};
    auto labels = 1 + static_cast<std::size_t>(std::ranges::count(name, '.'));
    for (; labels < labelCount; ++labels) name.insert(0, usual[random_() % 6]);
    return name;
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
  [[nodiscard]] std::size_t count() const { return ends_.size(); }
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
    for (const std::string_view name : matcher.domainNames()) set.emplace(name);
  }

  Hosts hosts(const Mix& mix) {
    const auto blocked = matcher.domainNames();
    Hosts hosts;
    for (std::size_t i = 0; i < mix.hostCount; ++i) {
      const bool isBlocked = names.below(10) < mix.blockedInTen;
      const std::size_t labels = mix.labelsMin + names.below(mix.labelsMax - mix.labelsMin + 1);
      const auto name = static_cast<std::ptrdiff_t>(names.below(blocked.size()));
      hosts.add(names.below(isBlocked ? std::string(blocked[name]) : names.registrable(), labels));
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

void compare(benchmark::State& state, const Mix& mix) {
  Fixture& names = fixture(static_cast<std::size_t>(state.range(0)));
  const Hosts hosts = names.hosts(mix);
  for (std::size_t i = 0; i < hosts.count(); ++i) {
    if (names.matcher.matches(hosts[i]) != walksLabels(names.set, hosts[i])) {
      state.SkipWithError("the two disagree");
      return;
    }
  }
  const auto asking = [&hosts](auto question) {
    return [&hosts, question, next = std::size_t{0}](std::size_t count) mutable {
      std::size_t matched = 0;
      for (; count > 0; --count) {
        matched += question(hosts[next]) ? 1U : 0U;
        next = next + 1 < hosts.count() ? next + 1 : 0;
      }
      benchmark::DoNotOptimize(matched);
    };
  };
  compareAlternating(state, Measure::processorTime,
                     asking([&](std::string_view host) { return names.matcher.matches(host); }),
                     asking([&](std::string_view host) { return walksLabels(names.set, host); }));
}

void sizes(benchmark::internal::Benchmark* benchmark) {
  for (const int count : {10, 1'000, 100'000, 1'000'000}) benchmark->Arg(count);
  batches(benchmark);
}

constexpr std::size_t learned = 1 << 12;
constexpr std::size_t notLearned = 1 << 16;

BENCHMARK_CAPTURE(compare, halfBlocked, Mix{learned, 5, 2, 5})->Apply(sizes);
BENCHMARK_CAPTURE(compare, distinct, Mix{1'000'000, 5, 2, 5})->Apply(sizes);
BENCHMARK_CAPTURE(compare, unblocked, Mix{notLearned, 0, 2, 5})->Apply(sizes);
BENCHMARK_CAPTURE(compare, blocked, Mix{notLearned, 10, 2, 5})->Apply(sizes);
BENCHMARK_CAPTURE(compare, manyLabels, Mix{learned, 5, 127, 127})->Apply(sizes);

}  // namespace
}  // namespace stillow::benchmarks
