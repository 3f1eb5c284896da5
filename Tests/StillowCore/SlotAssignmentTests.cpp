#include <bit>
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "StillowCore/SlotAssignment.hpp"

namespace stillow::core {
namespace {

std::vector<std::uint64_t> someHashes(std::size_t count) {
  std::mt19937_64 random(816'458'820 + count);
  std::vector<std::uint64_t> hashes(count);
  for (auto& hash : hashes) hash = random();
  return hashes;
}

TEST(SlotAssignment, givesEveryHashASlotOfItsOwn) {
  std::mt19937_64 random(816'458'820);
  for (const std::size_t count : {1U, 2U, 3U, 5U, 10U, 100U, 1'000U, 100'000U}) {
    const auto hashes = someHashes(count);
    for (const std::size_t groupCount :
         {std::size_t{1}, std::bit_ceil(count / 4 + 1), 4 * std::bit_ceil(count)}) {
      // Nobody asks for groups of a thousand: no number serves so many at once.
      if (count / groupCount > 10) continue;
      SCOPED_TRACE(testing::Message() << count << " hashes in " << groupCount << " groups");
      std::vector<std::uint64_t> groups(groupCount);
      // The caller's bits; they have to stay.
      for (auto& group : groups) group = random() << SlotAssignment::pilotBits;
      const auto before = groups;
      ASSERT_TRUE(SlotAssignment::assign(hashes, groups));
      for (std::size_t i = 0; i < groupCount; ++i) {
        ASSERT_EQ(groups[i] >> SlotAssignment::pilotBits, before[i] >> SlotAssignment::pilotBits);
      }
      std::vector<bool> isTaken(SlotAssignment::slotsFor(count));
      std::size_t shared = 0;
      for (const auto hash : hashes) {
        const auto group = groups[hash & (groupCount - 1)];
        const std::size_t slot = SlotAssignment::slotOf(hash, group, isTaken.size());
        ASSERT_LT(slot, isTaken.size());
        if (isTaken[slot]) ++shared;
        isTaken[slot] = true;
      }
      EXPECT_EQ(shared, 0U);
    }
  }
}

TEST(SlotAssignment, needsNoHashes) {
  std::vector<std::uint64_t> groups(1);
  EXPECT_TRUE(SlotAssignment::assign({}, groups));
}

TEST(SlotAssignment, refusesTwoEqualHashes) {
  auto hashes = someHashes(1'000);
  hashes[999] = hashes[17];
  std::vector<std::uint64_t> groups(256);
  EXPECT_FALSE(SlotAssignment::assign(hashes, groups));
}

}  // namespace
}  // namespace stillow::core
