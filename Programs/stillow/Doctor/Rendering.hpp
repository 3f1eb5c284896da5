#pragma once

#include <string>

#include "StillowClient/TextLayout.hpp"
#include "StillowDoctor/Finding.hpp"

namespace stillow::doctor {

/// One paragraph for each finding, and a last line that sums them up.
[[nodiscard]] std::string reportText(const Report& report, const client::TextStyle& style);

/// The same as JSON, without a line end.
[[nodiscard]] std::string reportJSON(const Report& report);

}  // namespace stillow::doctor
