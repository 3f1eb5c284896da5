#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "StillowAuthority/AuthorityState.hpp"
#include "StillowCore/Coding.hpp"
#include "StillowCore/Date.hpp"

namespace stillow::authority {

/// The authority's state as it is written to disk.
struct CommitmentCheckpoint {
  AuthorityState state;
  core::Date writtenAt;
  /// 1 for the first one ever written, then one more with each that was saved.
  std::int64_t sequence = 1;

  friend bool operator==(const CommitmentCheckpoint&, const CommitmentCheckpoint&) = default;
};

}  // namespace stillow::authority

template <>
struct stillow::core::Coding<stillow::authority::CommitmentCheckpoint> {
  using Checkpoint = authority::CommitmentCheckpoint;
  static constexpr auto fields =
      coding::fieldsOf(coding::field("state", &Checkpoint::state),
                       coding::field("writtenAt", &Checkpoint::writtenAt),
                       coding::field("sequence", &Checkpoint::sequence));
};

template <>
struct std::hash<stillow::authority::CommitmentCheckpoint> {
  std::size_t operator()(
      const stillow::authority::CommitmentCheckpoint& checkpoint) const noexcept {
    std::size_t seed = std::hash<stillow::authority::AuthorityState>{}(checkpoint.state);
    stillow::core::hashInto(seed, checkpoint.writtenAt);
    stillow::core::hashInto(seed, checkpoint.sequence);
    return seed;
  }
};
