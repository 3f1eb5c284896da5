#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "StillowIPC/DaemonError.hpp"
#include "StillowIPC/DaemonOperation.hpp"
#include "StillowIPC/DaemonWireCoding.hpp"

/// The answers of a daemon that is not reached by JSON-RPC, as the lines that it would have sent.
namespace stillow::client {

/// The operation whose raw name `method` is.
[[nodiscard]] std::optional<ipc::DaemonOperation> operationNamed(std::string_view method);

[[nodiscard]] std::string resultLine(const ipc::SharedBytes& result);
[[nodiscard]] std::string errorLine(const ipc::DaemonError& error);
[[nodiscard]] std::string unknownMethodLine();

}  // namespace stillow::client
