#include "StillowClient/EndTimeText.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <optional>
#include <vector>

#include "StillowClient/TextLayout.hpp"
#include "StillowClient/TimeText.hpp"
#include "StillowCore/CommitmentDuration.hpp"

namespace stillow::client {

namespace {

constexpr double secondsPerDay = 86'400;

/// A reading of clocks, as seconds since 1970-01-01 00:00 of the same clocks.
using Reading = double;

struct Typed {
  std::optional<std::chrono::year_month_day> day;
  double secondOfDay = 0;
  std::optional<double> offset;
};

/// Takes the text apart from the front.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : rest_(text) {}

  /// A number of exactly that many digits.
  std::optional<int> number(std::size_t digits) {
    if (rest_.size() < digits) return std::nullopt;
    int value = 0;
    for (const char digit : rest_.substr(0, digits)) {
      if (digit < '0' || digit > '9') return std::nullopt;
      value = value * 10 + (digit - '0');
    }
    rest_.remove_prefix(digits);
    return value;
  }
  bool take(char sign) {
    if (!rest_.starts_with(sign)) return false;
    rest_.remove_prefix(1);
    return true;
  }
  [[nodiscard]] bool isAtEnd() const { return rest_.empty(); }
  [[nodiscard]] bool hasDate() const { return rest_.size() > 4 && rest_[4] == '-'; }

 private:
  std::string_view rest_;
};

/// Hours and minutes below their limits, as seconds.
std::optional<double> hoursAndMinutes(Scanner& scanner, bool needsColon) {
  const auto hours = scanner.number(2);
  if (!hours || *hours > 23) return std::nullopt;
  if (!scanner.take(':') && needsColon) return std::nullopt;
  const auto minutes = scanner.number(2);
  if (!minutes || *minutes > 59) return std::nullopt;
  return *hours * 3'600 + *minutes * 60;
}

std::optional<Typed> typed(std::string_view text) {
  Scanner scanner(text);
  Typed result;
  if (scanner.hasDate()) {
    const auto year = scanner.number(4);
    if (!year || !scanner.take('-')) return std::nullopt;
    const auto month = scanner.number(2);
    if (!month || !scanner.take('-')) return std::nullopt;
    const auto day = scanner.number(2);
    if (!day || (!scanner.take('T') && !scanner.take(' '))) return std::nullopt;
    result.day.emplace(std::chrono::year(*year), std::chrono::month(static_cast<unsigned>(*month)),
                       std::chrono::day(static_cast<unsigned>(*day)));
    if (!result.day->ok()) return std::nullopt;
  }
  const auto time = hoursAndMinutes(scanner, true);
  if (!time) return std::nullopt;
  result.secondOfDay = *time;
  if (scanner.take(':')) {
    const auto seconds = scanner.number(2);
    if (!seconds || *seconds > 59) return std::nullopt;
    result.secondOfDay += *seconds;
  }
  if (scanner.isAtEnd()) return result;
  // Which day it is at another place's clock nobody would want to guess.
  if (!result.day) return std::nullopt;
  if (scanner.take('Z')) {
    result.offset = 0;
  } else {
    const bool isEast = scanner.take('+');
    if (!isEast && !scanner.take('-')) return std::nullopt;
    const auto offset = hoursAndMinutes(scanner, false);
    if (!offset) return std::nullopt;
    result.offset = isEast ? *offset : -*offset;
  }
  return scanner.isAtEnd() ? std::optional(result) : std::nullopt;
}

Reading midnight(std::chrono::year_month_day day) {
  return static_cast<double>(std::chrono::sys_days(day).time_since_epoch().count()) * secondsPerDay;
}

core::Date momentOf(Reading reading, double offset) {
  return core::Date::fromUnixSeconds(reading - offset);
}

/// The moments at which the clocks show `reading`, ascending: one as a rule, none where they are
/// put forward past it, two where they are put back to before it.
std::vector<core::Date> moments(Reading reading, const LocalOffset& offset) {
  std::vector<core::Date> found;
  for (const double around : {-secondsPerDay, 0.0, secondsPerDay}) {
    const double candidate = offset(momentOf(reading + around, 0));
    const core::Date moment = momentOf(reading, candidate);
    if (offset(moment) == candidate && std::ranges::find(found, moment) == found.end()) {
      found.push_back(moment);
    }
  }
  std::ranges::sort(found);
  return found;
}

std::string twoDigits(unsigned value) { return (value < 10 ? "0" : "") + std::to_string(value); }
std::string clockText(Reading reading) {
  const auto second =
      static_cast<unsigned>(reading - std::floor(reading / secondsPerDay) * secondsPerDay);
  return twoDigits(second / 3'600) + ":" + twoDigits(second / 60 % 60);
}
std::string dayText(Reading reading) {
  const std::chrono::year_month_day day{std::chrono::sys_days(
      std::chrono::days(static_cast<int>(std::floor(reading / secondsPerDay))))};
  return std::to_string(static_cast<int>(day.year())) + "-" +
         twoDigits(static_cast<unsigned>(day.month())) + "-" +
         twoDigits(static_cast<unsigned>(day.day()));
}

std::string gapSentence(std::string_view text, Reading reading, const LocalOffset& offset) {
  // The clocks are put forward between these two; to the second is close enough.
  double before = reading - secondsPerDay;
  double after = reading + secondsPerDay;
  const double offsetBefore = offset(momentOf(before, 0));
  const double offsetAfter = offset(momentOf(after, 0));
  while (after - before > 1) {
    const double middle = std::floor((before + after) / 2);
    (offset(momentOf(middle, 0)) == offsetBefore ? before : after) = middle;
  }
  return client::quoted(text) + " does not exist on " + dayText(reading) +
         ": the clock is put forward from " + clockText(after + offsetBefore) + " to " +
         clockText(after + offsetAfter) + " then.";
}

/// The first moment after `now` at which the clocks show `reading`, if there is any. None at all:
/// they skip it.
struct Ahead {
  std::optional<core::Date> moment;
  bool isSkipped = false;
};
Ahead ahead(Reading reading, core::Date now, const LocalOffset& offset) {
  const std::vector<core::Date> all = moments(reading, offset);
  const auto next = std::ranges::find_if(all, [&](core::Date each) { return each > now; });
  return {.moment = next == all.end() ? std::nullopt : std::optional(*next),
          .isSkipped = all.empty()};
}

std::string formSentence(std::string_view text) {
  return client::quoted(text) +
         " is no time: write 18:00, 2026-11-21T18:00 or, with an offset, 2026-11-21T18:00+01:00.";
}

}  // namespace

LocalOffset localOffset() {
  return [](core::Date moment) { return static_cast<double>(localTime(moment).tm_gmtoff); };
}

std::expected<core::Date, std::string> parseEndTime(std::string_view text, core::Date now,
                                                    const LocalOffset& offset) {
  const auto read = typed(text);
  if (!read) return std::unexpected(formSentence(text));
  Ahead end;
  if (read->offset) {
    end.moment = momentOf(midnight(*read->day) + read->secondOfDay, *read->offset);
  } else if (read->day) {
    const Reading reading = midnight(*read->day) + read->secondOfDay;
    end = ahead(reading, now, offset);
    if (end.isSkipped) return std::unexpected(gapSentence(text, reading, offset));
  } else {
    const Reading today =
        std::floor((now.unixSeconds() + offset(now)) / secondsPerDay) * secondsPerDay;
    for (int day = 0; day < 3 && !end.moment; ++day) {
      const Reading reading = today + day * secondsPerDay + read->secondOfDay;
      end = ahead(reading, now, offset);
      // One that was skipped already is over like any other.
      if (end.isSkipped && now.unixSeconds() + offset(now) < reading) {
        return std::unexpected(gapSentence(text, reading, offset));
      }
    }
  }
  if (!end.moment || !(*end.moment > now)) {
    return std::unexpected(client::quoted(text) +
                           " is in the past: an end lies ahead, by at most 24 hours.");
  }
  if (!(*end.moment - now <= core::CommitmentDuration::secondsMax)) {
    return std::unexpected(client::quoted(text) +
                           " is too far ahead: an end lies at most 24 hours from now, so by " +
                           momentText(now + core::CommitmentDuration::secondsMax, now) + ".");
  }
  return *end.moment;
}

}  // namespace stillow::client
