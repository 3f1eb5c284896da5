#pragma once

#include <cstdint>
#include <functional>
#include <utility>
#include <variant>

#include "StillowCore/Coding.hpp"
#include "StillowCore/SumType.hpp"

namespace stillow::core {

/// Why nobody can vouch for the block at the moment.
enum class DegradedReason : std::uint8_t {
  recoveringFromCorruption,  ///< state or directive was damaged or is not proven after a restart
  pathUnverified,            ///< the last end-to-end test did not pass
  failedOpen,                ///< nothing is being blocked
};

struct EnforcementHealthStatus {
  struct degraded {
    DegradedReason reason;
    friend bool operator==(const degraded&, const degraded&) = default;
  };
  struct healthy {
    friend bool operator==(const healthy&, const healthy&) = default;
  };

  using Cases = std::variant<degraded, healthy>;
  Cases cases;

  template <CaseOf<Cases> Case>
  constexpr EnforcementHealthStatus(Case status) : cases(std::move(status)) {}
  friend bool operator==(const EnforcementHealthStatus&, const EnforcementHealthStatus&) = default;
};

/// What an end-to-end validation found wanting.
enum class EnforcementValidationFailure : std::uint8_t {
  extensionNotApproved,  ///< the filter is not there, or is not ours
  filterNotArmed,        ///< the filter sees no traffic
  connectionNotDropped,  ///< a connection that had to be dropped was answered
  networkUnavailable,    ///< neither host could be reached
  inconclusive,          ///< somebody else answered, or the test could not be set up
};

struct EnforcementValidation {
  struct failed {
    EnforcementValidationFailure failure;
    friend bool operator==(const failed&, const failed&) = default;
  };
  struct passed {
    friend bool operator==(const passed&, const passed&) = default;
  };

  using Cases = std::variant<failed, passed>;
  Cases cases;

  template <CaseOf<Cases> Case>
  constexpr EnforcementValidation(Case validation) : cases(std::move(validation)) {}
  friend bool operator==(const EnforcementValidation&, const EnforcementValidation&) = default;
};

template <>
struct Coding<DegradedReason> {
  static constexpr std::string_view typeName = "DegradedReason";
  static constexpr auto names = coding::namesOf<DegradedReason>(
      {{DegradedReason::recoveringFromCorruption, "recoveringFromCorruption"},
       {DegradedReason::pathUnverified, "pathUnverified"},
       {DegradedReason::failedOpen, "failedOpen"}});
};

template <>
struct Coding<EnforcementHealthStatus> {
  using Status = EnforcementHealthStatus;
  static constexpr auto cases = coding::casesOf(
      coding::caseOf<Status::degraded>("degraded", coding::field("_0", &Status::degraded::reason)),
      coding::caseOf<Status::healthy>("healthy"));
};

template <>
struct Coding<EnforcementValidationFailure> {
  using Failure = EnforcementValidationFailure;
  static constexpr std::string_view typeName = "EnforcementValidationFailure";
  static constexpr auto names =
      coding::namesOf<Failure>({{Failure::extensionNotApproved, "extensionNotApproved"},
                                {Failure::filterNotArmed, "filterNotArmed"},
                                {Failure::connectionNotDropped, "connectionNotDropped"},
                                {Failure::networkUnavailable, "networkUnavailable"},
                                {Failure::inconclusive, "inconclusive"}});
};

template <>
struct Coding<EnforcementValidation> {
  using Validation = EnforcementValidation;
  static constexpr auto cases =
      coding::casesOf(coding::caseOf<Validation::failed>(
                          "failed", coding::field("_0", &Validation::failed::failure)),
                      coding::caseOf<Validation::passed>("passed"));
};

}  // namespace stillow::core

template <>
struct std::hash<stillow::core::EnforcementHealthStatus> {
  std::size_t operator()(const stillow::core::EnforcementHealthStatus& status) const noexcept {
    const auto* const degraded =
        stillow::core::getIf<stillow::core::EnforcementHealthStatus::degraded>(status);
    return degraded == nullptr ? 0 : 1 + static_cast<std::size_t>(degraded->reason);
  }
};

template <>
struct std::hash<stillow::core::EnforcementValidation> {
  std::size_t operator()(const stillow::core::EnforcementValidation& validation) const noexcept {
    const auto* const failed =
        stillow::core::getIf<stillow::core::EnforcementValidation::failed>(validation);
    return failed == nullptr ? 0 : 1 + static_cast<std::size_t>(failed->failure);
  }
};
