#pragma once

#include <cstdint>
#include <expected>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

#include "PlatformLinuxDaemon/CommandRunner.hpp"

namespace stillow::platform {

/// One of our units, through systemctl. Blocks, for as long as the runner's limit lets a command
/// take. Needs root, but for `installation`.
class SystemdUnit {
 public:
  enum class Installation : std::uint8_t {
    absent,    ///< there is no such unit
    masked,    ///< an administrator has forbidden it
    disabled,  ///< there, but not started with the system
    enabled,
  };

  /// The unit that a job of macOS with that label is on Linux.
  SystemdUnit(std::shared_ptr<CommandRunning> commands, std::string_view label);

  [[nodiscard]] const std::string& name() const noexcept { return name_; }

  /// Every error here and below is one for a person to read, without a final stop.
  [[nodiscard]] std::expected<Installation, std::string> installation() const;
  /// Returns when it no longer runs. A unit that systemd does not know has nothing to stop.
  [[nodiscard]] std::expected<void, std::string> stop() const;
  /// Not started with the system any more. A unit that is not there never is.
  [[nodiscard]] std::expected<void, std::string> disable() const;
  /// Started now and with the system.
  [[nodiscard]] std::expected<void, std::string> enableAndStart() const;

 private:
  struct Failure {
    int exitStatus;  ///< 0: the command gave none
    std::string reason;
  };
  [[nodiscard]] std::expected<std::string, Failure> systemctl(
      std::initializer_list<std::string_view> arguments) const;

  std::shared_ptr<CommandRunning> commands_;
  std::string name_;
};

}  // namespace stillow::platform
