#pragma once

#include <cstdint>
#include <functional>
#include <utility>
#include <variant>

#include "StillowCore/ActivationBoundary.hpp"
#include "StillowCore/Coding.hpp"
#include "StillowCore/Commitment.hpp"
#include "StillowCore/Date.hpp"
#include "StillowCore/DomainCoding.hpp"
#include "StillowCore/EnforcementHealth.hpp"
#include "StillowCore/ProjectedEndTime.hpp"
#include "StillowIPC/EnforcementReadinessReport.hpp"

namespace stillow::ipc {

struct ActiveCommitmentStatus {
  core::Date activatedAt;
  std::int64_t scopeGeneration = 1;
  core::DomainSet scope;
  double remainingDuration = 0;             ///< seconds of counted time still to run
  core::ProjectedEndTime projectedEndTime;  ///< from the status's moment and the remainder
  core::Date latestPermittedEndTime;        ///< past which no extension may go
  core::CommitmentHealth health = core::CommitmentHealth::degraded;

  [[nodiscard]] static ActiveCommitmentStatus of(const core::Commitment& commitment,
                                                 core::Date now) {
    return {.activatedAt = commitment.activatedAt,
            .scopeGeneration = commitment.scope.generation,
            .scope = commitment.scope.domains,
            .remainingDuration = commitment.remainingDuration,
            .projectedEndTime = commitment.projectedEndTime(now),
            .latestPermittedEndTime = commitment.boundary().latestPermittedEndTime(),
            .health = commitment.health};
  }

  friend bool operator==(const ActiveCommitmentStatus&, const ActiveCommitmentStatus&) = default;
};

struct CommitmentStatus {
  struct active {
    ActiveCommitmentStatus status;
    friend bool operator==(const active&, const active&) = default;
  };
  /// Its time ran out at `endedAt`; a client is still to acknowledge it.
  struct expired {
    core::Date endedAt;
    friend bool operator==(const expired&, const expired&) = default;
  };
  struct idle {
    friend bool operator==(const idle&, const idle&) = default;
  };

  using Cases = std::variant<active, expired, idle>;
  Cases cases;

  template <core::CaseOf<Cases> Case>
  CommitmentStatus(Case status) : cases(std::move(status)) {}
  friend bool operator==(const CommitmentStatus&, const CommitmentStatus&) = default;
};

/// The answer to every operation and the payload of every push: the whole truth at one moment.
struct DaemonStatus {
  core::Date observedAt;
  CommitmentStatus commitment = CommitmentStatus::idle{};
  core::EnforcementHealthStatus enforcement = core::EnforcementHealthStatus::healthy{};
  EnforcementReadinessReport readiness;

  /// Null unless a Commitment is active. Valid as long as this status.
  [[nodiscard]] const ActiveCommitmentStatus* active() const noexcept {
    const auto* const held = core::getIf<CommitmentStatus::active>(commitment);
    return held == nullptr ? nullptr : &held->status;
  }

  friend bool operator==(const DaemonStatus&, const DaemonStatus&) = default;
};

}  // namespace stillow::ipc

template <>
struct stillow::core::Coding<stillow::ipc::ActiveCommitmentStatus> {
  using Status = ipc::ActiveCommitmentStatus;
  static constexpr auto fields =
      coding::fieldsOf(coding::field("activatedAt", &Status::activatedAt),
                       coding::field("scopeGeneration", &Status::scopeGeneration),
                       coding::field("scope", &Status::scope),
                       coding::field("remainingDuration", &Status::remainingDuration),
                       coding::field("projectedEndTime", &Status::projectedEndTime),
                       coding::field("latestPermittedEndTime", &Status::latestPermittedEndTime),
                       coding::field("health", &Status::health));
};

template <>
struct stillow::core::Coding<stillow::ipc::CommitmentStatus> {
  using Status = ipc::CommitmentStatus;
  static constexpr auto cases = coding::casesOf(
      coding::caseOf<Status::active>("active", coding::field("_0", &Status::active::status)),
      coding::caseOf<Status::expired>("expired",
                                      coding::field("endedAt", &Status::expired::endedAt)),
      coding::caseOf<Status::idle>("idle"));
};

template <>
struct stillow::core::Coding<stillow::ipc::DaemonStatus> {
  using Status = ipc::DaemonStatus;
  static constexpr auto fields =
      coding::fieldsOf(coding::field("observedAt", &Status::observedAt),
                       coding::field("commitment", &Status::commitment),
                       coding::field("enforcement", &Status::enforcement),
                       coding::field("readiness", &Status::readiness));
};
