#pragma once

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <vector>

#include "StillowCore/Domain.hpp"

namespace stillow::core {

/// An immutable set of domains, shared by all its copies and sorted.
///
/// A Scope can hold a million domains, and states that carry it are copied and compared all the
/// time: a copy costs one reference count, and comparison looks at identity first. Copies may be
/// used from several threads at once.
class DomainSet {
 public:
  using value_type = Domain;
  using const_iterator = const Domain*;
  using iterator = const_iterator;

  /// The empty set; allocates nothing.
  DomainSet() noexcept = default;
  DomainSet(std::initializer_list<Domain> domains) : DomainSet(of(domains)) {}
  /// Duplicates collapse into the first of them. Linear where `domains` is sorted already.
  [[nodiscard]] static DomainSet of(std::vector<Domain> domains);

  [[nodiscard]] std::size_t size() const noexcept;
  [[nodiscard]] bool empty() const noexcept { return storage_ == nullptr; }
  /// Ascending. Valid as long as any copy of the set lives.
  [[nodiscard]] const_iterator begin() const noexcept;
  [[nodiscard]] const_iterator end() const noexcept { return begin() + size(); }

  /// Logarithmic.
  [[nodiscard]] bool contains(const Domain& domain) const;
  /// All domains of both. The very same set where `other` adds nothing; of equal names this set's
  /// stay. Costs a search per domain of `other` when nothing is added, else one pass over both.
  [[nodiscard]] DomainSet united(const DomainSet& other) const;
  [[nodiscard]] bool isDisjoint(const DomainSet& other) const;

  /// Whether both are copies of one set. Says nothing about equality when false.
  [[nodiscard]] bool isSameSetAs(const DomainSet& other) const noexcept {
    return storage_ == other.storage_;
  }
  friend bool operator==(const DomainSet& left, const DomainSet& right);

  /// Computed once for all copies.
  [[nodiscard]] std::size_t hash() const;

 private:
  struct Storage;

  explicit DomainSet(std::vector<Domain> sortedAndUnique);

  std::shared_ptr<const Storage> storage_;
};

}  // namespace stillow::core

template <>
struct std::hash<stillow::core::DomainSet> {
  std::size_t operator()(const stillow::core::DomainSet& set) const { return set.hash(); }
};
