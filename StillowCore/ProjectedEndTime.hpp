#pragma once

#include <compare>

#include "StillowCore/Coding.hpp"
#include "StillowCore/Date.hpp"

namespace stillow::core {

/// When a Commitment will end if all time from now on counts. Moves later while time does not
/// count.
struct ProjectedEndTime {
  Date date;

  [[nodiscard]] static constexpr ProjectedEndTime after(Date now,
                                                        double remainingSeconds) noexcept {
    return {now + remainingSeconds};
  }
  friend constexpr bool operator==(ProjectedEndTime, ProjectedEndTime) noexcept = default;
  friend constexpr auto operator<=>(ProjectedEndTime, ProjectedEndTime) noexcept = default;
};

template <>
struct Coding<ProjectedEndTime> {
  static constexpr auto fields = coding::fieldsOf(coding::field("date", &ProjectedEndTime::date));
};

}  // namespace stillow::core

template <>
struct std::hash<stillow::core::ProjectedEndTime> {
  std::size_t operator()(stillow::core::ProjectedEndTime end) const noexcept {
    return std::hash<stillow::core::Date>{}(end.date);
  }
};
