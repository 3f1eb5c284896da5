#pragma once

#include <optional>
#include <string_view>

#include "StillowAuthority/DiagnosticConnecting.hpp"

/// How stillow-probe is run: `stillow-probe HOST MILLISECONDS`. It makes one diagnostic connection,
/// which takes that long at the most, prints one of three answers and exits with status 0. Anything
/// else that it prints, and any other way in which it ends, says nothing about the host.
namespace stillow::platform {

inline constexpr const char* probeProgramName = "stillow-probe";

/// One word and the end of the line.
[[nodiscard]] std::string_view probeAnswer(authority::DiagnosticConnectionOutcome outcome);

/// None for what is not one of the three, byte for byte.
[[nodiscard]] std::optional<authority::DiagnosticConnectionOutcome> outcomeOfProbeAnswer(
    std::string_view answer);

}  // namespace stillow::platform
