#pragma once

#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>

#include "StillowClient/ClientPlatform.hpp"
#include "StillowCore/Invariant.hpp"
#include "StillowIPC/CodeSigningRequirement.hpp"
#include "StillowIPC/StillowDaemonService.hpp"
#include "StillowIPC/XPCCommitmentAuthorityClient.hpp"

namespace stillow::client {

/// The daemon as this machine reaches it, and the loop that the calls run on. For one thread, which
/// waits for what it runs.
class DaemonSession {
 public:
  // Here and not in a source: who uses it links the platform that it asks for.
  explicit DaemonSession(ipc::DaemonCallDeadlines deadlines = ipc::DaemonCallDeadlines::standard())
      : platform_(makeClientPlatform(context_.get_executor())),
        daemon_(ipc::XPCCommitmentAuthorityClient::make(
            {.executor = context_.get_executor(),
             .endpoint =
                 ipc::Endpoint::machService{std::string(ipc::StillowDaemonService::machServiceName),
                                            platform_->daemonServices()},
             .requirement = ipc::CodeSigningRequirement::trustedPeers(),
             .deadlines = deadlines,
             .wait = platform_->sleeper()})) {}

  /// Runs `task` to its end and gives its result. Once more as often as wanted.
  template <class Result>
  Result run(concurrency::Task<Result> task) {
    std::optional<Result> given;
    boost::asio::co_spawn(context_, std::move(task),
                          [&](const std::exception_ptr& exception, Result result) {
                            core::require(exception == nullptr, "an exception left a command");
                            given = std::move(result);
                            context_.stop();
                          });
    context_.restart();
    context_.run();
    return std::move(*given);
  }

  [[nodiscard]] boost::asio::io_context& context() noexcept { return context_; }
  [[nodiscard]] const std::shared_ptr<ClientPlatform>& platform() const noexcept {
    return platform_;
  }
  [[nodiscard]] const std::shared_ptr<ipc::XPCCommitmentAuthorityClient>& daemon() const noexcept {
    return daemon_;
  }

 private:
  boost::asio::io_context context_{1};
  std::shared_ptr<ClientPlatform> platform_;
  std::shared_ptr<ipc::XPCCommitmentAuthorityClient> daemon_;
};

}  // namespace stillow::client
