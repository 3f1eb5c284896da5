#pragma once

#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "StillowIPC/PlatformError.hpp"

namespace stillow::ipc {

class DaemonServiceManaging;

/// The daemon as a service of the system: whether it is one, making it one, and where its program
/// lies in the application.
struct DaemonRegistration {
  /// Of the daemon's property list, in the application at "Contents/Library/LaunchDaemons/".
  static constexpr std::string_view plistName = "com.larchmoor.Stillow.daemon.plist";

  enum class State : std::uint8_t {
    enabled,
    awaitingApproval,  ///< a person has to allow it in the system's settings
    notRegistered,
    notFound,  ///< there is nothing to register, or nobody knows
  };

  using Result = std::expected<void, PlatformError>;

  /// What a raw status of macOS's service management means.
  [[nodiscard]] static State stateOf(std::int64_t serviceStatus) noexcept;

  [[nodiscard]] static State state(DaemonServiceManaging& services);
  [[nodiscard]] static Result registerDaemon(DaemonServiceManaging& services);
  /// Registers what is there now in the place of what was registered before. Taking that back may
  /// fail, as it does when there was nothing; only the registration counts.
  [[nodiscard]] static Result reregisterDaemon(DaemonServiceManaging& services);

  /// The text under `key` in the top-level dictionary of a property list; none whatever is wrong
  /// with file, list, key or value.
  using PropertyListText =
      std::function<std::optional<std::string>(const std::filesystem::path&, std::string_view key)>;
  /// The daemon's program, by the property list in the application at `bundle`.
  [[nodiscard]] static std::optional<std::filesystem::path> daemonProgram(
      const std::filesystem::path& bundle, const PropertyListText& propertyListText);
  /// It is there, is a file and may be executed.
  [[nodiscard]] static bool isDaemonProgramUsable(const std::filesystem::path& bundle,
                                                  const PropertyListText& propertyListText);
};

/// The daemon's entry with the system's service manager, as it was when this was obtained. Blocks.
class DaemonService {
 public:
  virtual ~DaemonService() = default;
  [[nodiscard]] virtual DaemonRegistration::State state() = 0;
  [[nodiscard]] virtual DaemonRegistration::Result registerService() = 0;
  [[nodiscard]] virtual DaemonRegistration::Result unregisterService() = 0;

 protected:
  DaemonService() = default;
  DaemonService(const DaemonService&) = default;
  DaemonService& operator=(const DaemonService&) = default;
};

/// The system's service manager.
class DaemonServiceManaging {
 public:
  virtual ~DaemonServiceManaging() = default;
  /// Never null; a new one with each call.
  [[nodiscard]] virtual std::unique_ptr<DaemonService> daemonService() = 0;

 protected:
  DaemonServiceManaging() = default;
  DaemonServiceManaging(const DaemonServiceManaging&) = default;
  DaemonServiceManaging& operator=(const DaemonServiceManaging&) = default;
};

}  // namespace stillow::ipc
