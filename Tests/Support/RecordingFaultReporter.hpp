#pragma once

#include <vector>

#include "StillowAuthority/SupervisionRoles.hpp"

namespace stillow::test {

class RecordingFaultReporter final : public authority::EnforcementFaultReporting,
                                     public authority::EnforcementRecoveryExpediting {
 public:
  std::vector<core::DegradedReason> faults;
  int expedited = 0;

  concurrency::Task<void> reportFault(core::DegradedReason reason) override {
    faults.push_back(reason);
    co_return;
  }
  concurrency::Task<void> expediteRecovery() override {
    ++expedited;
    co_return;
  }
};

}  // namespace stillow::test
