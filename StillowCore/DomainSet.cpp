#include "StillowCore/DomainSet.hpp"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include "StillowCore/SumType.hpp"
#include "StillowCore/Text.hpp"

namespace stillow::core {

struct DomainSet::Storage {
  explicit Storage(std::vector<Domain> sortedAndUnique) noexcept
      : domains(std::move(sortedAndUnique)) {}

  const std::vector<Domain> domains;
  /// 0 until somebody asked. Two threads that ask at once store the same value.
  mutable std::atomic<std::size_t> hash{0};
};

namespace {

/// Sorts by keys made once. Comparing two names beyond ASCII composes both of them, and a sort
/// compares each name many times.
void sortByComposedName(std::vector<Domain>& domains) {
  struct Entry {
    std::string key;
    std::size_t index;
  };
  std::vector<Entry> entries;
  entries.reserve(domains.size());
  for (std::size_t i = 0; i < domains.size(); ++i) {
    entries.push_back({text::canonicallyComposed(domains[i].name()), i});
  }
  std::ranges::sort(entries, [](const Entry& left, const Entry& right) {
    return std::tie(left.key, left.index) < std::tie(right.key, right.index);
  });
  std::vector<Domain> sorted;
  sorted.reserve(domains.size());
  for (const auto& entry : entries) sorted.push_back(std::move(domains[entry.index]));
  domains = std::move(sorted);
}

bool isStrictlyAscendingASCII(const std::vector<Domain>& domains) {
  std::string_view previous;  // before every name, because none is empty
  for (const Domain& domain : domains) {
    const std::string_view name = domain.name();
    if (!text::isASCII(name) || previous >= name) return false;
    previous = name;
  }
  return true;
}

}  // namespace

DomainSet::DomainSet(std::vector<Domain> sortedAndUnique) {
  if (!sortedAndUnique.empty()) {
    storage_ = std::make_shared<const Storage>(std::move(sortedAndUnique));
  }
}

DomainSet DomainSet::of(std::vector<Domain> domains) {
  // The form that is stored and sent, so this is the usual end.
  if (isStrictlyAscendingASCII(domains)) return DomainSet(std::move(domains));
  const auto isNotBefore = [](const Domain& left, const Domain& right) { return !(left < right); };
  if (std::ranges::adjacent_find(domains, isNotBefore) == domains.end()) {
    return DomainSet(std::move(domains));
  }
  const auto isASCII = [](const Domain& domain) { return text::isASCII(domain.name()); };
  if (std::ranges::all_of(domains, isASCII)) {
    std::ranges::sort(domains, {}, [](const Domain& domain) { return domain.name(); });
  } else {
    sortByComposedName(domains);
  }
  const auto duplicates = std::ranges::unique(domains);
  domains.erase(duplicates.begin(), duplicates.end());
  domains.shrink_to_fit();
  return DomainSet(std::move(domains));
}

std::size_t DomainSet::size() const noexcept { return storage_ ? storage_->domains.size() : 0; }

DomainSet::const_iterator DomainSet::begin() const noexcept {
  return storage_ ? storage_->domains.data() : nullptr;
}

bool DomainSet::contains(const Domain& domain) const {
  return std::binary_search(begin(), end(), domain);
}

DomainSet DomainSet::united(const DomainSet& other) const {
  if (other.empty() || isSameSetAs(other)) return *this;
  if (empty()) return other;
  if (std::ranges::all_of(other, [this](const Domain& domain) { return contains(domain); })) {
    return *this;
  }
  std::vector<Domain> both;
  both.reserve(size() + other.size());
  std::ranges::set_union(*this, other, std::back_inserter(both));
  both.shrink_to_fit();
  return DomainSet(std::move(both));
}

bool DomainSet::isDisjoint(const DomainSet& other) const {
  const DomainSet& smaller = size() <= other.size() ? *this : other;
  const DomainSet& larger = size() <= other.size() ? other : *this;
  return std::ranges::none_of(smaller,
                              [&](const Domain& domain) { return larger.contains(domain); });
}

bool operator==(const DomainSet& left, const DomainSet& right) {
  if (left.isSameSetAs(right)) return true;
  if (left.size() != right.size()) return false;
  // Hashes that were made before settle most of the rest.
  if (!left.empty()) {
    const auto leftHash = left.storage_->hash.load(std::memory_order_relaxed);
    const auto rightHash = right.storage_->hash.load(std::memory_order_relaxed);
    if (leftHash != 0 && rightHash != 0 && leftHash != rightHash) return false;
  }
  return std::ranges::equal(left, right);
}

std::size_t DomainSet::hash() const {
  if (!storage_) return 0;
  if (const auto known = storage_->hash.load(std::memory_order_relaxed); known != 0) return known;
  std::size_t made = size();
  for (const Domain& domain : *this) hashInto(made, domain);
  if (made == 0) made = 1;  // 0 says "not made yet".
  storage_->hash.store(made, std::memory_order_relaxed);
  return made;
}

}  // namespace stillow::core
