#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "StillowIPC/DaemonRegistration.hpp"

namespace stillow::platform {

/// The system's service management, for the application that the process's executable lies in.
class SMAppServices final : public ipc::DaemonServiceManaging {
 public:
  [[nodiscard]] std::unique_ptr<ipc::DaemonService> daemonService() override;
};

/// A `DaemonRegistration::PropertyListText` that reads files.
[[nodiscard]] std::optional<std::string> propertyListText(const std::filesystem::path& path,
                                                          std::string_view key);

/// The bundle of the application; none if the executable lies in no bundle.
[[nodiscard]] std::optional<std::filesystem::path> applicationBundle();

}  // namespace stillow::platform
