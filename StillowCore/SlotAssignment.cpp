#include "StillowCore/SlotAssignment.hpp"

#include <algorithm>
#include <numeric>
#include <vector>

namespace stillow::core {

namespace {

/// Takes a slot for each member; none if one of the slots is taken already.
bool takeSlots(std::span<const std::uint64_t> members, std::uint64_t group,
               std::vector<bool>& isTaken) {
  for (std::size_t i = 0; i < members.size(); ++i) {
    const std::size_t slot = SlotAssignment::slotOf(members[i], group, isTaken.size());
    if (!isTaken[slot]) {
      isTaken[slot] = true;
      continue;
    }
    while (i-- > 0) isTaken[SlotAssignment::slotOf(members[i], group, isTaken.size())] = false;
    return false;
  }
  return true;
}

}  // namespace

bool SlotAssignment::assign(std::span<const std::uint64_t> hashes,
                            std::span<std::uint64_t> groups) {
  const std::size_t groupCount = groups.size();
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
  for (const std::size_t group : largestFirst) {
    const auto members = std::span(byGroup).subspan(starts[group], sizeOf(group));
    std::uint64_t& word = groups[group];
    const std::uint64_t last = word | ((std::uint64_t{1} << pilotBits) - 1);
    while (!takeSlots(members, word, isTaken)) {
      if (word == last) return false;
      ++word;
    }
  }
  return true;
}

}  // namespace stillow::core
