#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <utility>
#include <vector>

#include "PlatformLinuxFilter/FlowKey.hpp"
#include "StillowCore/Invariant.hpp"

namespace stillow::platform {

/// Values by flow, bounded in number and in age. All memory is taken at construction; the system
/// gives a place its pages when it is used first.
///
/// Each value lives for `lifetime` from its insertion, whatever happens to it meanwhile, so that a
/// flow cannot keep itself remembered. When the map is full the value inserted longest ago goes.
/// Whoever owns the map calls `takeExpired` and `makeRoom` and thereby sees every value that goes.
///
/// `Value` is movable and default constructible; a value that is gone is not destroyed until its
/// place is used again. Not synchronised.
template <class Value>
class BoundedFlowMap {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  struct Limits {
    std::size_t flowsMax = 0;  ///< at least 1
    std::chrono::steady_clock::duration lifetime{};
  };

  explicit BoundedFlowMap(Limits limits, FlowKeyHash hash = FlowKeyHash())
      : limits_(limits), hash_(hash) {
    core::require(limits.flowsMax > 0 && limits.flowsMax < none, "a flow map needs a size");
    std::size_t buckets = 1;
    while (buckets < limits.flowsMax) buckets *= 2;
    buckets_.assign(buckets, none);
    entries_.reserve(limits.flowsMax);
  }

  [[nodiscard]] std::size_t count() const noexcept { return count_; }
  [[nodiscard]] bool isFull() const noexcept { return count_ == limits_.flowsMax; }

  /// The value of a flow that has one and has not expired. Valid until the next change of the map.
  [[nodiscard]] Value* find(const FlowKey& key, TimePoint now) noexcept {
    const Index index = indexOf(key);
    if (index == none || isExpired(entries_[index], now)) return nullptr;
    return &entries_[index].value;
  }

  /// Puts a value in place for a flow that has none. Precondition: not full.
  Value& insert(const FlowKey& key, Value value, TimePoint now) {
    core::require(!isFull(), "flow map: no room was made");
    const Index index = freePlace();
    Entry& entry = entries_[index];
    entry.key = key;
    entry.insertedAt = now;
    entry.value = std::move(value);
    Index& bucket = bucketOf(key);
    entry.nextInBucket = std::exchange(bucket, index);
    entry.older = newest_;
    entry.newer = none;
    (newest_ == none ? oldest_ : entries_[newest_].newer) = index;
    newest_ = index;
    ++count_;
    return entry.value;
  }

  /// Takes the flow's value out, expired or not.
  std::optional<Value> take(const FlowKey& key) {
    const Index index = indexOf(key);
    if (index == none) return std::nullopt;
    return std::move(remove(index).value);
  }

  using Item = std::pair<FlowKey, Value>;

  /// Takes out one value that has expired, oldest first; none if none has.
  std::optional<Item> takeExpired(TimePoint now) {
    if (oldest_ == none || !isExpired(entries_[oldest_], now)) return std::nullopt;
    return takeOldest();
  }

  /// When full, takes out the oldest value.
  std::optional<Item> makeRoom() {
    if (!isFull()) return std::nullopt;
    return takeOldest();
  }

  /// Calls `isKept(key, value)` for each value, oldest first, and removes those that it refuses.
  template <class Predicate>
  void retain(Predicate&& isKept) {
    for (Index index = oldest_; index != none;) {
      Entry& entry = entries_[index];
      const Index following = entry.newer;
      if (!isKept(std::as_const(entry.key), entry.value)) remove(index);
      index = following;
    }
  }

 private:
  using Index = std::uint32_t;
  static constexpr Index none = std::numeric_limits<Index>::max();

  struct Entry {
    FlowKey key;
    TimePoint insertedAt{};
    Index nextInBucket = none;  ///< of a free entry: the next free one
    Index older = none;
    Index newer = none;
    Value value{};
  };

  [[nodiscard]] bool isExpired(const Entry& entry, TimePoint now) const noexcept {
    return now - entry.insertedAt >= limits_.lifetime;
  }

  [[nodiscard]] Index& bucketOf(const FlowKey& key) noexcept {
    return buckets_[hash_(key) & (buckets_.size() - 1)];
  }

  [[nodiscard]] Index indexOf(const FlowKey& key) noexcept {
    Index index = bucketOf(key);
    while (index != none && entries_[index].key != key) index = entries_[index].nextInBucket;
    return index;
  }

  /// One that was given back, if there is one: its memory is warm. Precondition: not full.
  Index freePlace() {
    if (free_ != none) return std::exchange(free_, entries_[free_].nextInBucket);
    entries_.emplace_back();  // within what was reserved: no entry moves
    return static_cast<Index>(entries_.size() - 1);
  }

  Item takeOldest() {
    Entry& entry = remove(oldest_);
    return {entry.key, std::move(entry.value)};
  }

  Entry& remove(Index index) noexcept {
    Entry& entry = entries_[index];
    Index* link = &bucketOf(entry.key);
    while (*link != index) link = &entries_[*link].nextInBucket;
    *link = entry.nextInBucket;
    (entry.older == none ? oldest_ : entries_[entry.older].newer) = entry.newer;
    (entry.newer == none ? newest_ : entries_[entry.newer].older) = entry.older;
    entry.nextInBucket = std::exchange(free_, index);
    --count_;
    return entry;
  }

  Limits limits_;
  FlowKeyHash hash_;
  std::vector<Entry> entries_;  ///< those that were ever used
  std::vector<Index> buckets_;
  Index free_ = none;
  Index oldest_ = none;
  Index newest_ = none;
  std::size_t count_ = 0;
};

}  // namespace stillow::platform
