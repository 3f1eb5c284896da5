#include "StillowIPC/UninstallGate.hpp"

namespace stillow::ipc {

UninstallRuling UninstallGate::ruling(const std::optional<DaemonStatus>& status) {
  if (!status) return UninstallRuling::refused{UninstallRefusalCause::enforcementStateUnknown{}};
  if (const ActiveCommitmentStatus* const active = status->active()) {
    return UninstallRuling::refused{
        UninstallRefusalCause::commitmentActive{active->projectedEndTime}};
  }
  return UninstallRuling::mayUninstall{};
}

std::string refusalText(const UninstallRefusalCause& cause,
                        const std::function<std::string(core::Date)>& formatted) {
  return core::match(
      cause,
      [&](const UninstallRefusalCause::commitmentActive& active) {
        return "Stillow can’t be uninstalled while a Commitment is active. Nothing has been "
               "removed. Removal becomes available when the Commitment ends — projected ~" +
               formatted(active.endsAt.date) +
               ". Time while this Mac is shut down doesn’t count, so that can move later.";
      },
      [](const UninstallRefusalCause::enforcementStateUnknown&) {
        return std::string(
            "Stillow can’t tell whether a Commitment is active, so it has removed nothing. Start "
            "Stillow, let it reach the daemon, and try again.");
      });
}

}  // namespace stillow::ipc
