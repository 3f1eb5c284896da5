#pragma once

#include <expected>
#include <functional>
#include <memory>
#include <string>

#include "StillowConcurrency/Sleeper.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowDaemon/Daemon.hpp"
#include "StillowDaemon/UninstallMode.hpp"
#include "StillowIPC/DaemonConnection.hpp"

namespace stillow::daemon {

/// What the entry routine asks of the system. One implementation per system, chosen at link time.
class DaemonPlatform {
 public:
  virtual ~DaemonPlatform() = default;

  /// Runs what is ready, on one thread or more besides the caller's, for as long as the process
  /// lives.
  [[nodiscard]] virtual concurrency::Executor executor() = 0;
  [[nodiscard]] virtual std::shared_ptr<concurrency::Sleeper> sleeper() = 0;

  /// Where the daemon's clients find it.
  [[nodiscard]] virtual std::shared_ptr<ipc::DaemonConnecting> daemonServices() = 0;

  /// What uninstalling is done with. Touches nothing yet.
  [[nodiscard]] virtual UninstallTools uninstallTools() = 0;

  /// Makes this process the one daemon of the machine: waits, saying so, while another one is; then
  /// gives what the daemon is built from. Blocks. The error is one sentence.
  [[nodiscard]] virtual std::expected<Daemon::Adapters, std::string> becomeDaemon(LogLine log) = 0;

  /// Tells the service manager that clients can connect, and keeps telling it that the daemon lives
  /// for as long as its authority answers.
  virtual void noteServing(std::shared_ptr<Daemon> daemon) = 0;

 protected:
  DaemonPlatform() = default;
  DaemonPlatform(const DaemonPlatform&) = default;
  DaemonPlatform& operator=(const DaemonPlatform&) = default;
};

/// Defined by the platform. Starts the threads of the executor. Once per process.
[[nodiscard]] std::shared_ptr<DaemonPlatform> makeDaemonPlatform();

/// Writes one line to the system's log. Any thread.
void writeLogLine(std::string_view line);

/// Runs `work` and ends the process with what it gives. To be called on the process's first thread,
/// which a system that delivers there takes for itself; `work` then runs on another one. Nothing is
/// torn down: other threads still run, and what they use lives as long as the process.
[[noreturn]] void runProcess(std::function<int()> work);

}  // namespace stillow::daemon
