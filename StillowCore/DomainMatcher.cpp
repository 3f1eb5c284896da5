#include "StillowCore/DomainMatcher.hpp"

#include <algorithm>
#include <bit>
#include <limits>
#include <utility>

#include "StillowCore/Invariant.hpp"
#include "StillowCore/Text.hpp"

namespace stillow::core {

namespace {

using Letters = SuffixHash::Letters;
using Suffix = SuffixHash::Suffix;

/// Suffixes of up to this many labels are marked for each name that ends in them. Where such a
/// suffix of a host is not marked, no name ends in it and the look-up is over. Four reaches below
/// the longest common public suffixes, and bounds what one name with thousands of labels can cost.
constexpr std::size_t gateLabelsMax = 4;

/// The filter grows until at most this share of its bits is set: two bits of one name lie in one
/// word, so a suffix that is not marked passes by accident with the square of it.
constexpr double filterDensityMax = 0.25;

bool isAlwaysSeparator(std::size_t) noexcept { return true; }

/// Calls `visit` as `forEachSuffix` does for a name that may hold more than ASCII.
template <class Visit>
void forEachSuffixOfName(const SuffixHash& hash, std::string_view name, Visit visit) {
  if (text::isASCII(name)) {
    hash.forEachSuffix(name, isAlwaysSeparator, visit);
    return;
  }
  const std::string composed = text::canonicallyComposed(name);
  const auto isSeparator = [&](std::size_t at) { return text::isWholeCharacter(composed, at); };
  hash.forEachSuffix(composed, isSeparator, visit);
}

constexpr std::uint32_t tagOf(std::uint64_t hash) noexcept {
  return static_cast<std::uint32_t>(hash);
}

/// The top bits choose the slot, the lowest the filter's word: the tag overlaps only the latter.
std::size_t slotOf(std::uint64_t hash, std::size_t slotCount) noexcept {
  return static_cast<std::size_t>(hash >>
                                  (64U - static_cast<unsigned>(std::countr_zero(slotCount))));
}

constexpr std::uint64_t filterBits(std::uint64_t hash) noexcept {
  return std::uint64_t{1} << ((hash >> 26U) & 63U) | std::uint64_t{1} << ((hash >> 32U) & 63U);
}

}  // namespace

DomainMatcher::DomainMatcher(DomainSet domains)
    : domains_(std::move(domains)), hash_(SuffixHash::ofThisProcess()) {
  if (domains_.empty()) return;
  require(domains_.size() < std::numeric_limits<std::uint32_t>::max(), "too many domains to match");
  fillSlots();
  fillFilter();
}

void DomainMatcher::fillSlots() {
  // At most two thirds full, so that a probe seldom meets more than one other name.
  slots_.resize(std::bit_ceil(domains_.size() + domains_.size() / 2 + 1));
  labelsMin_ = std::numeric_limits<std::size_t>::max();
  std::uint32_t name = 0;
  for (const Domain& domain : domains_) {
    Suffix whole{};
    forEachSuffixOfName(hash_, domain.name(), [&](const Suffix& suffix) {
      whole = suffix;
      return false;
    });
    labelsMin_ = std::min(labelsMin_, whole.labels);
    std::size_t at = slotOf(whole.hash, slots_.size());
    while (slots_[at].name != 0) at = (at + 1) & (slots_.size() - 1);
    slots_[at] = {tagOf(whole.hash), ++name};
  }
}

void DomainMatcher::fillFilter() {
  for (std::size_t words = std::bit_ceil(domains_.size() / 8 + 1);; words *= 2) {
    filter_.assign(words, 0);
    for (const Domain& domain : domains_) {
      Suffix whole{};
      forEachSuffixOfName(hash_, domain.name(), [&](const Suffix& suffix) {
        if (suffix.labels >= labelsMin_ && suffix.labels <= gateLabelsMax) mark(suffix.hash);
        whole = suffix;
        return false;
      });
      mark(whole.hash);
    }
    std::size_t bits = 0;
    for (const std::uint64_t word : filter_) bits += static_cast<std::size_t>(std::popcount(word));
    if (static_cast<double>(bits) <= filterDensityMax * 64 * static_cast<double>(words)) return;
  }
}

void DomainMatcher::mark(std::uint64_t hash) noexcept {
  filter_[hash & (filter_.size() - 1)] |= filterBits(hash);
}

bool DomainMatcher::isMarked(std::uint64_t hash) const noexcept {
  const std::uint64_t bits = filterBits(hash);
  return (filter_[hash & (filter_.size() - 1)] & bits) == bits;
}

template <Letters letters, class IsSeparator, class IsEqual>
bool DomainMatcher::matchesAnySuffix(std::string_view host, IsSeparator isSeparator,
                                     IsEqual isEqual) const {
  bool isFound = false;
  hash_.forEachSuffix<letters>(host, isSeparator, [&](const Suffix& suffix) {
    if (suffix.labels < labelsMin_) return false;
    if (!isMarked(suffix.hash)) return suffix.labels <= gateLabelsMax;
    const std::size_t last = slots_.size() - 1;
    for (std::size_t at = slotOf(suffix.hash, slots_.size()); slots_[at].name != 0;
         at = (at + 1) & last) {
      if (slots_[at].tag != tagOf(suffix.hash)) continue;
      const Domain& domain = domains_.begin()[slots_[at].name - 1];
      if (isEqual(host.substr(suffix.offset), domain.name())) {
        isFound = true;
        return true;
      }
    }
    return false;
  });
  return isFound;
}

bool DomainMatcher::matches(std::string_view host) const {
  if (domains_.empty() || host.empty()) return false;
  if (!text::isASCII(host)) return matchesUnicode(host);
  if (host.ends_with('.')) host.remove_suffix(1);
  return matchesAnySuffix<Letters::lowerCased>(host, isAlwaysSeparator,
                                               SuffixHash::isEqualLowerCased);
}

bool DomainMatcher::matchesUnicode(std::string_view host) const {
  std::string composed = text::canonicallyComposed(text::lowercased(host));
  if (text::hasSuffix(composed, '.')) composed.pop_back();
  const auto isSeparator = [&](std::size_t at) { return text::isWholeCharacter(composed, at); };
  return matchesAnySuffix<Letters::asTheyAre>(composed, isSeparator,
                                              [](std::string_view suffix, std::string_view name) {
                                                return text::areCanonicallyEqual(suffix, name);
                                              });
}

}  // namespace stillow::core
