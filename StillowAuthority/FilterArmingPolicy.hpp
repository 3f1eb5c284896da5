#pragma once

#include <cstddef>
#include <functional>

#include "StillowAuthority/FilterConfiguring.hpp"

namespace stillow::authority {

/// Decides whether the filter has to see traffic.
struct FilterArmingPolicy {
  struct Conditions {
    bool userInterfaceIsRunning = false;  ///< at least one has announced itself
    bool commitmentIsActive = false;
    bool enforcementValidationIsRunning = false;  ///< a probe is lent

    friend bool operator==(const Conditions&, const Conditions&) = default;
  };

  FilterArmingPolicy() = delete;

  /// Armed as soon as one condition holds. Also with only a user interface open, on purpose: a
  /// validation and the activation behind it then find the filter ready.
  [[nodiscard]] static constexpr FilterArmingState state(Conditions conditions) noexcept {
    return conditions.userInterfaceIsRunning || conditions.commitmentIsActive ||
                   conditions.enforcementValidationIsRunning
               ? FilterArmingState::armed
               : FilterArmingState::disarmed;
  }
};

}  // namespace stillow::authority

template <>
struct std::hash<stillow::authority::FilterArmingPolicy::Conditions> {
  std::size_t operator()(
      stillow::authority::FilterArmingPolicy::Conditions conditions) const noexcept {
    return (conditions.userInterfaceIsRunning ? 1U : 0U) |
           (conditions.commitmentIsActive ? 2U : 0U) |
           (conditions.enforcementValidationIsRunning ? 4U : 0U);
  }
};
