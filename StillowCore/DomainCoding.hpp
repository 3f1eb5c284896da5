#pragma once

#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "StillowCore/Coding.hpp"
#include "StillowCore/Domain.hpp"
#include "StillowCore/DomainSet.hpp"

namespace stillow::core {

template <>
struct Coding<Domain> {
  static std::string_view raw(const Domain& domain) { return domain.name(); }
  static std::optional<Domain> refine(std::string_view name) { return Domain::make(name); }
  static std::string refusal(std::string_view name) {
    return "Not a valid domain name: " + std::string(name);
  }
};

/// An array of names; duplicates collapse.
template <>
struct Coding<DomainSet> {
  static std::expected<DomainSet, std::string> collect(std::vector<Domain> domains) {
    return DomainSet::of(std::move(domains));
  }
};

}  // namespace stillow::core
