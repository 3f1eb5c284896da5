#include "StillowCore/DomainMatcher.hpp"

#include <algorithm>
#include <array>
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

/// A group's word holds the pilot in its lowest bits. Above them are the marks: a bit is cleared to
/// set one. Of the two of a hash one lies in the next 16 bits, one in those above.
constexpr unsigned pilotBits = SlotAssignment::pilotBits;
constexpr unsigned marksPerGroup = 64 - pilotBits;
constexpr std::uint64_t unmarkedGroup = ~std::uint64_t{0} << pilotBits;

/// By the topmost bits of the hash. A table, since shifting a bit twice takes longer.
constexpr unsigned markBits = 9;
constexpr std::array<std::uint64_t, std::size_t{1} << markBits> markPairs = [] {
  std::array<std::uint64_t, std::size_t{1} << markBits> table{};
  for (std::size_t i = 0; i < table.size(); ++i) {
    constexpr std::uint64_t one = 1;
    table[i] = one << (pilotBits + i % 16) | one << (pilotBits + 16 + i / 16);
  }
  return table;
}();
constexpr std::uint64_t marksOf(std::uint64_t hash) noexcept {
  return markPairs[hash >> (64 - markBits)];
}
constexpr bool isMarked(std::uint64_t group, std::uint64_t hash) noexcept {
  return (group & marksOf(hash)) == 0;
}

constexpr std::uint32_t finalDot = 0x8000'0000;
/// A "." that is the first of the last bytes: nothing is known of what stands before it.
constexpr std::uint32_t unclearDot = finalDot >> (Block::size - 1);
/// Bits below those of the cuts. Set, so that there is always one to find.
constexpr std::uint32_t noCuts = unclearDot - 1;

bool isAlwaysSeparator(std::size_t) noexcept { return true; }

/// Calls `visit` with the suffixes of a name in its composed form.
template <class Visit>
void forEachSuffixOfName(const SuffixHash& hash, std::string_view name, Visit visit) {
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

/// What stands in `left` of a slot where no block of a suffix has it: its lowest byte.
constexpr std::uint64_t freeSlot = 0xff;
constexpr std::uint64_t longName = 0xfe;

/// What a slot holds of a name: all of it, or its hash where it is longer than that.
Block blockOf(const Suffix& name) noexcept {
  return name.length < Block::size
             ? name.block
             : Block{.right = name.hash, .middle = name.length, .left = longName};
}

/// Whether `suffix`, ASCII or lower-cased and composed, is `name`.
bool isEqual(std::string_view suffix, std::string_view name) {
  if (suffix == name) return true;
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
  hostBytesMin_ = LastBytes::textBytesMin;
  while (!fill()) hash_ = hash_.successor();
}

void DomainMatcher::findLabelsMin() {
  labelsMin_ = 2;
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

  if (!SlotAssignment::assign(names, groups_)) return false;
  slotCount_ = SlotAssignment::slotsFor(names.size());
  slots_.assign(slotCount_, Slot{.block = {.left = freeSlot}});
  // Likewise for the slots.
  std::vector<std::uint32_t> places(names.size());
  std::ranges::transform(names, places.begin(), [&](std::uint64_t hash) {
    return static_cast<std::uint32_t>(slotOf(hash, groupOf(hash)));
  });
  forEachDomain(domains_, [&](const Domain& domain, std::size_t name) {
    forEachSuffixOfName(hash_, domain.name(), [&](const Suffix& suffix) {
      if (suffix.offset != 0) return;
      slots_[places[name]] = {blockOf(suffix), static_cast<std::uint32_t>(name)};
    });
  });
  return true;
}

void DomainMatcher::fillMarks(const Hashes& names, const Hashes& gates) {
  for (std::size_t count = std::bit_ceil(names.size() / 4 + 1);; count *= 2) {
    groups_.assign(count, unmarkedGroup);
    groupMask_ = count - 1;
    for (const auto hash : names) groups_[hash & groupMask_] &= ~marksOf(hash);
    for (const auto hash : gates) groups_[hash & groupMask_] &= ~marksOf(hash);
    std::size_t unmarked = 0;
    for (const auto group : groups_) unmarked += static_cast<std::size_t>(std::popcount(group));
    const double unmarkedMin = (1 - markDensityMax) * marksPerGroup * static_cast<double>(count);
    if (static_cast<double>(unmarked) >= unmarkedMin) return;
  }
}

inline std::uint64_t DomainMatcher::groupOf(std::uint64_t hash) const noexcept {
  return groups_[hash & groupMask_];
}

inline std::size_t DomainMatcher::slotOf(std::uint64_t hash, std::uint64_t group) const noexcept {
  return SlotAssignment::slotOf(hash, group, slotCount_);
}

bool DomainMatcher::matches(std::string_view host) const {
  if (host.size() < hostBytesMin_) return matchesInFull(host);
  const LastBytes bytes = LastBytes::of(host);
  if (!bytes.isASCII) return matchesInFull(host);
  if ((bytes.dots & finalDot) != 0) return matchesInFull(host);
  std::uint32_t cuts = (bytes.dots & ~unclearDot) | LastBytes::beginning(host.size()) | noCuts;
  if (labelsMin_ > 1) cuts = SuffixHash::withoutFirst(cuts);
  if (cuts <= noCuts) return host.size() >= Block::size && matchesInFull(host);
  // Whether a host is blocked cannot be foreseen, so there is no branch on it: only on whether a
  // longer suffix decides.
  const Probe first = probe(bytes, cuts);
  return first.decides ? first.isMarked : matchesLonger(host, cuts);
}

bool DomainMatcher::matchesLonger(std::string_view host, std::uint32_t cuts) const {
  const LastBytes bytes = LastBytes::of(host);
  std::size_t labels = labelsMin_ + 1;
  for (; labels <= gateLabelsMax; ++labels) {
    cuts = SuffixHash::withoutFirst(cuts);
    if (cuts <= noCuts) {
      // Longer suffixes remain, unless that was the whole host.
      if (host.size() < Block::size) return false;
      break;
    }
    const Probe next = probe(bytes, cuts);
    if (next.decides) return next.isMarked;
  }
  return matchesFrom(labels, host);
}

inline auto DomainMatcher::probe(const LastBytes& bytes, std::uint32_t cuts) const noexcept
    -> Probe {
  const Block block = SuffixHash::blockOf(bytes, SuffixHash::firstOf(cuts));
  const std::uint64_t hash = hash_.hashOf(block);
  const std::uint64_t group = groupOf(hash);
  const std::uint64_t ifMarked = isMarked(group, hash) ? ~std::uint64_t{0} : 0;
  // Where it is not marked, the first slot is read in vain: unlike the others it is near.
  const Slot& slot = slots_[slotOf(hash, group) & ifMarked];
  return {.isMarked = ifMarked != 0, .decides = (slot.block.difference(block) & ifMarked) == 0};
}

bool DomainMatcher::matchesInFull(std::string_view host) const {
  if (slots_.empty() || host.empty()) return false;
  return matchesFrom(labelsMin_, host);
}

bool DomainMatcher::matchesFrom(std::size_t labels, std::string_view host) const {
  if (text::isASCII(host)) {
    host.remove_suffix(host.back() == '.' ? 1 : 0);
    return matchesAnySuffix(host, labels, isAlwaysSeparator);
  }
  std::string composed = text::canonicallyComposed(text::lowercased(host));
  if (text::hasSuffix(composed, '.')) composed.pop_back();
  return matchesAnySuffix(composed, labelsMin_,
                          [&](std::size_t at) { return text::isWholeCharacter(composed, at); });
}

template <class IsSeparator>
bool DomainMatcher::matchesAnySuffix(std::string_view name, std::size_t labelsMin,
                                     IsSeparator isSeparator) const {
  bool isFound = false;
  hash_.forEachSuffix(name, labelsMin, isSeparator, [&](const Suffix& suffix) {
    const std::uint64_t group = groupOf(suffix.hash);
    if (!isMarked(group, suffix.hash)) return suffix.labels <= gateLabelsMax;
    const Slot& slot = slots_[slotOf(suffix.hash, group)];
    isFound = slot.block == blockOf(suffix) &&
              (suffix.length < Block::size ||
               isEqual(name.substr(suffix.offset), domains_.begin()[slot.name].name()));
    return isFound;
  });
  return isFound;
}

}  // namespace stillow::core
