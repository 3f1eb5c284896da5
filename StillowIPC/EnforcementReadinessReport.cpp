#include "StillowIPC/EnforcementReadinessReport.hpp"

namespace stillow::ipc {

std::optional<ActivationValidationRefusal> EnforcementReadinessReport::activationRefusal(
    core::Date now) const {
  using Refusal = ActivationValidationRefusal;
  if (!validation) return Refusal::neverValidated{};
  if (const auto* const failed = core::getIf<core::EnforcementValidation::failed>(*validation)) {
    return Refusal::validationFailed{failed->failure};
  }
  if (!validatedAt) return Refusal::neverValidated{};
  const double age = now - *validatedAt;
  // Closed at both ends on purpose: a validation from the future says that the clock was set back.
  if (age >= 0 && age <= validationAgeMaxSeconds) return std::nullopt;
  return Refusal::validationStale{*validatedAt};
}

}  // namespace stillow::ipc
