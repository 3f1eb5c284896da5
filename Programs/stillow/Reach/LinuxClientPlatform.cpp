#include <string>
#include <utility>

#include "PlatformLinuxDaemon/BoottimeSleeper.hpp"
#include "PlatformLinuxIPC/DaemonSocket.hpp"
#include "PlatformLinuxIPC/UnixSocketDaemonConnector.hpp"
#include "PlatformLinuxPeer/RootDaemon.hpp"
#include "PlatformLinuxText/LocalizedDate.hpp"
#include "StillowClient/ClientPlatform.hpp"
#include "StillowIPC/StillowDaemonService.hpp"
#include "StillowReach/ReachDiagnosis.hpp"

namespace stillow::client {

namespace {

std::filesystem::path socketPath() {
  return platform::daemonSocketPath(ipc::StillowDaemonService::machServiceName);
}

class LinuxClientPlatform final : public ClientPlatform {
 public:
  explicit LinuxClientPlatform(const concurrency::Executor& executor)
      : sleeper_(std::make_shared<platform::BoottimeSleeper>(executor)),
        connector_(std::make_shared<platform::UnixSocketDaemonConnector>(
            platform::UnixSocketDaemonConnector::Dependencies{
                .executor = executor,
                .sleeper = sleeper_,
                .socketPath = socketPath(),
                .requireDaemon = platform::requireRootDaemon})) {}

  std::shared_ptr<concurrency::Sleeper> sleeper() override { return sleeper_; }
  std::shared_ptr<ipc::DaemonConnecting> daemonServices() override { return connector_; }

  concurrency::Task<std::expected<std::string, ipc::PlatformError>> passThrough(
      std::string method, std::optional<std::string> params) override {
    return connector_->passThrough(std::move(method), std::move(params));
  }

  std::string explainUnreachable(const ipc::DaemonError& error) const override {
    const auto finding = diagnoseReach({error, socketPath()});
    if (!finding) return "";
    return finding->sentence + "\n" + finding->nextStep + "\nTo check everything: stillow doctor";
  }

  std::string formatted(core::Date date) const override {
    return platform::localizedDateAndTime(date, platform::localeOfCaller());
  }

 private:
  const std::shared_ptr<platform::BoottimeSleeper> sleeper_;
  const std::shared_ptr<platform::UnixSocketDaemonConnector> connector_;
};

}  // namespace

std::unique_ptr<ClientPlatform> makeClientPlatform(concurrency::Executor executor) {
  return std::make_unique<LinuxClientPlatform>(executor);
}

}  // namespace stillow::client
