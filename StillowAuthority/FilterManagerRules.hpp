#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "StillowAuthority/FilterConfiguring.hpp"

namespace stillow::authority {

/// What the system's filter preferences say, read a moment ago.
struct FilterManagerPreferences {
  bool isEnabled = false;
  /// Of the data provider that a configuration names; absent: no configuration, or one that names
  /// none.
  std::optional<std::string> providerBundleIdentifier;
  /// There is a configuration, whatever it names.
  bool hasConfiguration = false;

  friend bool operator==(const FilterManagerPreferences&,
                         const FilterManagerPreferences&) = default;
};

/// What to do with the preferences of a system that keeps one filter configuration for each
/// application, loads it, changes it and saves it back.
struct FilterManagerRules {
  enum class Step : std::uint8_t {
    nothing,
    saveDisabled,  ///< disable what is there and save it
    saveArmed,     ///< build our configuration anew, enable it and save it
  };

  FilterManagerRules() = delete;

  /// Arming always saves, even where everything looks right: the save is what makes the system
  /// bring the provider up again. What is disabled already is not saved a second time.
  [[nodiscard]] static constexpr Step step(FilterArmingState desired, bool isEnabled) noexcept {
    if (desired == FilterArmingState::armed) return Step::saveArmed;
    return isEnabled ? Step::saveDisabled : Step::nothing;
  }

  /// A filter counts as approved where a configuration names our provider; a stranger's says
  /// nothing about ours.
  [[nodiscard]] static FilterPathReadiness readiness(
      const FilterManagerPreferences& found,
      std::string_view ourProviderBundleIdentifier) noexcept {
    if (found.providerBundleIdentifier != ourProviderBundleIdentifier) return {};
    return {.extensionIsApproved = true, .filterConfigurationIsEnabled = found.isEnabled};
  }

  /// Removing nothing is an error to the system and none to us.
  [[nodiscard]] static bool hasSomethingToRemove(const FilterManagerPreferences& found) noexcept {
    return found.hasConfiguration;
  }
};

}  // namespace stillow::authority
