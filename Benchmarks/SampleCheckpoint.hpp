#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "StillowAuthority/CommitmentCheckpoint.hpp"

namespace stillow::benchmarks {

/// A checkpoint of a Commitment with that many domains of 20 letters.
inline authority::CommitmentCheckpoint checkpointOf(std::size_t domainCount) {
  std::vector<core::Domain> domains;
  domains.reserve(domainCount);
  for (std::size_t i = 0; i < domainCount; ++i) {
    domains.push_back(*core::Domain::make("site" + std::to_string(10'000'000 + i) + ".example"));
  }
  return {.state = authority::AuthorityState::active{core::Commitment{
              .activatedAt = {816'458'820},
              .scope = {.generation = 1, .domains = core::DomainSet::of(std::move(domains))},
              .remainingDuration = 3'600}},
          .writtenAt = {816'458'820},
          .sequence = 1};
}

}  // namespace stillow::benchmarks
