#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <string>

namespace stillow::core {

/// A moment of wall-clock time: seconds since 2001-01-01 00:00:00 UTC, fractions kept.
///
/// A double because that is what is stored and sent; the sub-second part survives a round trip.
/// Ordering follows the double, so a NaN is neither before nor after anything: write comparisons so
/// that "unordered" ends in the refusal.
struct Date {
  double secondsSinceReferenceDate = 0;

  /// 2001-01-01 00:00:00 UTC as seconds since 1970-01-01 00:00:00 UTC.
  static constexpr double referenceDateSinceUnixEpoch = 978'307'200;

  [[nodiscard]] static constexpr Date fromUnixSeconds(double seconds) noexcept {
    return {seconds - referenceDateSinceUnixEpoch};
  }
  [[nodiscard]] constexpr double unixSeconds() const noexcept {
    return secondsSinceReferenceDate + referenceDateSinceUnixEpoch;
  }

  friend constexpr Date operator+(Date date, double seconds) noexcept {
    return {date.secondsSinceReferenceDate + seconds};
  }
  friend constexpr double operator-(Date later, Date earlier) noexcept {
    return later.secondsSinceReferenceDate - earlier.secondsSinceReferenceDate;
  }
  friend constexpr bool operator==(Date, Date) noexcept = default;
  friend constexpr auto operator<=>(Date, Date) noexcept = default;
};

/// Gives the current wall-clock time. Only the entry routine builds one over the system clock.
/// May be called from any thread.
using WallClock = std::function<Date()>;

/// "2026-11-15 18:07:00 +0000": always UTC, whole seconds (cut, not rounded), proleptic Gregorian
/// calendar. A date that has no such form is "<description unavailable>".
[[nodiscard]] std::string description(Date date);

}  // namespace stillow::core

template <>
struct std::hash<stillow::core::Date> {
  std::size_t operator()(stillow::core::Date date) const noexcept {
    return std::hash<double>{}(date.secondsSinceReferenceDate);
  }
};
