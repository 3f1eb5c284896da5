#pragma once

#include <CLI/CLI.hpp>

/// Each declares commands of `app`; the one that is given leaves its exit status in `status`.
namespace stillow::program {

/// start, add, extend, status, watch, acknowledge, validate, explain
void declareCommitmentCommands(CLI::App& app, int& status);
/// sites, groups
void declareCollectionCommands(CLI::App& app, int& status);
/// rpc, removal-check
void declareScriptCommands(CLI::App& app, int& status);

}  // namespace stillow::program
