// The public suffix list, against libpsl over the same file: reading it, and the registrable domain
// of a host. libpsl's built-in list answers more slowly than one that it has read.

#include <cstddef>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>
#include <libpsl.h>

#include "Alternating.hpp"
#include "StillowCore/PublicSuffixList.hpp"
#include "StillowCore/ResourceBundle.hpp"

namespace stillow::benchmarks {
namespace {

using core::PublicSuffixList;
using core::ResourceBundle;

constexpr std::size_t hostCount = 1 << 14;

struct ReferenceDeleter {
  void operator()(psl_ctx_t* list) const noexcept { psl_free(list); }
};
using Reference = std::unique_ptr<psl_ctx_t, ReferenceDeleter>;

/// None where libpsl cannot read the file, or was built without IDNA.
Reference loadReference() { return Reference(psl_load_file(STILLOW_PUBLIC_SUFFIX_LIST)); }

ResourceBundle bundle() { return ResourceBundle::named("StillowCore_StillowCore"); }

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

/// The rules as hosts, and hosts below that show which kind of rule each is.
std::vector<std::string> hostsAroundRules(const PublicSuffixList& list) {
  std::vector<std::string> hosts;
  const auto wildcardParents = list.wildcardParents();
  for (const auto& rules : {list.exactRules(), wildcardParents, list.exceptionRules()}) {
    for (const auto& rule : rules) {
      for (const std::string_view below : {"", "a.", "www.b.", "x.www.c."}) {
        // For libpsl "*.ck" makes "ck" a public suffix too; by the list's own rules it does not.
        if (below.empty() && wildcardParents.contains(rule)) continue;
        hosts.push_back(std::string(below) + rule);
      }
    }
  }
  return hosts;
}

std::string_view answerOf(const psl_ctx_t* reference, const std::string& host) {
  const char* const domain = psl_registrable_domain(reference, host.c_str());
  return domain == nullptr ? std::string_view() : std::string_view(domain);
}

/// A host that the two answer differently.
std::optional<std::string> disagreement(const PublicSuffixList& list, const psl_ctx_t* reference,
                                        const std::vector<std::string>& hosts) {
  for (const auto& host : hosts) {
    if (list.registrableDomain(host).value_or("") != answerOf(reference, host)) return host;
  }
  return std::nullopt;
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
void compare(benchmark::State& state, const PublicSuffixList& list, Ours ours) {
  const Reference reference = loadReference();
  if (reference == nullptr) return state.SkipWithError("libpsl cannot read the list");
  const auto hosts = someHosts(list);
  if (const auto host = disagreement(list, reference.get(), hosts)) {
    return state.SkipWithError(("the two disagree about " + *host).c_str());
  }
  const auto theirs = [&](const std::string& host) {
    return answerOf(reference.get(), host).size();
  };
  for (const auto& host : hosts) {
    if (ours(host) != theirs(host)) return state.SkipWithError("the two disagree");
  }
  compareAlternating(state, Measure::processorTime, asking(hosts, ours), asking(hosts, theirs));
}

void registrableDomain(benchmark::State& state) {
  const PublicSuffixList& list = PublicSuffixList::fromResource();
  compare(state, list, [&list](const std::string& host) {
    const auto domain = list.registrableDomain(host);
    return domain ? domain->size() : 0;
  });
}
BENCHMARK(registrableDomain)->Apply(batches);

/// Without a string for the answer, as the normalizer asks.
void split(benchmark::State& state) {
  const PublicSuffixList& list = PublicSuffixList::fromResource();
  compare(state, list,
          [&list](const std::string& host) { return list.split(host)->registrableDomain.size(); });
}
BENCHMARK(split)->Apply(batches);

/// From the file to a list that can be asked, and back to nothing.
void parse(benchmark::State& state) {
  const ResourceBundle resources = bundle();
  {
    const Reference reference = loadReference();
    if (reference == nullptr) return state.SkipWithError("libpsl cannot read the list");
    const PublicSuffixList list = PublicSuffixList::fromResource(resources);
    if (const auto host = disagreement(list, reference.get(), hostsAroundRules(list))) {
      return state.SkipWithError(("the two disagree about " + *host).c_str());
    }
  }
  const auto ours = [&](std::size_t count) {
    for (; count > 0; --count) {
      benchmark::DoNotOptimize(PublicSuffixList::fromResource(resources));
    }
  };
  const auto theirs = [](std::size_t count) {
    for (; count > 0; --count) benchmark::DoNotOptimize(loadReference().get());
  };
  compareAlternating(state, Measure::processorTime, ours, theirs);
}
BENCHMARK(parse)->Apply(batches);

}  // namespace
}  // namespace stillow::benchmarks
