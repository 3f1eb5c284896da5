#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "StillowIPC/DaemonError.hpp"
#include "StillowIPC/DaemonStatus.hpp"
#include "StillowIPC/Requests.hpp"

/// Records with known bytes.
namespace stillow::ipc::testing {

/// 2026-11-15 18:07:00 +0000.
inline constexpr core::Date moment{816'458'820};

inline core::Domain domain(std::string_view name) { return *core::Domain::make(std::string(name)); }

inline core::DomainSet domains(std::initializer_list<std::string_view> names) {
  std::vector<core::Domain> all;
  for (const auto name : names) all.push_back(domain(name));
  return core::DomainSet::of(std::move(all));
}

inline ActiveCommitmentStatus activeStatus() {
  return {.activatedAt = moment,
          .scopeGeneration = 3,
          .scope = domains({"a.example", "b.example"}),
          .remainingDuration = 1800.25,
          .projectedEndTime = {moment + 1800.25},
          .latestPermittedEndTime = moment + 86'400,
          .health = core::CommitmentHealth::healthy};
}

inline constexpr std::string_view activeStatusJSON =
    R"({"activatedAt":816458820,"scopeGeneration":3,"scope":["a.example","b.example"],)"
    R"("remainingDuration":1800.25,"projectedEndTime":{"date":816460620.25},)"
    R"("latestPermittedEndTime":816545220,"health":"healthy"})";

inline DaemonStatus idleStatus(core::Date observedAt = moment) {
  return {.observedAt = observedAt,
          .commitment = CommitmentStatus::idle{},
          .enforcement = core::EnforcementHealthStatus::healthy{},
          .readiness = {}};
}

inline DaemonStatus activeDaemonStatus() {
  return {
      .observedAt = moment,
      .commitment = CommitmentStatus::active{activeStatus()},
      .enforcement = core::EnforcementHealthStatus::degraded{core::DegradedReason::pathUnverified},
      .readiness = {.filterConfigurationIsEnabled = true,
                    .validation = core::EnforcementValidation::passed{},
                    .validatedAt = moment}};
}

}  // namespace stillow::ipc::testing
