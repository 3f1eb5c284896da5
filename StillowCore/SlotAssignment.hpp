#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace stillow::core {

/// Gives each of a fixed set of hashes a slot that it shares with no other, so that a look-up reads
/// one slot and never searches.
///
/// The hashes are divided into small groups, and for each group a number is found, its pilot, that
/// sends all its hashes to slots that are free. The largest groups choose first, while nearly every
/// slot is; that leaves something for every group although five slots in six are taken in the end.
struct SlotAssignment {
  /// A group is a word whose lowest bits are the pilot. The others belong to the caller, who sets
  /// them before slots are assigned: they take part in choosing.
  static constexpr unsigned pilotBits = 16;

  /// How many slots `count` hashes are spread over.
  [[nodiscard]] static constexpr std::size_t slotsFor(std::size_t count) noexcept {
    return count + count / 5 + 1;
  }

  /// Sets the pilots, which must be 0. The group of a hash is its remainder by the number of
  /// groups, a power of two that should be about a quarter of the number of hashes. False if two
  /// hashes are the same; otherwise that is less likely than hashes of different names being the
  /// same.
  [[nodiscard]] static bool assign(std::span<const std::uint64_t> hashes,
                                   std::span<std::uint64_t> groups);

  /// For hashes outside of the set it is the slot of another, or of none.
  [[nodiscard]] static constexpr std::size_t slotOf(std::uint64_t hash, std::uint64_t group,
                                                    std::size_t slotCount) noexcept {
    __extension__ using Wide = unsigned __int128;
    // The product's upper half is the hash scaled to the number of slots.
    const std::uint64_t scattered = hash * (2 * group + 1);
    return static_cast<std::size_t>((static_cast<Wide>(scattered) * slotCount) >> 64U);
  }
};

}  // namespace stillow::core
