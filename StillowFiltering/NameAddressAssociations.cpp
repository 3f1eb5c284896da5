#include "StillowFiltering/NameAddressAssociations.hpp"

#include <algorithm>
#include <cstring>
#include <exception>
#include <random>
#include <utility>

#include "StillowCore/Text.hpp"

namespace stillow::filtering {

namespace {

std::array<std::uint64_t, 12> randomKey() {
  std::array<std::uint64_t, 12> key{};
  try {
    std::random_device device;
    for (std::uint64_t& part : key) part = std::uint64_t{device()} << 32U | device();
  } catch (const std::exception&) {
    // Without a source of randomness the buckets can be foreseen, which costs time and nothing
    // else.
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

bool isSameName(std::string_view left, std::string_view right) {
  if (left == right) return true;
  if (core::text::isASCII(left) && core::text::isASCII(right)) return false;
  return core::text::areCanonicallyEqual(left, right);
}

}  // namespace

/// Pair-multiply-shift: for any two addresses the odds of a collision are about 2^-32 over the
/// keys.
std::size_t NameAddressAssociations::KeyedHash::operator()(
    const FlowAddress& address) const noexcept {
  std::array<std::uint32_t, 12> words;
  static_assert(sizeof(words) == sizeof(address.storage()));
  std::memcpy(words.data(), address.storage().data(), sizeof(words));
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < words.size(); i += 2) {
    sum += (key[i] + words[i + 1]) * (key[i + 1] + words[i]);
  }
  return static_cast<std::size_t>(sum >> 32U);
}

NameAddressAssociations::NameAddressAssociations(Limits limits)
    : limits_(limits), entries_(0, KeyedHash{processKey()}) {}

void NameAddressAssociations::record(std::string_view name, const FlowAddress& address,
                                     core::Date now) {
  name = lowercased(name);
  if (const auto found = entries_.find(address); found != entries_.end()) {
    Entry& entry = found->second;
    unlink(entry);
    observe(entry.names, name, now);
    entry.lastObservedAt = now;
    link(entry);
    return;
  }

  auto spare = Entries::node_type{};
  if (entries_.size() >= bound(limits_.maximumAddresses)) {
    auto room = makeRoom(now);
    if (!room) return;
    spare = std::move(*room);
  }
  // A node that has just become free serves again, with the memory of its first name.
  Entries::iterator added;
  if (spare.empty()) {
    added = entries_.try_emplace(address).first;
  } else {
    spare.key() = address;
    added = entries_.insert(std::move(spare)).position;
  }
  Entry& entry = added->second;
  entry.address = &added->first;
  entry.names.resize(1);
  entry.names.front().name.assign(name);
  entry.names.front().observedAt = now;
  dropNamesOverLimit(entry.names);
  entry.lastObservedAt = now;
  link(entry);
}

std::vector<std::string> NameAddressAssociations::names(const FlowAddress& address,
                                                        core::Date now) const {
  std::vector<std::string> names;
  visitNames(address, now, [&](std::string_view name) { names.emplace_back(name); });
  return names;
}

void NameAddressAssociations::removeAll() noexcept {
  entries_.clear();
  earliest_ = nullptr;
  recent_ = nullptr;
}

std::string_view NameAddressAssociations::lowercased(std::string_view name) {
  const auto isLowercaseASCII = [](char c) {
    return core::text::isASCII(c) && core::text::lowercasedASCII(c) == c;
  };
  if (std::ranges::all_of(name, isLowercaseASCII)) return name;
  if (core::text::isASCII(name)) {
    lowercased_.assign(name);
    for (char& c : lowercased_) c = core::text::lowercasedASCII(c);
  } else {
    lowercased_ = core::text::lowercased(name);
  }
  return lowercased_;
}

void NameAddressAssociations::observe(std::vector<Observation>& names, std::string_view name,
                                      core::Date now) const {
  const auto known = std::ranges::find_if(
      names, [&](const Observation& observation) { return isSameName(observation.name, name); });
  if (known != names.end()) {
    std::rotate(known, known + 1, names.end());
    names.back().name.assign(name);
    names.back().observedAt = now;
  } else {
    names.push_back({.name = std::string(name), .observedAt = now});
    dropNamesOverLimit(names);
  }
}

void NameAddressAssociations::dropNamesOverLimit(std::vector<Observation>& names) const {
  const std::size_t namesMax = bound(limits_.maximumNamesPerAddress);
  if (names.size() <= namesMax) return;
  // They are all but sorted, unless the clock went back; and this keeps equal times in their order.
  for (auto next = names.begin(); next != names.end(); ++next) {
    const auto place = std::upper_bound(
        names.begin(), next, next->observedAt,
        [](core::Date time, const Observation& other) { return time < other.observedAt; });
    std::rotate(place, next, next + 1);
  }
  names.erase(names.begin(), names.end() - static_cast<std::ptrdiff_t>(namesMax));
}

std::optional<NameAddressAssociations::Entries::node_type> NameAddressAssociations::makeRoom(
    core::Date now) {
  auto room = std::make_optional<Entries::node_type>();
  const auto isStale = [&](core::Date observedAt) { return now - observedAt >= limits_.lifetime; };
  while (earliest_ != nullptr && isStale(earliest_->lastObservedAt)) *room = removeEarliest();
  // With such a lifetime the new entry is stale itself.
  if (isStale(now)) return std::nullopt;

  const std::size_t addressesMax = bound(limits_.maximumAddresses);
  if (addressesMax == 0) return std::nullopt;
  while (entries_.size() >= addressesMax) *room = removeEarliest();
  return room;
}

NameAddressAssociations::Entries::node_type NameAddressAssociations::removeEarliest() noexcept {
  Entry& entry = *earliest_;
  unlink(entry);
  const FlowAddress address = *entry.address;
  return entries_.extract(address);
}

void NameAddressAssociations::link(Entry& entry) noexcept {
  Entry* before = recent_;
  while (before != nullptr && before->lastObservedAt > entry.lastObservedAt) {
    before = before->earlier;
  }
  Entry* after = before == nullptr ? earliest_ : before->later;
  while (after != nullptr && !(after->lastObservedAt > entry.lastObservedAt)) {
    before = after;
    after = after->later;
  }
  entry.earlier = before;
  entry.later = after;
  (before == nullptr ? earliest_ : before->later) = &entry;
  if (after != nullptr) after->earlier = &entry;
  recent_ = &entry;
}

void NameAddressAssociations::unlink(Entry& entry) noexcept {
  (entry.earlier == nullptr ? earliest_ : entry.earlier->later) = entry.later;
  if (entry.later != nullptr) entry.later->earlier = entry.earlier;
  if (recent_ == &entry) recent_ = entry.earlier != nullptr ? entry.earlier : entry.later;
}

}  // namespace stillow::filtering
