#include "StillowCore/Date.hpp"

#include <array>
#include <cmath>
#include <cstdio>

namespace stillow::core {

namespace {

constexpr double secondsPerDay = 86'400;
/// 0001-01-01 and 4001-01-01 (plus the rounding of half a second) bound the years that print as
/// four digits of a common era year.
constexpr double earliest = -63'114'076'800;
constexpr double latest = 63'113'904'000;

}  // namespace

std::string description(Date date) {
  const double sinceReference = date.secondsSinceReferenceDate;
  // Written so that a NaN ends here too.
  if (!(sinceReference >= earliest && sinceReference <= latest)) return "<description unavailable>";

  const double seconds = std::trunc(date.unixSeconds());
  const double dayNumber = std::floor(seconds / secondsPerDay);
  const auto secondOfDay = static_cast<unsigned>(seconds - dayNumber * secondsPerDay);

  // Civil date of a day number in the proleptic Gregorian calendar, counted from 0000-03-01 so that
  // the leap day ends a year.
  const long days = static_cast<long>(dayNumber) + 719'468;
  const long era = (days >= 0 ? days : days - 146'096) / 146'097;
  const auto dayOfEra = static_cast<unsigned>(days - era * 146'097);
  const unsigned yearOfEra =
      (dayOfEra - dayOfEra / 1'460 + dayOfEra / 36'524 - dayOfEra / 146'096) / 365;
  const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const unsigned shiftedMonth = (5 * dayOfYear + 2) / 153;
  const unsigned day = dayOfYear - (153 * shiftedMonth + 2) / 5 + 1;
  const unsigned month = shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9;
  const long year = static_cast<long>(yearOfEra) + era * 400 + (month <= 2 ? 1 : 0);

  std::array<char, 96> text{};  // wider than any of the fields can be
  std::snprintf(text.data(), text.size(), "%04ld-%02u-%02u %02u:%02u:%02u +0000", year, month, day,
                secondOfDay / 3'600, secondOfDay / 60 % 60, secondOfDay % 60);
  return text.data();
}

}  // namespace stillow::core
