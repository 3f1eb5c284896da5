#pragma once

#include "StillowAuthority/SupervisionRoles.hpp"

namespace stillow::authority {

/// Always gives the same answer: for where there is no real validation.
class UnprovenEnforcementVerifier final : public EnforcementVerifying {
 public:
  explicit UnprovenEnforcementVerifier(EnforcementVerification verification)
      : verification_(verification) {}

  [[nodiscard]] concurrency::Task<EnforcementVerification> verify(
      std::int64_t /*scopeGeneration*/, core::DomainSet /*scope*/) override {
    return answer(verification_);
  }

 private:
  static concurrency::Task<EnforcementVerification> answer(EnforcementVerification verification) {
    co_return verification;
  }

  EnforcementVerification verification_;
};

}  // namespace stillow::authority
