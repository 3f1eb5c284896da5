#pragma once

#include <expected>
#include <functional>
#include <string>
#include <string_view>

#include "StillowCore/Date.hpp"

/// The end of a Commitment as people type it.
namespace stillow::client {

/// Seconds that the clocks of a place are ahead of UTC at a moment.
using LocalOffset = std::function<double(core::Date)>;
/// Of this process's time zone.
[[nodiscard]] LocalOffset localOffset();

/// "18:00" (the next time that the clocks show it), "2026-11-21T18:00" or "2026-11-21 18:00" (local
/// time), or with an offset behind it: "Z", "+01:00". Seconds may follow the minutes.
///
/// A local time that the clocks skip when they are put forward is refused: neither side of the gap
/// is what was typed. One that comes twice is the first that is still ahead, since an end can be
/// moved later but never earlier. So is an end that is not ahead, or by more than 24 hours. The
/// error is one sentence that names the input and the rule.
[[nodiscard]] std::expected<core::Date, std::string> parseEndTime(std::string_view text,
                                                                  core::Date now,
                                                                  const LocalOffset& offset);

}  // namespace stillow::client
