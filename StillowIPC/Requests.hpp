#pragma once

#include <utility>
#include <variant>
#include <vector>

#include "StillowCore/Coding.hpp"
#include "StillowCore/CommitmentDuration.hpp"
#include "StillowCore/DomainCoding.hpp"
#include "StillowCore/ProjectedEndTime.hpp"
#include "StillowCore/Website.hpp"

namespace stillow::ipc {

struct ActivationRequest {
  core::CommitmentSelection selection;
  std::vector<core::Website> collectionSnapshot;  ///< what the selection is resolved against
  core::CommitmentDuration duration;

  friend bool operator==(const ActivationRequest&, const ActivationRequest&) = default;
};

/// What to add to the Scope of the running Commitment.
struct ScopeAddition {
  struct websites {
    core::DomainSet domains;
    friend bool operator==(const websites&, const websites&) = default;
  };
  struct selection {
    core::CommitmentSelection selected;
    std::vector<core::Website> collectionSnapshot;
    friend bool operator==(const selection&, const selection&) = default;
  };

  using Cases = std::variant<websites, selection>;
  Cases cases;

  template <core::CaseOf<Cases> Case>
  ScopeAddition(Case addition) : cases(std::move(addition)) {}
  friend bool operator==(const ScopeAddition&, const ScopeAddition&) = default;
};

struct ExtensionRequest {
  core::ProjectedEndTime newEndTime;

  friend bool operator==(const ExtensionRequest&, const ExtensionRequest&) = default;
};

}  // namespace stillow::ipc

template <>
struct stillow::core::Coding<stillow::ipc::ActivationRequest> {
  using Request = ipc::ActivationRequest;
  static constexpr auto fields =
      coding::fieldsOf(coding::field("selection", &Request::selection),
                       coding::field("collectionSnapshot", &Request::collectionSnapshot),
                       coding::field("duration", &Request::duration));
};

template <>
struct stillow::core::Coding<stillow::ipc::ScopeAddition> {
  using Addition = ipc::ScopeAddition;
  static constexpr auto cases = coding::casesOf(
      coding::caseOf<Addition::websites>("websites",
                                         coding::field("_0", &Addition::websites::domains)),
      coding::caseOf<Addition::selection>(
          "selection", coding::field("_0", &Addition::selection::selected),
          coding::field("collectionSnapshot", &Addition::selection::collectionSnapshot)));
};

template <>
struct stillow::core::Coding<stillow::ipc::ExtensionRequest> {
  static constexpr auto fields =
      coding::fieldsOf(coding::field("newEndTime", &ipc::ExtensionRequest::newEndTime));
};
