#include "PlatformLinuxInstallation/SystemdUnit.hpp"

#include <utility>

#include "StillowCore/Text.hpp"

namespace stillow::platform {

namespace {

/// What `systemctl stop` exits with for a unit that is not loaded.
constexpr int exitNotLoaded = 5;

/// Standard error without the blanks around it; text that is not UTF-8 says nothing to anybody.
std::string reasonOf(std::string_view verb, const CommandResult& result) {
  const std::string_view said = core::text::trimmingWhitespaceAndNewlines(result.errors);
  if (!said.empty() && core::text::isValidUTF8(said)) return std::string(said);
  return "systemctl " + std::string(verb) + " exited " + std::to_string(result.exitStatus);
}

/// The value of `key` among lines "key=value"; empty if there is none.
std::string_view valueOf(std::string_view listing, std::string_view key) {
  for (const std::string_view line : core::text::lines(listing)) {
    if (line.starts_with(key) && line.substr(key.size()).starts_with('=')) {
      return line.substr(key.size() + 1);
    }
  }
  return {};
}

}  // namespace

SystemdUnit::SystemdUnit(std::shared_ptr<CommandRunning> commands, std::string_view label)
    : commands_(std::move(commands)), name_(std::string(label) + ".service") {}

std::expected<std::string, SystemdUnit::Failure> SystemdUnit::systemctl(
    std::initializer_list<std::string_view> arguments) const {
  Command command{.arguments = {"systemctl", "--no-ask-password"}};
  for (const std::string_view argument : arguments) command.arguments.emplace_back(argument);
  command.arguments.push_back(name_);
  auto result = commands_->run(command);
  if (!result) return std::unexpected(Failure{0, std::move(result.error().description)});
  if (result->exitStatus != 0) {
    return std::unexpected(Failure{result->exitStatus, reasonOf(*arguments.begin(), *result)});
  }
  return std::move(result->output);
}

std::expected<SystemdUnit::Installation, std::string> SystemdUnit::installation() const {
  const auto shown = systemctl({"show", "--property=LoadState", "--property=UnitFileState"});
  if (!shown) return std::unexpected(shown.error().reason);
  const std::string_view loadState = valueOf(*shown, "LoadState");
  const std::string_view fileState = valueOf(*shown, "UnitFileState");
  if (loadState.empty()) return std::unexpected("systemctl show said nothing of " + name_);
  if (loadState == "not-found") return Installation::absent;
  // Also "masked-runtime" and "enabled-runtime", which last until the next boot.
  if (loadState == "masked" || fileState.starts_with("masked")) return Installation::masked;
  if (fileState.starts_with("enabled")) return Installation::enabled;
  return Installation::disabled;
}

std::expected<void, std::string> SystemdUnit::stop() const {
  const auto stopped = systemctl({"stop"});
  if (stopped || stopped.error().exitStatus == exitNotLoaded) return {};
  return std::unexpected(stopped.error().reason);
}

std::expected<void, std::string> SystemdUnit::disable() const {
  const auto disabled = systemctl({"disable"});
  if (disabled) return {};
  // For a unit that is not there systemctl has no exit status of its own, so look.
  const auto now = installation();
  if (now && *now != Installation::enabled) return {};
  return std::unexpected(disabled.error().reason);
}

std::expected<void, std::string> SystemdUnit::enableAndStart() const {
  const auto enabled = systemctl({"enable", "--now"});
  if (!enabled) return std::unexpected(enabled.error().reason);
  return {};
}

}  // namespace stillow::platform
