#pragma once

#include <expected>
#include <string>
#include <string_view>
#include <vector>

namespace stillow::authority {

/// The command that ends a job of launchd and makes it forget it, and what its end means.
struct LaunchctlBootout {
  static constexpr std::string_view program = "/bin/launchctl";

  LaunchctlBootout() = delete;

  [[nodiscard]] static std::vector<std::string> arguments(std::string_view label);

  /// A job that is not loaded is as good as unloaded. Otherwise the reason is what the command
  /// said, or its exit status where it said nothing readable.
  [[nodiscard]] static std::expected<void, std::string> result(int exitStatus,
                                                               std::string_view standardError);
};

}  // namespace stillow::authority
