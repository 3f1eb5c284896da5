#pragma once

#include <string>
#include <vector>

#include "StillowClient/TextLayout.hpp"
#include "StillowCore/Date.hpp"
#include "StillowIPC/DaemonStatus.hpp"

/// A status in words.
namespace stillow::client {

/// One sentence on whether the block can be vouched for.
[[nodiscard]] std::string healthSentence(const core::EnforcementHealthStatus& enforcement);
[[nodiscard]] Tone healthTone(const core::EnforcementHealthStatus& enforcement);

/// The first names of `scope`, and how many more there are.
[[nodiscard]] std::string scopeText(const core::DomainSet& scope);

/// The whole status, some lines with a line end each.
[[nodiscard]] std::string statusText(const ipc::DaemonStatus& status, const TextStyle& style);

/// The lines of a display that is rewritten each second: a bar, the end, the health. Between two
/// statuses the remainder is projected from the last one.
[[nodiscard]] std::vector<std::string> liveLines(const ipc::DaemonStatus& status, core::Date now,
                                                 bool isConnected, const TextStyle& style);

/// What happened between two statuses, a sentence each; empty if nothing a person would want to
/// know of.
[[nodiscard]] std::vector<std::string> changesBetween(const ipc::DaemonStatus& before,
                                                      const ipc::DaemonStatus& after);

}  // namespace stillow::client
