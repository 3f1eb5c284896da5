#include "StillowCore/DomainMatcher.hpp"

#include <algorithm>
#include <bit>
#include <limits>
#include <utility>

#include "StillowCore/Invariant.hpp"
#include "StillowCore/Text.hpp"

namespace stillow::core {

namespace {

using Block = SuffixHash::Block;
using Suffix = SuffixHash::Suffix;

/// Suffixes of up to this many labels are marked for each name that ends in them. Where such a
/// suffix of a host is not marked, no name ends in it and the look-up is over. Four reaches below
/// the longest common public suffixes, and bounds what one name with thousands of labels can cost.
constexpr std::size_t gateLabelsMax = 4;

/// There are more groups until at most this share of the marks is set: each hash has two, so a
/// suffix that is not marked passes by accident with about the square of it.
constexpr double markDensityMax = 0.25;

/// A group's word holds the pilot in its lowest bits. Of the marks of a hash one lies in the next
/// 32 bits, one in those above.
constexpr unsigned pilotBits = std::numeric_limits<SlotAssignment::Pilot>::digits;
constexpr unsigned marksPerGroup = 64 - pilotBits;
constexpr std::uint64_t marksOf(std::uint64_t hash) noexcept {
  const std::uint64_t one = 1;
  return one << (pilotBits + (hash >> 59U)) | one << (pilotBits + 32 + (hash >> 55U) % pilotBits);
}
constexpr bool isMarked(std::uint64_t group, std::uint64_t hash) noexcept {
  return (group & marksOf(hash)) == marksOf(hash);
}

bool isAlwaysSeparator(std::size_t) noexcept { return true; }

/// Calls `visit` with the suffixes of a name in its composed form.
template <class Visit>
void forEachSuffixOfName(const SuffixHash& hash, const std::string& name, Visit visit) {
  const auto visitAll = [&](const Suffix& suffix) {
    visit(suffix);
    return false;
  };
  if (text::isASCII(name)) {
    hash.forEachSuffix(name, 1, isAlwaysSeparator, visitAll);
    return;
  }
  const std::string composed = text::canonicallyComposed(name);
  hash.forEachSuffix(
      composed, 1, [&](std::size_t at) { return text::isWholeCharacter(composed, at); }, visitAll);
}

/// Calls `visit` with each domain and its index. The texts of many names lie scattered, so those to
/// come are asked for in time.
template <class Visit>
void forEachDomain(const DomainSet& domains, Visit visit) {
  constexpr std::size_t ahead = 8;
  const Domain* const all = domains.begin();
  for (std::size_t i = 0; i < domains.size(); ++i) {
    if (i + ahead < domains.size()) __builtin_prefetch(all[i + ahead].name().data());
    visit(all[i], i);
  }
}

/// What a slot holds of a name: all of it, or its hash where it is longer than that.
Block blockOf(const Suffix& name) noexcept {
  return name.length < Block::size ? name.block : Block{.right = name.hash};
}

/// Whether `suffix`, ASCII or lower-cased and composed, is `name`.
bool isEqual(std::string_view suffix, const std::string& name) {
  if (!text::isASCII(name)) return suffix == text::canonicallyComposed(name);
  return std::ranges::equal(
      suffix, name, [](char left, char right) { return text::lowercasedASCII(left) == right; });
}

}  // namespace

DomainMatcher::DomainMatcher(DomainSet domains)
    : domains_(std::move(domains)), hash_(SuffixHash::ofThisProcess()) {
  if (domains_.empty()) return;
  require(domains_.size() < std::numeric_limits<std::uint32_t>::max(), "too many domains to match");
  findLabelsMin();
  while (!fill()) hash_ = hash_.successor();
}

void DomainMatcher::findLabelsMin() {
  labelsMin_ = std::numeric_limits<std::size_t>::max();
  forEachDomain(domains_, [&](const Domain& domain, std::size_t) {
    std::size_t labels = 0;
    forEachSuffixOfName(hash_, domain.name(),
                        [&](const Suffix& suffix) { labels = suffix.labels; });
    labelsMin_ = std::min(labelsMin_, labels);
  });
}

bool DomainMatcher::fill() {
  Hashes names;
  Hashes gates;
  names.reserve(domains_.size());
  forEachDomain(domains_, [&](const Domain& domain, std::size_t) {
    forEachSuffixOfName(hash_, domain.name(), [&](const Suffix& suffix) {
      if (suffix.offset == 0) {
        names.push_back(suffix.hash);
      } else if (suffix.labels >= labelsMin_ && suffix.labels <= gateLabelsMax) {
        gates.push_back(suffix.hash);
      }
    });
  });
  fillMarks(names, gates);

  const auto pilots = SlotAssignment::pilots(names, groups_.size());
  if (!pilots) return false;
  for (std::size_t i = 0; i < groups_.size(); ++i) groups_[i] |= (*pilots)[i];
  slotCount_ = SlotAssignment::slotsFor(names.size());
  slots_.assign(slotCount_, {});
  // Likewise for the slots.
  std::vector<std::uint32_t> places(names.size());
  std::ranges::transform(names, places.begin(), [&](std::uint64_t hash) {
    return static_cast<std::uint32_t>(slotOf(hash, groupOf(hash)));
  });
  forEachDomain(domains_, [&](const Domain& domain, std::size_t name) {
    forEachSuffixOfName(hash_, domain.name(), [&](const Suffix& suffix) {
      if (suffix.offset != 0) return;
      slots_[places[name]] = {blockOf(suffix), static_cast<std::uint32_t>(name),
                              static_cast<std::uint32_t>(suffix.length)};
    });
  });
  return true;
}

void DomainMatcher::fillMarks(const Hashes& names, const Hashes& gates) {
  for (std::size_t count = std::bit_ceil(names.size() / 4 + 1);; count *= 2) {
    groups_.assign(count, 0);
    groupMask_ = count - 1;
    for (const auto hash : names) groups_[hash & groupMask_] |= marksOf(hash);
    for (const auto hash : gates) groups_[hash & groupMask_] |= marksOf(hash);
    std::size_t marks = 0;
    for (const auto group : groups_) marks += static_cast<std::size_t>(std::popcount(group));
    const double marksMax = markDensityMax * marksPerGroup * static_cast<double>(count);
    if (static_cast<double>(marks) <= marksMax) return;
  }
}

inline std::uint64_t DomainMatcher::groupOf(std::uint64_t hash) const noexcept {
  return groups_[hash & groupMask_];
}

inline std::size_t DomainMatcher::slotOf(std::uint64_t hash, std::uint64_t group) const noexcept {
  return SlotAssignment::slotOf(hash, static_cast<SlotAssignment::Pilot>(group), slotCount_);
}

bool DomainMatcher::matches(std::string_view host) const {
  if (slots_.empty() || host.size() <= SuffixHash::hostBytesMin) return matchesInFull(host);
  std::string_view name = host;
  name.remove_suffix(host.back() == '.' ? 1 : 0);
  const SuffixHash::PlainEnd end = SuffixHash::plainEnd(name);
  if (!end.isPlain) return matchesInFull(host);
  std::size_t labels = 1;
  std::uint32_t cuts = end.cuts;
  for (; labels < labelsMin_; ++labels) cuts &= cuts - 1;
  for (; cuts != 0 && labels <= gateLabelsMax; ++labels, cuts &= cuts - 1) {
    const auto length = static_cast<std::size_t>(std::countr_zero(cuts));
    const Block block = SuffixHash::lastBlock(end, length);
    const std::uint64_t hash = hash_.hashOf(block, length);
    const std::uint64_t group = groupOf(hash);
    // Where nearly every look-up ends, since few hosts are blocked: nothing far has been read yet.
    if (!isMarked(group, hash)) return false;
    const Slot& slot = slots_[slotOf(hash, group)];
    if ((slot.length == length) & (slot.block == block)) return true;
  }
  // Longer suffixes remain, unless that was the whole host.
  return (cuts != 0 || name.size() >= Block::size) && matchesInFull(host);
}

bool DomainMatcher::matchesInFull(std::string_view host) const {
  if (slots_.empty() || host.empty()) return false;
  if (text::isASCII(host)) {
    host.remove_suffix(host.back() == '.' ? 1 : 0);
    return matchesAnySuffix(host, isAlwaysSeparator);
  }
  std::string composed = text::canonicallyComposed(text::lowercased(host));
  if (text::hasSuffix(composed, '.')) composed.pop_back();
  return matchesAnySuffix(composed,
                          [&](std::size_t at) { return text::isWholeCharacter(composed, at); });
}

template <class IsSeparator>
bool DomainMatcher::matchesAnySuffix(std::string_view name, IsSeparator isSeparator) const {
  bool isFound = false;
  hash_.forEachSuffix(name, labelsMin_, isSeparator, [&](const Suffix& suffix) {
    const std::uint64_t group = groupOf(suffix.hash);
    if (!isMarked(group, suffix.hash)) return suffix.labels <= gateLabelsMax;
    const Slot& slot = slots_[slotOf(suffix.hash, group)];
    isFound = slot.length == suffix.length && slot.block == blockOf(suffix) &&
              (suffix.length < Block::size ||
               isEqual(name.substr(suffix.offset), domains_.begin()[slot.name].name()));
    return isFound;
  });
  return isFound;
}

}  // namespace stillow::core
