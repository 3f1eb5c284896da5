#pragma once

#include <cstddef>

#include "SampleDomains.hpp"
#include "StillowAuthority/CommitmentCheckpoint.hpp"

namespace stillow::benchmarks {

inline constexpr core::Date activationDate{816'458'820.9330945};

/// A Commitment over so many domains that has just begun.
inline authority::CommitmentCheckpoint activeCommitment(std::size_t domainCount) {
  return {
      .state = authority::AuthorityState::active{core::Commitment{
          .activatedAt = activationDate,
          .scope = {.generation = 1, .domains = core::DomainSet::of(sampleDomains(domainCount))},
          .remainingDuration = 86'400}},
      .writtenAt = activationDate,
      .sequence = 1};
}

}  // namespace stillow::benchmarks
