#pragma once

#include <memory>
#include <optional>
#include <string>

#include "StillowClient/Commands.hpp"
#include "StillowClient/Console.hpp"
#include "StillowClient/DaemonSession.hpp"
#include "StillowClient/SiteCollectionFile.hpp"
#include "StillowClient/Watch.hpp"
#include "StillowConcurrency/Cancellation.hpp"
#include "StillowFiltering/Storage/PosixFileSystem.hpp"

/// The program around the commands: this machine's daemon, terminal, clock and files.
namespace stillow::program {

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

/// The daemon, with what belongs to a person at a terminal. For one command.
class Session : public client::DaemonSession {
 public:
  using DaemonSession::DaemonSession;

  /// Cancelled by Ctrl-C and by what else asks a program to end, from this call on.
  [[nodiscard]] concurrency::Cancellation endOnSignal();
  /// Given each time that Ctrl-Z is typed, from this call on.
  [[nodiscard]] concurrency::Channel<client::Suspension> suspendOnSignal();

  [[nodiscard]] client::Commands commands() const;
  /// One call as it is; prints the daemon's line.
  [[nodiscard]] concurrency::Task<client::ExitStatus> passThrough(
      std::string method, std::optional<std::string> params);

 private:
  std::shared_ptr<void> endSignals_;
  std::shared_ptr<void> stopSignals_;
};

/// Ends the program with `status`, without tearing down what a stream may still refer to.
[[noreturn]] void leave(int status);

}  // namespace stillow::program
