#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "StillowAuthority/FilterManagerRules.hpp"

namespace stillow::authority {
namespace {

using Rules = FilterManagerRules;
constexpr std::string_view ours = "com.larchmoor.Stillow.filter";

FilterManagerPreferences naming(std::optional<std::string> provider, bool isEnabled) {
  return {.isEnabled = isEnabled,
          .providerBundleIdentifier = std::move(provider),
          .hasConfiguration = true};
}

TEST(FilterManagerRules, savesEachTimeItArmsEvenIfAllLooksRight) {
  EXPECT_EQ(Rules::step(FilterArmingState::armed, false), Rules::Step::saveArmed);
  EXPECT_EQ(Rules::step(FilterArmingState::armed, true), Rules::Step::saveArmed);
}

TEST(FilterManagerRules, disarmsOnlyWhatIsEnabled) {
  EXPECT_EQ(Rules::step(FilterArmingState::disarmed, true), Rules::Step::saveDisabled);
  EXPECT_EQ(Rules::step(FilterArmingState::disarmed, false), Rules::Step::nothing);
}

TEST(FilterManagerRules, takesAFilterForApprovedWhereAConfigurationNamesOurProvider) {
  EXPECT_EQ(
      Rules::readiness(naming(std::string(ours), true), ours),
      (FilterPathReadiness{.extensionIsApproved = true, .filterConfigurationIsEnabled = true}));
  EXPECT_EQ(
      Rules::readiness(naming(std::string(ours), false), ours),
      (FilterPathReadiness{.extensionIsApproved = true, .filterConfigurationIsEnabled = false}));
}

TEST(FilterManagerRules, trustsNoOtherConfigurationHoweverEnabled) {
  const FilterPathReadiness nothing;
  EXPECT_EQ(Rules::readiness({.isEnabled = true}, ours), nothing) << "no configuration";
  EXPECT_EQ(Rules::readiness(naming(std::nullopt, true), ours), nothing) << "it names no provider";
  EXPECT_EQ(Rules::readiness(naming("com.larchmoor.Stillow.filter2", true), ours), nothing);
  EXPECT_EQ(Rules::readiness(naming("", true), ours), nothing);
}

TEST(FilterManagerRules, removesWhateverConfigurationThereIsAndNothingElse) {
  EXPECT_FALSE(Rules::hasSomethingToRemove({}));
  EXPECT_TRUE(Rules::hasSomethingToRemove(naming(std::nullopt, false)));
}

}  // namespace
}  // namespace stillow::authority
