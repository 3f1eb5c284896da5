#pragma once

#include <cstdint>
#include <expected>
#include <string>

#include "StillowConcurrency/Task.hpp"

namespace stillow::authority {

enum class FilterArmingState : std::uint8_t { armed, disarmed };

/// What the system itself says of the filter.
struct FilterPathReadiness {
  bool extensionIsApproved = false;           ///< our filter is there, and it is ours
  bool filterConfigurationIsEnabled = false;  ///< traffic is sent to it

  friend bool operator==(FilterPathReadiness, FilterPathReadiness) = default;
};

/// Why a system step failed, in one sentence for the log.
struct FilterConfigurationError {
  std::string description;
  friend bool operator==(const FilterConfigurationError&,
                         const FilterConfigurationError&) = default;
};

/// The switch that decides whether the filter sees traffic.
class FilterConfiguring {
 public:
  virtual ~FilterConfiguring() = default;
  /// Brings the system to `desired`; asking again is harmless. On failure the system may be in
  /// either state, so the caller forgets what it had applied. Bounded in time.
  virtual concurrency::Task<std::expected<void, FilterConfigurationError>> apply(
      FilterArmingState desired) = 0;
  /// Read back from the system every time, never remembered. Bounded in time.
  virtual concurrency::Task<std::expected<FilterPathReadiness, FilterConfigurationError>>
  readiness() = 0;

 protected:
  FilterConfiguring() = default;
  FilterConfiguring(const FilterConfiguring&) = default;
  FilterConfiguring& operator=(const FilterConfiguring&) = default;
};

}  // namespace stillow::authority
