#pragma once

#include <cstdint>
#include <functional>
#include <utility>
#include <variant>

#include "StillowCore/SumType.hpp"

namespace stillow::filtering {

/// What the evidence says about where a flow goes.
enum class FlowAttribution : std::uint8_t {
  scoped,        ///< to a blocked domain
  unscoped,      ///< to a known place that is not blocked
  ambiguous,     ///< to an address that blocked and other names share
  unattributed,  ///< nobody can tell
};

/// What is to be done with a flow.
struct FlowDisposition {
  /// Let it pass, look at its first bytes and ask again.
  struct allowUnderInspection {
    std::int64_t peekBytes;
    friend bool operator==(const allowUnderInspection&, const allowUnderInspection&) = default;
  };
  /// End it so that the client notices at once.
  struct drop {
    friend bool operator==(const drop&, const drop&) = default;
  };
  /// Let it pass and never ask again.
  struct allowAndRelease {
    friend bool operator==(const allowAndRelease&, const allowAndRelease&) = default;
  };

  using Cases = std::variant<allowUnderInspection, drop, allowAndRelease>;
  Cases cases;

  template <core::CaseOf<Cases> Case>
  constexpr FlowDisposition(Case disposition) : cases(std::move(disposition)) {}
  friend bool operator==(const FlowDisposition&, const FlowDisposition&) = default;
};

struct FlowClassification {
  FlowAttribution attribution;
  FlowDisposition disposition;

  friend bool operator==(const FlowClassification&, const FlowClassification&) = default;
};

/// The rule by which flows are judged: one is dropped only on positive evidence that it goes to a
/// blocked domain, and one without evidence is looked at for this long and then released.
struct EvidenceBoundedPolicy {
  static constexpr std::int64_t inspectionBytesMax = 4096;

  EvidenceBoundedPolicy() = delete;
};

}  // namespace stillow::filtering

template <>
struct std::hash<stillow::filtering::FlowDisposition> {
  std::size_t operator()(const stillow::filtering::FlowDisposition& disposition) const noexcept {
    using Disposition = stillow::filtering::FlowDisposition;
    const auto* const held = stillow::core::getIf<Disposition::allowUnderInspection>(disposition);
    std::size_t seed = disposition.cases.index();
    stillow::core::hashInto(seed, held == nullptr ? 0 : held->peekBytes);
    return seed;
  }
};

template <>
struct std::hash<stillow::filtering::FlowClassification> {
  std::size_t operator()(
      const stillow::filtering::FlowClassification& classification) const noexcept {
    auto seed = static_cast<std::size_t>(classification.attribution);
    stillow::core::hashInto(seed, classification.disposition);
    return seed;
  }
};
