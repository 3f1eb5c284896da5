#include "StillowClient/TimeText.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <ctime>

#include "StillowClient/TextLayout.hpp"
#include "StillowCore/JSONText.hpp"

namespace stillow::client {

namespace {

constexpr double secondsPerMinute = 60;
constexpr double secondsPerHour = 3'600;

struct Unit {
  char name;
  double seconds;
};
constexpr std::array units{Unit{'h', secondsPerHour}, Unit{'m', secondsPerMinute}, Unit{'s', 1}};

std::string refusal(std::string_view text) {
  return quoted(text) + " is no duration: write hours, minutes and seconds like 2h, 90m or 1h30m.";
}

std::string formatted(const std::tm& time, const char* format) {
  std::array<char, 64> text{};
  return {text.data(), std::strftime(text.data(), text.size(), format, &time)};
}

}  // namespace

std::tm localTime(core::Date moment) {
  const auto seconds = static_cast<std::time_t>(std::floor(moment.unixSeconds()));
  std::tm local{};
  (void)::localtime_r(&seconds, &local);  // fails only for years beyond an int
  return local;
}

std::expected<double, std::string> parseSeconds(std::string_view text) {
  double total = 0;
  auto nextUnit = units.begin();
  std::string_view rest = text;
  const auto skipBlanks = [&] {
    rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
  };
  skipBlanks();
  if (rest.empty()) return std::unexpected(refusal(text));
  while (!rest.empty()) {
    const std::size_t digits = std::min(rest.find_first_not_of("0123456789."), rest.size());
    // A bound on digits keeps the number finite; nobody types more.
    constexpr std::size_t digitsMax = 12;
    if (digits == 0 || digits > digitsMax || digits == rest.size())
      return std::unexpected(refusal(text));
    const std::string_view number = rest.substr(0, digits);
    if (std::ranges::count(number, '.') > 1 || number.starts_with('.') || number.ends_with('.')) {
      return std::unexpected(refusal(text));
    }
    const auto value = core::json::parseDouble(number);
    const char name = rest[digits];
    const auto unit =
        std::find_if(nextUnit, units.end(), [&](Unit each) { return each.name == name; });
    if (!value || unit == units.end()) return std::unexpected(refusal(text));
    total += *value * unit->seconds;
    nextUnit = unit + 1;
    rest.remove_prefix(digits + 1);
    if (name == 'm' && rest.starts_with("in")) rest.remove_prefix(2);
    skipBlanks();
  }
  return total;
}

std::expected<core::CommitmentDuration, std::string> parseDuration(std::string_view text) {
  const auto seconds = parseSeconds(text);
  if (!seconds) return std::unexpected(seconds.error());
  const auto duration = core::CommitmentDuration::fromSeconds(*seconds);
  if (!duration) {
    return std::unexpected(
        quoted(text) +
        " is not possible: a Commitment runs for more than 0 seconds and at most 24 hours.");
  }
  return *duration;
}

std::string durationText(double seconds) {
  const auto whole = static_cast<long>(std::ceil(std::max(0.0, std::min(seconds, 1e9))));
  const long hours = whole / 3'600;
  const long minutes = whole / 60 % 60;
  if (hours > 0) return std::to_string(hours) + " h " + std::to_string(minutes) + " min";
  if (minutes > 0) return std::to_string(minutes) + " min " + std::to_string(whole % 60) + " s";
  return std::to_string(whole) + " s";
}

std::string momentText(core::Date moment, core::Date now) {
  const std::tm then = localTime(moment);
  const std::tm today = localTime(now);
  const std::tm tomorrow = localTime(now + 86'400);
  const auto isSameDay = [](const std::tm& left, const std::tm& right) {
    return left.tm_year == right.tm_year && left.tm_yday == right.tm_yday;
  };
  const std::string clock = formatted(then, "%H:%M:%S");
  if (isSameDay(then, today)) return clock;
  if (isSameDay(then, tomorrow)) return "tomorrow " + clock;
  return formatted(then, "%Y-%m-%d ") + clock;
}

std::string barText(double fraction, std::size_t width) {
  const double filled = std::clamp(std::isfinite(fraction) ? fraction : 0.0, 0.0, 1.0);
  const auto cells = static_cast<std::size_t>(std::lround(filled * static_cast<double>(width)));
  std::string bar;
  for (std::size_t cell = 0; cell < width; ++cell) bar += cell < cells ? "█" : "░";
  return bar;
}

}  // namespace stillow::client
