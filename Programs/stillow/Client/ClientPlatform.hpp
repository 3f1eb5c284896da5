#pragma once

#include <expected>
#include <memory>
#include <optional>
#include <string>

#include "StillowConcurrency/Sleeper.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowCore/Date.hpp"
#include "StillowIPC/DaemonConnection.hpp"
#include "StillowIPC/DaemonError.hpp"
#include "StillowIPC/PlatformError.hpp"

namespace CLI {
class App;
}

namespace stillow::client {

/// What the program asks of the system. One implementation per system, chosen at link time.
class ClientPlatform {
 public:
  virtual ~ClientPlatform() = default;

  [[nodiscard]] virtual std::shared_ptr<concurrency::Sleeper> sleeper() = 0;
  /// Where the daemon is found.
  [[nodiscard]] virtual std::shared_ptr<ipc::DaemonConnecting> daemonServices() = 0;

  /// Passes one call through as it is: `method` is any text, `params` any JSON text. Gives the
  /// daemon's line, JSON-RPC 2.0, whatever it says. Not bounded in time.
  [[nodiscard]] virtual concurrency::Task<std::expected<std::string, ipc::PlatformError>>
  passThrough(std::string method, std::optional<std::string> params) = 0;

  /// Some lines, without an end, on why the daemon could not be reached and what to do. May block
  /// for some seconds. Empty: nothing is known beyond the error's own words.
  [[nodiscard]] virtual std::string explainUnreachable(const ipc::DaemonError& error) const = 0;

  /// A moment as the person who runs the program writes it.
  [[nodiscard]] virtual std::string formatted(core::Date date) const = 0;

 protected:
  ClientPlatform() = default;
  ClientPlatform(const ClientPlatform&) = default;
  ClientPlatform& operator=(const ClientPlatform&) = default;
};

/// Defined by the platform. `executor` belongs to an io_context.
[[nodiscard]] std::unique_ptr<ClientPlatform> makeClientPlatform(concurrency::Executor executor);

/// Defined by the platform. Declares the commands that only this system has; the one that is given
/// leaves its exit status in `status`.
void declareSystemCommands(CLI::App& app, int& status);

}  // namespace stillow::client
