#pragma once

#include <string>
#include <string_view>

#include "StillowCore/Date.hpp"

namespace stillow::platform {

/// `date` with an abbreviated month and a time without seconds, as `locale`, such as "de_DE.UTF-8",
/// has it: "15. Nov. 2026, 18:07". "C", "POSIX", nothing and what is no locale's name are the same:
/// plain English. `timeZone` is an Olson name; empty: the process's own, by TZ or the system's.
[[nodiscard]] std::string localizedDateAndTime(core::Date date, std::string_view locale,
                                               std::string_view timeZone = {});

/// What the environment names for dates: LC_ALL, else LC_TIME, else LANG, the first that is not
/// empty.
[[nodiscard]] std::string_view localeOfCaller() noexcept;

}  // namespace stillow::platform
