#pragma once

#include <compare>
#include <expected>
#include <optional>
#include <string>

#include "StillowCore/Coding.hpp"

namespace stillow::core {

/// How long a Commitment runs, in seconds of counted time: more than 0, at most 24 hours.
class CommitmentDuration {
 public:
  static constexpr double secondsMax = 86'400;

  /// None outside (0, 86400], NaN included.
  [[nodiscard]] static constexpr std::optional<CommitmentDuration> fromSeconds(
      double seconds) noexcept {
    if (!(seconds > 0 && seconds <= secondsMax)) return std::nullopt;
    return CommitmentDuration(seconds);
  }
  [[nodiscard]] static constexpr std::optional<CommitmentDuration> fromMinutes(
      double minutes) noexcept {
    return fromSeconds(minutes * 60);
  }
  [[nodiscard]] static constexpr std::optional<CommitmentDuration> fromHours(
      double hours) noexcept {
    return fromSeconds(hours * 60 * 60);
  }
  [[nodiscard]] static constexpr CommitmentDuration maximum() noexcept {
    return CommitmentDuration(secondsMax);
  }

  [[nodiscard]] constexpr double seconds() const noexcept { return seconds_; }

  friend constexpr bool operator==(CommitmentDuration, CommitmentDuration) noexcept = default;
  friend constexpr auto operator<=>(CommitmentDuration, CommitmentDuration) noexcept = default;

 private:
  constexpr explicit CommitmentDuration(double seconds) noexcept : seconds_(seconds) {}
  double seconds_;
};

/// A bare number of seconds.
template <>
struct Coding<CommitmentDuration> {
  using Underlying = double;
  static double raw(CommitmentDuration duration) noexcept { return duration.seconds(); }
  static std::expected<CommitmentDuration, std::string> refine(double seconds) {
    const auto duration = CommitmentDuration::fromSeconds(seconds);
    if (!duration) {
      return std::unexpected("CommitmentDuration must be in (0, 24h]; got " +
                             json::description(seconds));
    }
    return *duration;
  }
};

}  // namespace stillow::core

template <>
struct std::hash<stillow::core::CommitmentDuration> {
  std::size_t operator()(stillow::core::CommitmentDuration duration) const noexcept {
    return std::hash<double>{}(duration.seconds());
  }
};
