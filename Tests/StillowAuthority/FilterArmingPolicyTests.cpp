#include <gtest/gtest.h>

#include "StillowAuthority/FilterArmingPolicy.hpp"

namespace stillow::authority {
namespace {

TEST(FilterArmingPolicy, disarmsOnlyWhenAllThreeConditionsAreFalse) {
  for (unsigned bits = 0; bits < 8; ++bits) {
    SCOPED_TRACE(bits);
    const FilterArmingPolicy::Conditions conditions{
        .userInterfaceIsRunning = (bits & 1U) != 0,
        .commitmentIsActive = (bits & 2U) != 0,
        .enforcementValidationIsRunning = (bits & 4U) != 0,
    };
    EXPECT_EQ(FilterArmingPolicy::state(conditions),
              bits == 0 ? FilterArmingState::disarmed : FilterArmingState::armed);
  }
}

TEST(FilterArmingPolicy, keepsTheFilterArmedForAnOpenUserInterfaceAlone) {
  EXPECT_EQ(FilterArmingPolicy::state({.userInterfaceIsRunning = true}), FilterArmingState::armed);
}

TEST(FilterArmingPolicy, hashesEqualConditionsEqually) {
  using Conditions = FilterArmingPolicy::Conditions;
  const std::hash<Conditions> hash;
  EXPECT_EQ(hash({.commitmentIsActive = true}), hash({.commitmentIsActive = true}));
  EXPECT_NE(hash({.commitmentIsActive = true}), hash({.userInterfaceIsRunning = true}));
}

}  // namespace
}  // namespace stillow::authority
