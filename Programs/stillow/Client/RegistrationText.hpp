#pragma once

#include <string>

#include "StillowIPC/DaemonRegistration.hpp"

namespace stillow::client {

/// For a daemon that could not be reached on a Mac: what its registration says about the reason,
/// and what to do.
[[nodiscard]] std::string registrationAdvice(ipc::DaemonRegistration::State state);

}  // namespace stillow::client
