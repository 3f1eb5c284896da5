#pragma once

#include <expected>
#include <functional>
#include <string>
#include <string_view>

namespace stillow::platform {

/// What the system said of a request about the filter extension.
enum class SystemExtensionAnswer : unsigned char {
  done,
  doneAfterRestart,  ///< of the machine
};

/// Asks the system to activate or deactivate the extension in the application's bundle. Blocks
/// until the system has ruled, however long a person takes to approve; `onWaiting` is called once
/// if that is what it waits for. Not on the process's first thread. The error is one sentence.
[[nodiscard]] std::expected<SystemExtensionAnswer, std::string> activateSystemExtension(
    std::string_view bundleIdentifier, const std::function<void()>& onWaiting);
[[nodiscard]] std::expected<SystemExtensionAnswer, std::string> deactivateSystemExtension(
    std::string_view bundleIdentifier, const std::function<void()>& onWaiting);

}  // namespace stillow::platform
