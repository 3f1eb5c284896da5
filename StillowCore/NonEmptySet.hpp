#pragma once

#include <algorithm>
#include <expected>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "StillowCore/Coding.hpp"

namespace stillow::core {

/// A set that holds at least one element; there is no way to make an empty one.
template <class Element>
class NonEmptySet {
 public:
  using value_type = Element;

  /// None for an empty collection. Duplicates collapse.
  [[nodiscard]] static std::optional<NonEmptySet> make(std::vector<Element> elements) {
    if (elements.empty()) return std::nullopt;
    std::ranges::sort(elements);
    const auto duplicates = std::ranges::unique(elements);
    elements.erase(duplicates.begin(), duplicates.end());
    return NonEmptySet(std::move(elements));
  }

  /// Sorted, without duplicates.
  [[nodiscard]] const std::vector<Element>& storage() const noexcept { return storage_; }
  [[nodiscard]] auto begin() const noexcept { return storage_.begin(); }
  [[nodiscard]] auto end() const noexcept { return storage_.end(); }
  [[nodiscard]] bool contains(const Element& element) const {
    return std::ranges::binary_search(storage_, element);
  }

  friend bool operator==(const NonEmptySet&, const NonEmptySet&) = default;

 private:
  explicit NonEmptySet(std::vector<Element> storage) : storage_(std::move(storage)) {}
  std::vector<Element> storage_;
};

template <class Element>
struct Coding<NonEmptySet<Element>> {
  static std::expected<NonEmptySet<Element>, std::string> collect(std::vector<Element> elements) {
    auto set = NonEmptySet<Element>::make(std::move(elements));
    if (!set) return std::unexpected("NonEmptySet cannot be decoded from an empty collection");
    return std::move(*set);
  }
};

}  // namespace stillow::core
