// Understanding what a user typed, against the one ICU call on its bare host that maps a name to
// ASCII: the ratio says what all the rest costs, from the parts of a URL to the public suffix list.

#include <array>
#include <cstddef>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>
#include <unicode/uidna.h>

#include "Alternating.hpp"
#include "StillowCore/DomainNormalizer.hpp"
#include "StillowCore/SumType.hpp"

namespace stillow::benchmarks {
namespace {

using core::DomainNormalizer;
using Result = core::DomainNormalizationResult;

struct TypedSite {
  std::string text;
  std::string host;  ///< the part of it that ICU maps
};

constexpr std::size_t siteCount = 512;

/// Sites as they are typed and copied: most of them bare names, some with capitals, every fourth a
/// whole URL. The first label is put together from `words`.
std::vector<TypedSite> sitesOf(std::span<const std::string_view> words) {
  constexpr std::array<std::string_view, 10> suffixes{"com", "com", "com",   "de",     "de",
                                                      "org", "net", "co.uk", "com.br", "fr"};
  constexpr std::array<std::string_view, 8> prefixes{"", "", "", "", "www.", "www.", "m.", "news."};
  constexpr std::array<std::string_view, 4> paths{"/", "/watch?v=dQw4w9WgXcQ", "/r/all/#top", ""};
  std::mt19937_64 random(86'400);
  const auto oneOf = [&](const auto& choices) { return choices[random() % choices.size()]; };
  std::vector<TypedSite> sites(siteCount);
  for (auto& site : sites) {
    site.host = oneOf(prefixes);
    site.host += oneOf(words);
    if (random() % 3 == 0) site.host.append("-").append(oneOf(words));
    site.host.append(".").append(oneOf(suffixes));
    // Somebody's capitals: of the first letter, as a phone makes them, or of all.
    const auto capitals = random() % 8;
    for (std::size_t i = 0; i < site.host.size() && capitals < 2; ++i) {
      const char c = site.host[i];
      if ((i == 0 || capitals == 1) && c >= 'a' && c <= 'z') {
        site.host[i] = static_cast<char>(c - 'a' + 'A');
      }
    }
    const bool isURL = random() % 4 == 0;
    site.text = isURL ? "https://" + site.host + std::string(oneOf(paths)) : site.host;
    if (random() % 16 == 0) site.text = " " + site.text + " ";
  }
  return sites;
}

class Mapping {
 public:
  Mapping() {
    UErrorCode status = U_ZERO_ERROR;
    idna_ = uidna_openUTS46(UIDNA_CHECK_BIDI | UIDNA_CHECK_CONTEXTJ |
                                UIDNA_NONTRANSITIONAL_TO_ASCII | UIDNA_NONTRANSITIONAL_TO_UNICODE,
                            &status);
  }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  ~Mapping() { uidna_close(idna_); }

  /// Empty on any error. Valid until the next call.
  std::string_view operator()(const std::string& host) {
    UIDNAInfo info = UIDNA_INFO_INITIALIZER;
    UErrorCode status = U_ZERO_ERROR;
    const int32_t length =
        uidna_nameToASCII_UTF8(idna_, host.data(), static_cast<int32_t>(host.size()), ascii_.data(),
                               static_cast<int32_t>(ascii_.size()), &info, &status);
    if (U_FAILURE(status) || info.errors != 0) return {};
    return {ascii_.data(), static_cast<std::size_t>(length)};
  }

 private:
  UIDNA* idna_ = nullptr;
  std::array<char, 256> ascii_{};
};

std::string_view nameOf(const Result& result) {
  return core::match(
      result, [](const Result::alreadyRegistrable& found) { return found.domain.name(); },
      [](const Result::normalizedToRegistrable& found) { return found.registrable.name(); },
      [](const Result::narrowerSubdomain& found) { return found.narrow.name(); });
}

/// The name that comes out is what ICU makes of the host, but for "www." before it.
bool areTheSame(const DomainNormalizer& normalizer, Mapping& mapping, const TypedSite& site) {
  const auto result = normalizer.normalize(site.text);
  if (!result) return false;
  std::string_view expected = mapping(site.host);
  if (expected.starts_with("www.")) expected.remove_prefix(4);
  return nameOf(*result) == expected;
}

void compare(benchmark::State& state, std::span<const std::string_view> words) {
  const DomainNormalizer normalizer{core::PublicSuffixList::fromResource()};
  Mapping mapping;
  const auto sites = sitesOf(words);
  for (const auto& site : sites) {
    if (!areTheSame(normalizer, mapping, site)) {
      return state.SkipWithError(("the two disagree about " + site.text).c_str());
    }
  }
  const auto ours = [&, next = std::size_t{0}](std::size_t count) mutable {
    for (; count > 0; --count) {
      benchmark::DoNotOptimize(normalizer.normalize(sites[next++ % siteCount].text));
    }
  };
  const auto theirs = [&, next = std::size_t{0}](std::size_t count) mutable {
    for (; count > 0; --count) benchmark::DoNotOptimize(mapping(sites[next++ % siteCount].host));
  };
  compareAlternating(state, Measure::processorTime, ours, theirs);
}

void ascii(benchmark::State& state) {
  constexpr std::array<std::string_view, 20> words{
      "example",  "news",  "video", "forum",  "shop",    "games",      "social",
      "mail",     "photo", "chat",  "stream", "weather", "travel",     "booking",
      "football", "maps",  "music", "recipe", "market",  "newspaper24"};
  compare(state, words);
}
BENCHMARK(ascii)->Apply(batches);

void umlauts(benchmark::State& state) {
  constexpr std::array<std::string_view, 20> words{
      "bücher",  "müller",     "grüne-wiese", "köln",   "düsseldorf",     "möbel",      "zürich",
      "fußball", "österreich", "spaß",        "größe",  "hörbuch",        "jürgen",     "käse",
      "mädchen", "nürnberg",   "präsent",     "rätsel", "schöner-wohnen", "übersetzung"};
  compare(state, words);
}
BENCHMARK(umlauts)->Apply(batches);

}  // namespace
}  // namespace stillow::benchmarks
