/// The client's platform on macOS.
#include <chrono>
#include <string>
#include <utility>

#include "PlatformDarwinDaemon/ContinuousSleeper.hpp"
#include "PlatformDarwinIPC/XPCDaemonConnector.hpp"
#include "PlatformDarwinInstallation/SMAppServices.hpp"
#include "PlatformDarwinText/LocalizedDate.hpp"
#include "StillowClient/ClientPlatform.hpp"
#include "StillowClient/PassThrough.hpp"
#include "StillowClient/RefusalText.hpp"
#include "StillowClient/RegistrationText.hpp"
#include "StillowIPC/StillowDaemonService.hpp"
#include "StillowIPC/XPCCommitmentAuthorityClient.hpp"

namespace stillow::platform {

namespace {

using concurrency::Task;
using Line = std::expected<std::string, ipc::PlatformError>;
using Client = ipc::XPCCommitmentAuthorityClient;

/// The caller's own limit is shorter.
constexpr std::chrono::hours noLimit{1};

Task<Line> passing(std::shared_ptr<Client> daemon, std::string method,
                   std::optional<std::string> params) {
  const auto operation = client::operationNamed(method);
  if (!operation) co_return client::unknownMethodLine();
  const ipc::SharedBytes request =
      params ? std::make_shared<const std::string>(std::move(*params)) : nullptr;
  const Client::Send send = [operation = *operation, request](
                                ipc::DaemonProxy& proxy,
                                std::function<void(ipc::DaemonReply)> reply) {
    proxy.send(operation, request, std::move(reply));
  };
  const std::expected<ipc::SharedBytes, ipc::DaemonError> answered =
      co_await daemon->call(noLimit, send);
  if (answered) co_return client::resultLine(*answered);
  const ipc::DaemonError& error = answered.error();
  if (client::isUnreachable(error)) co_return std::unexpected(error.platformError());
  co_return client::errorLine(error);
}

class DarwinClientPlatform final : public client::ClientPlatform {
 public:
  explicit DarwinClientPlatform(concurrency::Executor executor) : executor_(std::move(executor)) {}

  std::shared_ptr<concurrency::Sleeper> sleeper() override { return sleeper_; }

  std::shared_ptr<ipc::DaemonConnecting> daemonServices() override {
    return std::make_shared<XPCDaemonConnector>(
        std::string(ipc::StillowDaemonService::machServiceName));
  }

  Task<Line> passThrough(std::string method, std::optional<std::string> params) override {
    const auto daemon = Client::make(
        {.executor = executor_,
         .endpoint =
             ipc::Endpoint::machService{std::string(ipc::StillowDaemonService::machServiceName),
                                        daemonServices()},
         .requirement = ipc::CodeSigningRequirement::trustedPeers(),
         .wait = sleeper_});
    return passing(daemon, std::move(method), std::move(params));
  }

  std::string explainUnreachable(const ipc::DaemonError&) const override {
    SMAppServices services;
    return client::registrationAdvice(ipc::DaemonRegistration::state(services));
  }

  std::string formatted(core::Date date) const override { return localizedDateAndTime(date); }

 private:
  const concurrency::Executor executor_;
  const std::shared_ptr<ContinuousSleeper> sleeper_ = std::make_shared<ContinuousSleeper>();
};

}  // namespace

}  // namespace stillow::platform

namespace stillow::client {

std::unique_ptr<ClientPlatform> makeClientPlatform(concurrency::Executor executor) {
  return std::make_unique<platform::DarwinClientPlatform>(std::move(executor));
}

}  // namespace stillow::client
