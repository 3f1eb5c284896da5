#include <optional>

#include <gtest/gtest.h>

#include "StillowAuthority/EnforcementHealthMachine.hpp"

namespace stillow::authority {
namespace {

using core::DegradedReason;
using core::EnforcementHealthStatus;
using Event = EnforcementHealthEvent;
using Phase = EnforcementHealthMachine::Phase;
using Verification = EnforcementVerification;

TEST(EnforcementHealthMachine, followsItsTableOfTransitions) {
  constexpr auto open = DegradedReason::failedOpen;
  constexpr auto path = DegradedReason::pathUnverified;
  struct Row {
    Phase from;
    Verification input;
    Phase to;
    std::optional<Event> event;
  };
  const Row rows[]{
      {Phase::restoring{}, Verification::unverified{open}, Phase::degraded{open},
       Event::enteredDegraded{open}},
      {Phase::healthy{}, Verification::unverified{path}, Phase::degraded{path},
       Event::enteredDegraded{path}},
      {Phase::degraded{open}, Verification::unverified{open}, Phase::degraded{open}, std::nullopt},
      {Phase::degraded{open}, Verification::unverified{path}, Phase::degraded{path}, std::nullopt},
      {Phase::restoring{}, Verification::verified{}, Phase::healthy{}, std::nullopt},
      {Phase::healthy{}, Verification::verified{}, Phase::healthy{}, std::nullopt},
      {Phase::degraded{path}, Verification::verified{}, Phase::healthy{},
       Event::returnedToHealthy{}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    EnforcementHealthMachine machine{row.from};
    EXPECT_EQ(machine.apply(row.input), row.event);
    EXPECT_EQ(machine.phase, row.to);
  }
}

TEST(EnforcementHealthMachine, settlesOnlyWhatIsRestoring) {
  const Phase degraded = Phase::degraded{DegradedReason::failedOpen};
  EnforcementHealthMachine machine;
  EXPECT_EQ(machine.phase, Phase::restoring{});
  machine.settleRestored();
  EXPECT_EQ(machine.phase, Phase::healthy{});
  machine.settleRestored();
  EXPECT_EQ(machine.phase, Phase::healthy{});
  machine.phase = degraded;
  machine.settleRestored();
  EXPECT_EQ(machine.phase, degraded);
}

TEST(EnforcementHealthMachine, vouchesForNothingWhileRestoring) {
  using Status = EnforcementHealthStatus;
  EXPECT_EQ(EnforcementHealthMachine{}.status(),
            Status::degraded{DegradedReason::recoveringFromCorruption});
  EXPECT_EQ(EnforcementHealthMachine{Phase::healthy{}}.status(), Status::healthy{});
  for (const auto reason : {DegradedReason::recoveringFromCorruption,
                            DegradedReason::pathUnverified, DegradedReason::failedOpen}) {
    EXPECT_EQ(EnforcementHealthMachine{Phase::degraded{reason}}.status(), Status::degraded{reason});
  }
}

}  // namespace
}  // namespace stillow::authority
