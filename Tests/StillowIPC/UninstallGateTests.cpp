#include <functional>
#include <string>
#include <unordered_set>

#include <gtest/gtest.h>

#include "StillowIPC/UninstallGate.hpp"

namespace stillow::ipc {
namespace {

using Cause = UninstallRefusalCause;
using Ruling = UninstallRuling;

DaemonStatus statusWith(CommitmentStatus commitment) {
  return {.observedAt = {816'458'820}, .commitment = std::move(commitment)};
}

DaemonStatus activeUntil(core::Date end) {
  ActiveCommitmentStatus active;
  active.projectedEndTime = {end};
  return statusWith(CommitmentStatus::active{active});
}

TEST(UninstallGate, refusesWhileACommitmentIsActiveAndSaysUntilWhen) {
  const core::Date end{816'460'000};
  EXPECT_EQ(UninstallGate::ruling(activeUntil(end)),
            Ruling(Ruling::refused{Cause::commitmentActive{{end}}}));
}

TEST(UninstallGate, refusesWithoutAStatusBecauseNobodyKnows) {
  EXPECT_EQ(UninstallGate::ruling(std::nullopt),
            Ruling(Ruling::refused{Cause::enforcementStateUnknown{}}));
}

TEST(UninstallGate, permitsRemovalWhenTheCommitmentHasEndedAcknowledgedOrNot) {
  for (const CommitmentStatus& ended : {CommitmentStatus(CommitmentStatus::expired{{816'458'819}}),
                                        CommitmentStatus(CommitmentStatus::idle{})}) {
    EXPECT_EQ(UninstallGate::ruling(statusWith(ended)), Ruling(Ruling::mayUninstall{}));
  }
}

TEST(UninstallGate, looksAtNothingButTheCommitment) {
  DaemonStatus idle = statusWith(CommitmentStatus::idle{});
  idle.enforcement = core::EnforcementHealthStatus::degraded{core::DegradedReason::failedOpen};
  idle.readiness.validation =
      core::EnforcementValidation::failed{core::EnforcementValidationFailure::connectionNotDropped};
  EXPECT_EQ(UninstallGate::ruling(idle), Ruling(Ruling::mayUninstall{}));
}

TEST(UninstallGate, saysWhyTheProductStays) {
  const auto formatted = [](core::Date date) {
    return date == core::Date{816'460'000} ? std::string("Nov 15, 2026, 6:26 PM") : std::string();
  };
  EXPECT_EQ(refusalText(Cause::commitmentActive{{{816'460'000}}}, formatted),
            "Stillow can\u2019t be uninstalled while a Commitment is active. Nothing has been "
            "removed. Removal becomes available when the Commitment ends \u2014 projected ~Nov 15, "
            "2026, 6:26 PM. Time while this Mac is shut down doesn\u2019t count, so that can move "
            "later.");
  EXPECT_EQ(refusalText(Cause::enforcementStateUnknown{}, formatted),
            "Stillow can\u2019t tell whether a Commitment is active, so it has removed nothing. "
            "Start Stillow, let it reach the daemon, and try again.");
}

TEST(UninstallGate, givesValuesThatCanBeToldApart) {
  const std::unordered_set<Ruling> rulings{Ruling::mayUninstall{},
                                           Ruling::refused{Cause::enforcementStateUnknown{}},
                                           Ruling::refused{Cause::commitmentActive{{{1}}}},
                                           Ruling::refused{Cause::commitmentActive{{{2}}}}};
  EXPECT_EQ(rulings.size(), 4U);
  EXPECT_TRUE(rulings.contains(Ruling::refused{Cause::commitmentActive{{{2}}}}));
}

}  // namespace
}  // namespace stillow::ipc
