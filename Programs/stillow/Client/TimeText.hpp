#pragma once

#include <ctime>
#include <expected>
#include <string>
#include <string_view>

#include "StillowCore/CommitmentDuration.hpp"
#include "StillowCore/Date.hpp"

/// Durations and moments as people type and read them.
namespace stillow::client {

/// What the clocks of this process's time zone show, to the second.
[[nodiscard]] std::tm localTime(core::Date moment);

/// "2h", "90m", "1h30m", "1.5h", "45s": numbers with their units, biggest first, blanks allowed
/// between. The error is one sentence that names the input and the rule.
[[nodiscard]] std::expected<double, std::string> parseSeconds(std::string_view text);
/// Likewise, and at most 24 hours.
[[nodiscard]] std::expected<core::CommitmentDuration, std::string> parseDuration(
    std::string_view text);

/// "1 h 59 min", "4 min 5 s", "12 s". Rounded up to whole seconds, so that it never says 0 too
/// early.
[[nodiscard]] std::string durationText(double seconds);

/// "18:05:09", with "tomorrow " or the date in front when it is not the day of `now`; local time.
[[nodiscard]] std::string momentText(core::Date moment, core::Date now);

/// A bar of `width` cells of which `fraction`, 0 to 1, are filled.
[[nodiscard]] std::string barText(double fraction, std::size_t width);

}  // namespace stillow::client
