#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "StillowCore/Domain.hpp"

namespace stillow::benchmarks {

/// That many names of 20 letters, ascending.
inline std::vector<core::Domain> sampleDomains(std::size_t count) {
  std::vector<core::Domain> domains;
  domains.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    domains.push_back(*core::Domain::make("site" + std::to_string(10'000'000 + i) + ".example"));
  }
  return domains;
}

}  // namespace stillow::benchmarks
