#pragma once

#include <memory>
#include <optional>
#include <string>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>

#include "StillowClient/ClientPlatform.hpp"
#include "StillowClient/Commands.hpp"
#include "StillowClient/Console.hpp"
#include "StillowClient/SiteCollectionFile.hpp"
#include "StillowClient/Watch.hpp"
#include "StillowConcurrency/Cancellation.hpp"
#include "StillowCore/Invariant.hpp"
#include "StillowFiltering/Storage/PosixFileSystem.hpp"
#include "StillowIPC/XPCCommitmentAuthorityClient.hpp"

/// The program around the commands: this machine's daemon, terminal, clock and files.
namespace stillow::program {

[[nodiscard]] core::Date now();
/// The standard streams as they are now.
[[nodiscard]] client::Console standardConsole();
/// Parsed once, when somebody first wants to know.
[[nodiscard]] const core::DomainNormalizer& normalizer();

/// The user's collection, on this machine's file system.
struct UserCollection {
  /// Complains and leaves the program if there is no place for one.
  UserCollection();

  filtering::PosixFileSystem fileSystem;
  client::SiteCollectionFile file;
};

/// The daemon as this machine reaches it, and the loop that the calls run on. For one command.
class Session {
 public:
  explicit Session(ipc::DaemonCallDeadlines deadlines = ipc::DaemonCallDeadlines::standard());

  /// Runs `command` to its end and gives its result.
  template <class Status>
  Status run(concurrency::Task<Status> command) {
    Status status{};
    boost::asio::co_spawn(context_, std::move(command),
                          [&](const std::exception_ptr& exception, Status result) {
                            core::require(exception == nullptr, "an exception left a command");
                            status = result;
                            context_.stop();
                          });
    context_.run();
    return status;
  }

  /// Cancelled by Ctrl-C and by what else asks a program to end, from this call on.
  [[nodiscard]] concurrency::Cancellation endOnSignal();
  /// Given each time that Ctrl-Z is typed, from this call on.
  [[nodiscard]] concurrency::Channel<client::Suspension> suspendOnSignal();

  [[nodiscard]] client::Commands commands() const;
  /// One call as it is; prints the daemon's line.
  [[nodiscard]] concurrency::Task<client::ExitStatus> passThrough(
      std::string method, std::optional<std::string> params);

  [[nodiscard]] const std::shared_ptr<ipc::XPCCommitmentAuthorityClient>& daemon() const {
    return daemon_;
  }
  [[nodiscard]] std::shared_ptr<concurrency::Sleeper> sleeper() const {
    return platform_->sleeper();
  }
  /// A moment as the person who runs the program writes it.
  [[nodiscard]] std::string formatted(core::Date date) const { return platform_->formatted(date); }

 private:
  boost::asio::io_context context_{1};
  std::shared_ptr<client::ClientPlatform> platform_;
  std::shared_ptr<ipc::XPCCommitmentAuthorityClient> daemon_;
  std::shared_ptr<void> endSignals_;
  std::shared_ptr<void> stopSignals_;
};

/// Ends the program with `status`, without tearing down what a stream may still refer to.
[[noreturn]] void leave(int status);

}  // namespace stillow::program
