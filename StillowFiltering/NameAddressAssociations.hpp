#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
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
  /// there.
  void record(std::string_view name, const FlowAddress& address, core::Date now);

  /// The names seen at `address` less than `lifetime` before `now`, in stored order: oldest first
  /// as long as the clock only goes forward.
  [[nodiscard]] std::vector<std::string> names(const FlowAddress& address, core::Date now) const;
  /// The same names without a copy: calls `visitor(std::string_view)` for each.
  template <class Visitor>
  void visitNames(const FlowAddress& address, core::Date now, Visitor&& visitor) const {
    if (entries_.empty()) return;
    const auto found = entries_.find(address);
    if (found == entries_.end()) return;
    for (const Observation& observation : found->second.names) {
      if (isFresh(observation.observedAt, now)) visitor(std::string_view(observation.name));
    }
  }

  /// Addresses held, stale ones included: those leave when a limit is exceeded.
  [[nodiscard]] std::size_t count() const noexcept { return entries_.size(); }

  void removeAll() noexcept;

 private:
  struct Observation {
    std::string name;
    core::Date observedAt;
  };

  /// `earlier` and `later` chain all entries by `lastObservedAt`, equal ones in order of recording.
  struct Entry {
    std::vector<Observation> names;
    core::Date lastObservedAt;
    const FlowAddress* address = nullptr;
    Entry* earlier = nullptr;
    Entry* later = nullptr;
  };

  /// Keyed, because whoever owns a range of addresses could otherwise choose them to share a
  /// bucket.
  struct KeyedHash {
    std::array<std::uint64_t, 12> key;
    std::size_t operator()(const FlowAddress& address) const noexcept;
  };

  using Entries = std::unordered_map<FlowAddress, Entry, KeyedHash>;

  [[nodiscard]] bool isFresh(core::Date observedAt, core::Date now) const noexcept {
    return now - observedAt < limits_.lifetime;
  }
  /// `name` itself where it is in lower case, else a view of `lowercased_`.
  [[nodiscard]] std::string_view lowercased(std::string_view name);
  void observe(std::vector<Observation>& names, std::string_view name, core::Date now) const;
  void dropNamesOverLimit(std::vector<Observation>& names) const;
  /// Removes what has to go from a full table so that an entry of `now` fits, and gives the last
  /// node it removed. None if nothing fits: the limits leave no room for any entry.
  [[nodiscard]] std::optional<Entries::node_type> makeRoom(core::Date now);
  Entries::node_type removeEarliest() noexcept;
  void link(Entry& entry) noexcept;
  void unlink(Entry& entry) noexcept;

  Limits limits_;
  Entries entries_;
  Entry* earliest_ = nullptr;
  /// Where the last entry was linked in: the next one belongs beside it, also in the time after a
  /// clock that went back, when the latest entries lie in the future.
  Entry* recent_ = nullptr;
  std::string lowercased_;  ///< kept for its memory
};

}  // namespace stillow::filtering
