#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "StillowAuthority/DiagnosticConnecting.hpp"
#include "StillowAuthority/SupervisionRoles.hpp"
#include "StillowAuthority/ValidationDomains.hpp"
#include "StillowConcurrency/OneShot.hpp"
#include "StillowConcurrency/Strand.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowCore/Date.hpp"
#include "StillowCore/EnforcementHealth.hpp"

namespace stillow::authority {

/// Proves blocking end to end: lends the filter a probe and sees whether the probed host, and only
/// that one, becomes unreachable.
///
/// A run is one unit; no two overlap. Who asks while one is under way waits for the next, and all
/// who asked meanwhile share it: a run that began before the question may have seen a state of
/// affairs that the question is about.
///
/// All operations may be called from any executor, but not from inside a turn of the authority.
class EnforcementValidator final : public EnforcementValidating,
                                   public EnforcementVerifying,
                                   public std::enable_shared_from_this<EnforcementValidator> {
 public:
  static constexpr double probeLifetimeSeconds = 20;

  struct Collaborators {
    std::shared_ptr<ValidationProbeLending> lender;
    std::shared_ptr<FilterPathReporting> path;
    std::shared_ptr<DiagnosticConnecting> connector;
    ValidationDomains domains;
    std::shared_ptr<ValidationRecording> recorder;  ///< receives every result; may be null
    std::chrono::nanoseconds timeout = std::chrono::seconds(5);  ///< for each connection
    core::WallClock clock;
  };

  [[nodiscard]] static std::shared_ptr<EnforcementValidator> make(
      const concurrency::Executor& executor, Collaborators collaborators);
  EnforcementValidator(const EnforcementValidator&) = delete;
  EnforcementValidator& operator=(const EnforcementValidator&) = delete;
  ~EnforcementValidator() override = default;

  [[nodiscard]] concurrency::Task<core::EnforcementValidation> validate() override;
  /// A validation, whatever the Scope.
  [[nodiscard]] concurrency::Task<EnforcementVerification> verify(std::int64_t scopeGeneration,
                                                                  core::DomainSet scope) override;

 private:
  using Self = std::shared_ptr<EnforcementValidator>;
  using Waiter = concurrency::OneShot<core::EnforcementValidation>;

  EnforcementValidator(const concurrency::Executor& executor, Collaborators collaborators);

  static concurrency::Task<core::EnforcementValidation> waitForRun(Self self);
  static concurrency::Task<EnforcementVerification> verifyByValidating(Self self);
  static concurrency::Task<void> runWhileWanted(Self self);
  static concurrency::Task<core::EnforcementValidation> run(Self self);
  static concurrency::Task<core::EnforcementValidation> connectBoth(Self self);

  concurrency::Strand serial_;
  const Collaborators with_;

  // Touched on the strand only.
  bool isRunning_ = false;
  std::vector<Waiter> waitingForNextRun_;
};

/// What a validation's result means for enforcement health.
[[nodiscard]] EnforcementVerification verification(core::EnforcementValidation validation) noexcept;

/// What the answers of the two hosts mean together.
[[nodiscard]] core::EnforcementValidation judgement(DiagnosticConnectionOutcome probed,
                                                    DiagnosticConnectionOutcome control) noexcept;

}  // namespace stillow::authority
