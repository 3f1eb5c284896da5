#pragma once

#include <CLI/CLI.hpp>

namespace stillow::platform {

/// setup, remove-extension: what only an application on macOS has to do. The command that is given
/// leaves its exit status in `status`.
void declareInstallationCommands(CLI::App& app, int& status);

}  // namespace stillow::platform
