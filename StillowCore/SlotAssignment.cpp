#include "StillowCore/SlotAssignment.hpp"

#include <algorithm>
#include <limits>
#include <numeric>

namespace stillow::core {

namespace {

/// Takes a slot for each member; none if one of the slots is taken already.
bool takeSlots(std::span<const std::uint64_t> members, SlotAssignment::Pilot pilot,
               std::vector<bool>& isTaken) {
  for (std::size_t i = 0; i < members.size(); ++i) {
    const std::size_t slot = SlotAssignment::slotOf(members[i], pilot, isTaken.size());
    if (!isTaken[slot]) {
      isTaken[slot] = true;
      continue;
    }
    while (i-- > 0) isTaken[SlotAssignment::slotOf(members[i], pilot, isTaken.size())] = false;
    return false;
  }
  return true;
}

}  // namespace

auto SlotAssignment::pilots(std::span<const std::uint64_t> hashes, std::size_t groupCount)
    -> std::optional<std::vector<Pilot>> {
  const auto groupOf = [groupCount](std::uint64_t hash) { return hash & (groupCount - 1); };
  std::vector<std::size_t> starts(groupCount + 1);
  for (const std::uint64_t hash : hashes) ++starts[groupOf(hash) + 1];
  std::partial_sum(starts.begin(), starts.end(), starts.begin());
  std::vector<std::uint64_t> byGroup(hashes.size());
  for (auto next = starts; const std::uint64_t hash : hashes) byGroup[next[groupOf(hash)]++] = hash;

  const auto sizeOf = [&](std::size_t group) { return starts[group + 1] - starts[group]; };
  std::vector<std::size_t> largestFirst(groupCount);
  std::iota(largestFirst.begin(), largestFirst.end(), std::size_t{0});
  std::ranges::sort(largestFirst, std::greater(), sizeOf);

  std::vector<bool> isTaken(slotsFor(hashes.size()));
  std::vector<Pilot> pilots(groupCount);
  for (const std::size_t group : largestFirst) {
    const auto members = std::span(byGroup).subspan(starts[group], sizeOf(group));
    Pilot& pilot = pilots[group];
    while (!takeSlots(members, pilot, isTaken)) {
      if (pilot == std::numeric_limits<Pilot>::max()) return std::nullopt;
      ++pilot;
    }
  }
  return pilots;
}

}  // namespace stillow::core
