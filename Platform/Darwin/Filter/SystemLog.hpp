#pragma once

#include <string_view>

namespace stillow::platform {

/// Writes one line to the system's log, in the open: nothing that goes there is private. Any
/// thread.
void writeSystemLog(std::string_view line);

}  // namespace stillow::platform
