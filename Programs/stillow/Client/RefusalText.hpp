#pragma once

#include <string>

#include "StillowClient/Console.hpp"
#include "StillowCore/Date.hpp"
#include "StillowIPC/DaemonError.hpp"

/// What to do about a refusal.
namespace stillow::client {

/// The daemon gave no answer: there is none, or it does not speak to us.
[[nodiscard]] bool isUnreachable(const ipc::DaemonError& error);
[[nodiscard]] ExitStatus exitStatusOf(const ipc::DaemonError& error);

/// The daemon's own sentence, and in a second line what to do next.
[[nodiscard]] std::string refusalText(const ipc::DaemonError& error, core::Date now);

/// What a failed validation found, and in a second line what to do next.
[[nodiscard]] std::string validationText(core::EnforcementValidationFailure failure);

}  // namespace stillow::client
