#pragma once

#include <string>

#include "StillowCore/Date.hpp"

namespace stillow::platform {

/// `date` with an abbreviated month and a time without seconds, in the language, the calendar and
/// the time zone of the person who runs the process: "15. Nov. 2026, 18:07".
[[nodiscard]] std::string localizedDateAndTime(core::Date date);

}  // namespace stillow::platform
