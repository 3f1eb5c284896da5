#include "PlatformLinuxInstallation/SystemdServices.hpp"

#include <expected>
#include <string>
#include <string_view>

#include "PlatformLinuxInstallation/SystemdUnit.hpp"
#include "StillowCore/Invariant.hpp"
#include "StillowIPC/StillowDaemonService.hpp"

namespace stillow::platform {

namespace {

using ipc::DaemonRegistration;

constexpr std::string_view systemdDomain = "com.larchmoor.Stillow.systemd";

DaemonRegistration::Result resultOf(std::expected<void, std::string> done) {
  if (done) return {};
  return std::unexpected(ipc::PlatformError{.domain = std::string(systemdDomain),
                                            .code = 1,
                                            .description = std::move(done.error()),
                                            .payload = std::nullopt});
}

class UnitService final : public ipc::DaemonService {
 public:
  explicit UnitService(std::shared_ptr<CommandRunning> commands)
      : unit_(std::move(commands), ipc::StillowDaemonService::machServiceName) {}

  DaemonRegistration::State state() override {
    const auto installation = unit_.installation();
    if (!installation) return DaemonRegistration::State::notFound;
    switch (*installation) {
      case SystemdUnit::Installation::enabled:
        return DaemonRegistration::State::enabled;
      case SystemdUnit::Installation::masked:
        return DaemonRegistration::State::awaitingApproval;
      case SystemdUnit::Installation::disabled:
        return DaemonRegistration::State::notRegistered;
      case SystemdUnit::Installation::absent:
        return DaemonRegistration::State::notFound;
    }
    core::stopProcess("no such installation of a unit");
  }
  DaemonRegistration::Result registerService() override { return resultOf(unit_.enableAndStart()); }
  DaemonRegistration::Result unregisterService() override {
    auto stopped = unit_.stop();
    auto disabled = unit_.disable();
    return resultOf(stopped ? std::move(disabled) : std::move(stopped));
  }

 private:
  SystemdUnit unit_;
};

}  // namespace

std::unique_ptr<ipc::DaemonService> SystemdServices::daemonService() {
  return std::make_unique<UnitService>(commands_);
}

}  // namespace stillow::platform
