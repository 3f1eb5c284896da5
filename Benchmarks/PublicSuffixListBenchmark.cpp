// The registrable domain of a host, against libpsl with its built-in list.

#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>
#include <libpsl.h>

#include "Alternating.hpp"
#include "StillowCore/PublicSuffixList.hpp"

namespace stillow::benchmarks {
namespace {

using core::PublicSuffixList;

constexpr std::size_t hostCount = 1 << 14;

/// Hosts one to three labels below a public suffix; most of them below the common ones.
std::vector<std::string> someHosts(const PublicSuffixList& list) {
  std::mt19937_64 random(86'400);
  std::vector<std::string> rules;
  for (const auto& rule : list.exactRules()) {
    if (rule.find_first_not_of("abcdefghijklmnopqrstuvwxyz.-0123456789") == std::string::npos) {
      rules.push_back(rule);
    }
  }
  constexpr std::string_view common[]{"com", "net", "org", "de", "co.uk", "com.br", "io", "fr"};
  constexpr std::string_view prefixes[]{"", "www.", "www.", "mail.", "a.b."};
  std::vector<std::string> hosts;
  for (std::size_t i = 0; i < hostCount; ++i) {
    std::string host(prefixes[random() % 5]);
    for (auto letters = 4 + random() % 12; letters > 0; --letters) {
      host += static_cast<char>('a' + random() % 26);
    }
    host += '.';
    host += random() % 10 == 0 ? rules[random() % rules.size()] : common[random() % 8];
    hosts.push_back(std::move(host));
  }
  return hosts;
}

template <class Question>
auto asking(const std::vector<std::string>& hosts, Question question) {
  return [&hosts, question, next = std::size_t{0}](std::size_t count) mutable {
    std::size_t bytes = 0;
    for (; count > 0; --count) bytes += question(hosts[next++ % hostCount]);
    benchmark::DoNotOptimize(bytes);
  };
}

template <class Ours>
void compare(benchmark::State& state, const psl_ctx_t* reference, Ours ours) {
  if (reference == nullptr) {
    state.SkipWithError("libpsl has no list");
    return;
  }
  const auto hosts = someHosts(PublicSuffixList::fromResource());
  const auto theirs = [reference](const std::string& host) {
    const char* const domain = psl_registrable_domain(reference, host.c_str());
    return domain == nullptr ? std::size_t{0} : std::string_view(domain).size();
  };
  for (const auto& host : hosts) {
    if (ours(host) != theirs(host)) {
      state.SkipWithError(("the two disagree about " + host).c_str());
      return;
    }
  }
  compareAlternating(state, Measure::processorTime, asking(hosts, ours), asking(hosts, theirs));
}

void registrableDomain(benchmark::State& state) {
  const PublicSuffixList& list = PublicSuffixList::fromResource();
  compare(state, psl_builtin(), [&list](const std::string& host) {
    const auto domain = list.registrableDomain(host);
    return domain ? domain->size() : 0;
  });
}
BENCHMARK(registrableDomain)->Apply(batches);

/// Without a string for the answer, as the normalizer asks.
void split(benchmark::State& state) {
  const PublicSuffixList& list = PublicSuffixList::fromResource();
  compare(state, psl_builtin(),
          [&list](const std::string& host) { return list.split(host)->registrableDomain.size(); });
}
BENCHMARK(split)->Apply(batches);

}  // namespace
}  // namespace stillow::benchmarks
