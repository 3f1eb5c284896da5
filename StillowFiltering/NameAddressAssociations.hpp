#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "StillowCore/Date.hpp"
#include "StillowFiltering/FlowAddress.hpp"

namespace stillow::filtering {

/// Which host names were recently seen going to an address, so that a flow without a name can be
/// judged by the company its address keeps.
///
/// Bounded in age, in addresses and in names for each address. Which entry goes when the table is
/// full:
///  - first every entry whose latest observation is `lifetime` old or older,
///  - then those with the earliest latest observation; of two with the same, the one that was
///  recorded
///    longer ago; never the entry just recorded, even if the clock went back meanwhile.
/// Which name goes when an address has too many: the one observed earliest; of two with the same
/// time, the one that stands first. Bounds below 0 count as 0.
///
/// Not synchronised: the owner's lock guards it.
class NameAddressAssociations {
 public:
  struct Limits {
    double lifetime;  ///< seconds that an observation stays fresh
    std::int64_t maximumAddresses;
    std::int64_t maximumNamesPerAddress;

    friend bool operator==(const Limits&, const Limits&) = default;
  };

  /// For a filter of one machine. Names are remembered for about as long as resolvers keep an
  /// address, for as many addresses as a busy machine talks to in that time. Many names for each,
  /// because an address that is shared must not look as if only its blocked sites lived there.
  static constexpr Limits machineLimits{
      .lifetime = 900, .maximumAddresses = 10'000, .maximumNamesPerAddress = 32};

  explicit NameAddressAssociations(Limits limits);
  NameAddressAssociations(const NameAddressAssociations&) = delete;
  NameAddressAssociations& operator=(const NameAddressAssociations&) = delete;

  /// Remembers that `name`, in any letter case, was seen going to `address`. Constant time plus one
  /// pass over the address's names, in a full table too; allocates only for a name that is new
  /// there. Stops the process at four thousand million addresses.
  void record(std::string_view name, const FlowAddress& address, core::Date now);

  /// The names seen at `address` less than `lifetime` before `now`, in stored order: oldest first
  /// as long as the clock only goes forward.
  [[nodiscard]] std::vector<std::string> names(const FlowAddress& address, core::Date now) const;
  /// The same names without a copy: calls `visitor(std::string_view)` for each.
  template <class Visitor>
  void visitNames(const FlowAddress& address, core::Date now, Visitor&& visitor) const {
    if (limits_.maximumNamesPerAddress <= 0) return;
    const Place place = find(address, hashOf(address));
    if (place == nowhere) return;
    const auto& [newest, older] = entries_[place].names;
    for (const Observation& observation : older) {
      if (isFresh(observation.observedAt, now)) visitor(std::string_view(observation.name));
    }
    if (isFresh(newest.observedAt, now)) visitor(std::string_view(newest.name));
  }

  /// Addresses held, stale ones included: those leave when a limit is exceeded.
  [[nodiscard]] std::size_t count() const noexcept { return entries_.size() - freeCount_; }

  void removeAll() noexcept;

 private:
  /// Of an entry in `entries_`.
  using Place = std::uint32_t;
  static constexpr Place nowhere = 0xffff'ffff;
  using Hash = std::uint32_t;

  struct Observation {
    std::string name;
    core::Date observedAt;
  };
  /// In stored order: the older ones, then the newest, which most addresses have alone. Where no
  /// names are kept it means nothing.
  struct Names {
    Observation newest;
    std::vector<Observation> older;
  };

  /// All that is read of an address with one name lies in two neighbouring cache lines.
  struct alignas(128) Entry {
    explicit Entry(const FlowAddress& itsAddress) : address(itsAddress) {}

    FlowAddress address;
    core::Date lastObservedAt;
    /// Chain all entries by `lastObservedAt`, equal ones in order of recording.
    Place earlier = nowhere;
    Place later = nowhere;  ///< of a free entry the next free one
    Names names;
  };

  /// Where an entry is found: at the home of its hash, or behind others without a gap.
  struct Slot {
    Hash hash = 0;
    Place place = nowhere;  ///< `nowhere`: the slot is free
  };

  [[nodiscard]] bool isFresh(core::Date observedAt, core::Date now) const noexcept {
    return now - observedAt < limits_.lifetime;
  }
  /// `name` itself where it is in lower case, else a view of `lowercased_`.
  [[nodiscard]] std::string_view lowercased(std::string_view name);
  void observe(Entry& entry, std::string_view name, core::Date now) const;
  void dropNamesOverLimit(Names& names) const;

  [[nodiscard]] Hash hashOf(const FlowAddress& address) const noexcept;
  [[nodiscard]] std::size_t home(Hash hash) const noexcept { return hash & (slots_.size() - 1); }
  [[nodiscard]] std::size_t following(std::size_t slot) const noexcept {
    return (slot + 1) & (slots_.size() - 1);
  }
  [[nodiscard]] Place find(const FlowAddress& address, Hash hash) const noexcept {
    if (slots_.empty()) return nowhere;
    for (std::size_t at = home(hash);; at = following(at)) {
      const Slot slot = slots_[at];
      if (slot.place == nowhere) return nowhere;
      if (slot.hash == hash && entries_[slot.place].address == address) return slot.place;
    }
  }
  void enlargeSlots();
  void addSlot(Slot slot) noexcept;
  void removeSlot(Hash hash, Place place) noexcept;

  /// An entry that is found, and in the chain as soon as it is linked. It is without older names;
  /// its newest one and its times have to be set.
  [[nodiscard]] Place add(const FlowAddress& address, Hash hash);
  /// Removes what has to go from a full table so that an entry of `now` fits. False if nothing
  /// fits: the limits leave no room for any entry.
  [[nodiscard]] bool makeRoom(core::Date now);
  void removeEarliest() noexcept;
  void link(Place place) noexcept;
  void unlink(Place place) noexcept;

  Limits limits_;
  /// Keyed, because whoever owns a range of addresses could otherwise choose them to share a slot.
  std::array<std::uint64_t, 12> key_;
  std::vector<Entry> entries_;
  Place firstFree_ = nowhere;
  std::size_t freeCount_ = 0;
  std::vector<Slot> slots_;  ///< a power of two of them, or none
  Place earliest_ = nowhere;
  /// Where the last entry was linked in: the next one belongs beside it, also in the time after a
  /// clock that went back, when the latest entries lie in the future.
  Place recent_ = nowhere;
  std::string lowercased_;  ///< kept for its memory
};

}  // namespace stillow::filtering
