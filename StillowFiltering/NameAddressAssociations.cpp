#include "StillowFiltering/NameAddressAssociations.hpp"

#include <algorithm>
#include <bit>
#include <cstring>
#include <exception>
#include <random>
#include <utility>

#include "StillowCore/Invariant.hpp"
#include "StillowCore/Text.hpp"

namespace stillow::filtering {

namespace {

std::array<std::uint64_t, 12> randomKey() {
  std::array<std::uint64_t, 12> key{};
  try {
    std::random_device device;
    for (std::uint64_t& part : key) part = std::uint64_t{device()} << 32U | device();
  } catch (const std::exception&) {
    // Without a source of randomness the slots can be foreseen, which costs time and nothing else.
    std::mt19937_64 generator;
    for (std::uint64_t& part : key) part = generator();
  }
  return key;
}

const std::array<std::uint64_t, 12>& processKey() {
  static const std::array<std::uint64_t, 12> key = randomKey();
  return key;
}

constexpr std::size_t bound(std::int64_t limit) noexcept {
  return limit > 0 ? static_cast<std::size_t>(limit) : 0;
}

/// Whether each byte is ASCII and no capital letter.
bool isLowercaseASCII(std::string_view text) noexcept {
  constexpr std::size_t wordBytes = 8;
  if (text.size() < wordBytes) {
    return std::ranges::all_of(
        text, [](char c) { return core::text::isASCII(c) && core::text::lowercasedASCII(c) == c; });
  }
  // Eight bytes at a time, the last ones a second time. A byte's highest bit is set in `fromA` from
  // "A" on and in `afterZ` behind "Z"; a carry comes only out of a byte that is no ASCII.
  constexpr std::uint64_t each = 0x0101'0101'0101'0101U;
  std::uint64_t offending = 0;
  for (std::size_t at = 0; at < text.size(); at += wordBytes) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data() + std::min(at, text.size() - wordBytes), wordBytes);
    const std::uint64_t fromA = word + each * (0x80 - 'A');
    const std::uint64_t afterZ = word + each * (0x80 - 'Z' - 1);
    offending |= word | (fromA & ~afterZ);
  }
  return (offending & each * 0x80) == 0;
}

bool isSameName(std::string_view left, std::string_view right) {
  if (left == right) return true;
  if (core::text::isASCII(left) && core::text::isASCII(right)) return false;
  return core::text::areCanonicallyEqual(left, right);
}

}  // namespace

/// Pair-multiply-shift: for any two addresses the odds of a collision are about 2^-32 over the
/// keys.
NameAddressAssociations::Hash NameAddressAssociations::hashOf(
    const FlowAddress& address) const noexcept {
  std::array<std::uint32_t, 12> words;
  static_assert(sizeof(words) == sizeof(address.storage()));
  std::memcpy(words.data(), address.storage().data(), sizeof(words));
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < words.size(); i += 2) {
    sum += (key_[i] + words[i + 1]) * (key_[i + 1] + words[i]);
  }
  return static_cast<Hash>(sum >> 32U);
}

NameAddressAssociations::NameAddressAssociations(Limits limits)
    : limits_(limits), key_(processKey()) {}

void NameAddressAssociations::record(std::string_view name, const FlowAddress& address,
                                     core::Date now) {
  name = lowercased(name);
  const Hash hash = hashOf(address);
  if (const Place place = find(address, hash); place != nowhere) {
    Entry& entry = entries_[place];
    unlink(place);
    observe(entry, name, now);
    entry.lastObservedAt = now;
    link(place);
    return;
  }

  if (count() >= bound(limits_.maximumAddresses) && !makeRoom(now)) return;
  const Place place = add(address, hash);
  Entry& entry = entries_[place];
  entry.names.newest.name.assign(name);
  entry.names.newest.observedAt = now;
  entry.lastObservedAt = now;
  link(place);
}

std::vector<std::string> NameAddressAssociations::names(const FlowAddress& address,
                                                        core::Date now) const {
  std::vector<std::string> names;
  visitNames(address, now, [&](std::string_view name) { names.emplace_back(name); });
  return names;
}

void NameAddressAssociations::removeAll() noexcept {
  entries_ = {};
  firstFree_ = nowhere;
  freeCount_ = 0;
  slots_ = {};
  earliest_ = nowhere;
  recent_ = nowhere;
}

std::string_view NameAddressAssociations::lowercased(std::string_view name) {
  if (isLowercaseASCII(name)) return name;
  if (core::text::isASCII(name)) {
    lowercased_.assign(name);
    for (char& c : lowercased_) c = core::text::lowercasedASCII(c);
  } else {
    lowercased_ = core::text::lowercased(name);
  }
  return lowercased_;
}

void NameAddressAssociations::observe(Entry& entry, std::string_view name, core::Date now) const {
  auto& [newest, older] = entry.names;
  if (!isSameName(newest.name, name)) {
    const auto known = std::ranges::find_if(
        older, [&](const Observation& observation) { return isSameName(observation.name, name); });
    if (known != older.end()) {
      std::rotate(known, known + 1, older.end());
      std::swap(older.back(), newest);
    } else {
      older.push_back(std::exchange(newest, {}));
    }
  }
  newest.name.assign(name);
  newest.observedAt = now;
  dropNamesOverLimit(entry.names);
}

void NameAddressAssociations::dropNamesOverLimit(Names& names) const {
  auto& [newest, older] = names;
  const std::size_t namesMax = bound(limits_.maximumNamesPerAddress);
  if (older.size() < namesMax) return;
  older.push_back(std::move(newest));
  // They are all but sorted, unless the clock went back; and this keeps equal times in their order.
  for (auto next = older.begin(); next != older.end(); ++next) {
    const auto place = std::upper_bound(
        older.begin(), next, next->observedAt,
        [](core::Date time, const Observation& other) { return time < other.observedAt; });
    std::rotate(place, next, next + 1);
  }
  older.erase(older.begin(), older.end() - static_cast<std::ptrdiff_t>(namesMax));
  newest = {};
  if (older.empty()) return;
  newest = std::move(older.back());
  older.pop_back();
}

NameAddressAssociations::Place NameAddressAssociations::add(const FlowAddress& address, Hash hash) {
  // At most two slots in three are taken, so that searches end soon.
  if (slots_.size() * 2 < (count() + 1) * 3) enlargeSlots();
  Place place = firstFree_;
  if (place == nowhere) {
    core::require(entries_.size() < nowhere, "too many addresses to remember");
    place = static_cast<Place>(entries_.size());
    entries_.emplace_back(address);
  } else {
    // What was freed serves again, with the memory of its last name.
    firstFree_ = entries_[place].later;
    --freeCount_;
    entries_[place].address = address;
  }
  addSlot({hash, place});
  return place;
}

bool NameAddressAssociations::makeRoom(core::Date now) {
  const auto isStale = [&](core::Date observedAt) { return now - observedAt >= limits_.lifetime; };
  while (earliest_ != nowhere && isStale(entries_[earliest_].lastObservedAt)) removeEarliest();
  // With such a lifetime the new entry is stale itself.
  if (isStale(now)) return false;

  const std::size_t addressesMax = bound(limits_.maximumAddresses);
  if (addressesMax == 0) return false;
  while (count() >= addressesMax) removeEarliest();
  return true;
}

void NameAddressAssociations::removeEarliest() noexcept {
  const Place place = earliest_;
  Entry& entry = entries_[place];
  unlink(place);
  removeSlot(hashOf(entry.address), place);
  entry.names.older.clear();
  entry.later = std::exchange(firstFree_, place);
  ++freeCount_;
}

void NameAddressAssociations::enlargeSlots() {
  std::vector<Slot> smaller(std::max<std::size_t>(slots_.size() * 2, 16));
  smaller.swap(slots_);
  for (const Slot& slot : smaller) {
    if (slot.place != nowhere) addSlot(slot);
  }
}

void NameAddressAssociations::addSlot(Slot slot) noexcept {
  std::size_t at = home(slot.hash);
  while (slots_[at].place != nowhere) at = following(at);
  slots_[at] = slot;
}

void NameAddressAssociations::removeSlot(Hash hash, Place place) noexcept {
  std::size_t gap = home(hash);
  while (slots_[gap].place != place) gap = following(gap);
  // What lies behind moves up, unless that were before its home: no search may meet a gap.
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t at = following(gap); slots_[at].place != nowhere; at = following(at)) {
    const std::size_t fromHome = (at - home(slots_[at].hash)) & mask;
    const std::size_t fromGap = (at - gap) & mask;
    if (fromHome < fromGap) continue;
    slots_[gap] = slots_[at];
    gap = at;
  }
  slots_[gap] = {};
}

void NameAddressAssociations::link(Place place) noexcept {
  Entry& entry = entries_[place];
  const auto isLater = [&](Place other) {
    return entries_[other].lastObservedAt > entry.lastObservedAt;
  };
  Place before = recent_;
  while (before != nowhere && isLater(before)) before = entries_[before].earlier;
  Place after = before == nowhere ? earliest_ : entries_[before].later;
  while (after != nowhere && !isLater(after)) {
    before = after;
    after = entries_[after].later;
  }
  entry.earlier = before;
  entry.later = after;
  (before == nowhere ? earliest_ : entries_[before].later) = place;
  if (after != nowhere) entries_[after].earlier = place;
  recent_ = place;
}

void NameAddressAssociations::unlink(Place place) noexcept {
  const auto [earlier, later] = std::pair(entries_[place].earlier, entries_[place].later);
  (earlier == nowhere ? earliest_ : entries_[earlier].later) = later;
  if (later != nowhere) entries_[later].earlier = earlier;
  if (recent_ == place) recent_ = earlier != nowhere ? earlier : later;
}

}  // namespace stillow::filtering
