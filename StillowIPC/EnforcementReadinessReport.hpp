#pragma once

#include <optional>
#include <utility>
#include <variant>

#include "StillowCore/Coding.hpp"
#include "StillowCore/Date.hpp"
#include "StillowCore/EnforcementHealth.hpp"
#include "StillowCore/SumType.hpp"

namespace stillow::ipc {

/// Why an activation is refused for want of a valid enforcement validation.
struct ActivationValidationRefusal {
  /// It passed, but not within the last 120 seconds; also when it is stamped in the future.
  struct validationStale {
    core::Date validatedAt;
    friend bool operator==(const validationStale&, const validationStale&) = default;
  };
  struct validationFailed {
    core::EnforcementValidationFailure failure;
    friend bool operator==(const validationFailed&, const validationFailed&) = default;
  };
  struct neverValidated {
    friend bool operator==(const neverValidated&, const neverValidated&) = default;
  };

  using Cases = std::variant<validationStale, validationFailed, neverValidated>;
  Cases cases;

  template <core::CaseOf<Cases> Case>
  ActivationValidationRefusal(Case refusal) : cases(std::move(refusal)) {}
  friend bool operator==(const ActivationValidationRefusal&,
                         const ActivationValidationRefusal&) = default;
};

/// Whether the filter is armed, and what the last end-to-end validation found.
struct EnforcementReadinessReport {
  /// How old, in seconds, a passed validation may be for an activation; 0 and this age still count.
  static constexpr double validationAgeMaxSeconds = 120;

  bool filterConfigurationIsEnabled = false;
  std::optional<core::EnforcementValidation> validation;  ///< absent: none has run
  std::optional<core::Date> validatedAt;                  ///< when that validation finished

  /// None: a Commitment may be activated at `now`.
  [[nodiscard]] std::optional<ActivationValidationRefusal> activationRefusal(core::Date now) const;

  friend bool operator==(const EnforcementReadinessReport&,
                         const EnforcementReadinessReport&) = default;
};

}  // namespace stillow::ipc

template <>
struct stillow::core::Coding<stillow::ipc::ActivationValidationRefusal> {
  using Refusal = ipc::ActivationValidationRefusal;
  static constexpr auto cases = coding::casesOf(
      coding::caseOf<Refusal::validationStale>(
          "validationStale", coding::field("validatedAt", &Refusal::validationStale::validatedAt)),
      coding::caseOf<Refusal::validationFailed>(
          "validationFailed", coding::field("_0", &Refusal::validationFailed::failure)),
      coding::caseOf<Refusal::neverValidated>("neverValidated"));
};

template <>
struct stillow::core::Coding<stillow::ipc::EnforcementReadinessReport> {
  using Report = ipc::EnforcementReadinessReport;
  static constexpr auto fields = coding::fieldsOf(
      coding::field("filterConfigurationIsEnabled", &Report::filterConfigurationIsEnabled),
      coding::field("validation", &Report::validation),
      coding::field("validatedAt", &Report::validatedAt));
};
