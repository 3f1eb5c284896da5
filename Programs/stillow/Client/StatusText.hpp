#pragma once

#include <string>

#include "StillowCore/Date.hpp"
#include "StillowIPC/DaemonStatus.hpp"

/// A status in words.
namespace stillow::client {

/// One sentence on whether the block can be vouched for.
[[nodiscard]] std::string healthSentence(const core::EnforcementHealthStatus& enforcement);

/// The whole status, some lines with a line end each. `showsBar`: for a terminal.
[[nodiscard]] std::string statusText(const ipc::DaemonStatus& status, bool showsBar);

/// One line for a display that is rewritten in place.
[[nodiscard]] std::string statusLine(const ipc::DaemonStatus& status, core::Date now);

}  // namespace stillow::client
