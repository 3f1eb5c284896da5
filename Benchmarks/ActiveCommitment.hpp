#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "StillowAuthority/CommitmentCheckpoint.hpp"

namespace stillow::benchmarks {

inline constexpr core::Date activationDate{816'458'820.9330945};

inline std::vector<core::Domain> domains(std::size_t count) {
  std::vector<core::Domain> domains;
  domains.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    domains.push_back(*core::Domain::make("site" + std::to_string(10'000'000 + i) + ".example"));
  }
  return domains;
}

/// A Commitment over so many domains that has just begun.
inline authority::CommitmentCheckpoint activeCommitment(std::size_t domainCount) {
  return {.state = authority::AuthorityState::active{core::Commitment{
              .activatedAt = activationDate,
              .scope = {.generation = 1, .domains = core::DomainSet::of(domains(domainCount))},
              .remainingDuration = 86'400}},
          .writtenAt = activationDate,
          .sequence = 1};
}

}  // namespace stillow::benchmarks
