#pragma once

#include <cstdint>

#include "StillowAuthority/FilterConfiguring.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowCore/Date.hpp"
#include "StillowCore/DomainSet.hpp"
#include "StillowCore/EnforcementHealth.hpp"
#include "StillowCore/SumType.hpp"
#include "StillowFiltering/EnforcementDirective.hpp"

/// The small interfaces through which the parts of enforcement supervision reach one another. Each
/// has one production implementation. All operations may be called from any executor.
namespace stillow::authority {

/// Receives what went wrong with state, directive or filter.
class EnforcementFaultReporting {
 public:
  virtual ~EnforcementFaultReporting() = default;
  virtual concurrency::Task<void> reportFault(core::DegradedReason reason) = 0;
};

/// Told when something that health was waiting for may have come back.
class EnforcementRecoveryExpediting {
 public:
  virtual ~EnforcementRecoveryExpediting() = default;
  /// The next attempt to recover comes after the first delay at the latest, however far the delays
  /// have grown. Nothing happens while health is not degraded.
  virtual concurrency::Task<void> expediteRecovery() = 0;
};

/// Receives each validation's result with the date it was obtained.
class ValidationRecording {
 public:
  virtual ~ValidationRecording() = default;
  virtual concurrency::Task<void> record(core::EnforcementValidation validation,
                                         core::Date obtainedAt) = 0;
};

class FilterArmingReapplying {
 public:
  virtual ~FilterArmingReapplying() = default;
  /// Brings the system's filter configuration into step with what is wanted.
  virtual concurrency::Task<void> reapply() = 0;
};

class ValidationProbeLending {
 public:
  virtual ~ValidationProbeLending() = default;
  /// Gives the filter a probe. False: it could not be published, and none is lent.
  virtual concurrency::Task<bool> lend(filtering::ValidationProbe probe) = 0;
  /// Takes the probe back; without one nothing happens.
  virtual concurrency::Task<void> reclaim() = 0;
};

class FilterPathReporting {
 public:
  virtual ~FilterPathReporting() = default;
  /// What the system says now; all false if it could not be asked.
  virtual concurrency::Task<FilterPathReadiness> readiness() = 0;
};

class UserInterfacePresenceReporting {
 public:
  virtual ~UserInterfacePresenceReporting() = default;
  virtual concurrency::Task<void> setUserInterfaceRunning(bool isRunning) = 0;
};

class EnforcementValidating {
 public:
  virtual ~EnforcementValidating() = default;
  /// One end-to-end test that begins after this call. Every path ends in a result.
  virtual concurrency::Task<core::EnforcementValidation> validate() = 0;
};

/// Whether enforcement is proven, as the health supervisor sees it.
struct EnforcementVerification {
  struct unverified {
    core::DegradedReason reason;
    friend bool operator==(const unverified&, const unverified&) = default;
  };
  struct verified {
    friend bool operator==(const verified&, const verified&) = default;
  };

  using Cases = std::variant<unverified, verified>;
  Cases cases;

  template <core::CaseOf<Cases> Case>
  EnforcementVerification(Case verification) : cases(std::move(verification)) {}
  friend bool operator==(const EnforcementVerification&, const EnforcementVerification&) = default;
};

class EnforcementVerifying {
 public:
  virtual ~EnforcementVerifying() = default;
  /// `scopeGeneration` and `scope` are the active Commitment's; 0 and empty without one.
  virtual concurrency::Task<EnforcementVerification> verify(std::int64_t scopeGeneration,
                                                            core::DomainSet scope) = 0;
};

/// Charges the running time up to now, before something is ruled on that depends on it.
class RunningTimeSampling {
 public:
  virtual ~RunningTimeSampling() = default;
  virtual concurrency::Task<void> sampleNow() = 0;
  /// Seconds that have run and may not have been charged yet, such as a sleep that came behind the
  /// last sample. Any thread.
  [[nodiscard]] virtual double unchargedSeconds() const = 0;
};

}  // namespace stillow::authority
