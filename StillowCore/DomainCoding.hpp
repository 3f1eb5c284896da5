#pragma once

#include <expected>
#include <string>
#include <utility>
#include <vector>

#include "StillowCore/Coding.hpp"
#include "StillowCore/Domain.hpp"
#include "StillowCore/DomainSet.hpp"

namespace stillow::core {

template <>
struct Coding<Domain> {
  using Underlying = std::string;
  static const std::string& raw(const Domain& domain) { return domain.name(); }
  static std::expected<Domain, std::string> refine(const std::string& name) {
    auto domain = Domain::make(name);
    if (!domain) return std::unexpected("Not a valid domain name: " + name);
    return std::move(*domain);
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
