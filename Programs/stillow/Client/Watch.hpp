#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "StillowClient/Console.hpp"
#include "StillowConcurrency/Cancellation.hpp"
#include "StillowConcurrency/Channel.hpp"
#include "StillowConcurrency/Sleeper.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowCore/Date.hpp"
#include "StillowIPC/CommitmentAuthorityClient.hpp"

namespace stillow::client {

/// Waits between two tries to reach a daemon that went away: it is back within a second as a rule,
/// and if not, nobody is served by asking often.
class ReconnectDelay {
 public:
  static constexpr std::chrono::milliseconds first{250};
  static constexpr std::chrono::milliseconds longest{8'000};

  [[nodiscard]] std::chrono::milliseconds next();
  void reset() noexcept { delay_ = first; }

 private:
  std::chrono::milliseconds delay_ = first;
};

/// Stops the process until somebody continues it.
using Suspension = std::function<void()>;

struct WatchCollaborators {
  std::shared_ptr<ipc::CommitmentAuthorityClient> daemon;
  std::shared_ptr<concurrency::Sleeper> sleeper;
  core::WallClock clock;
  /// Cancelled when the user has seen enough; that is how watching ends.
  concurrency::Cancellation enough;
  /// Given when the user puts the program aside: the terminal is left in order first, and taken up
  /// again on a line of its own afterwards.
  concurrency::Channel<Suspension> suspensions{1};
  /// Why the daemon could not be reached in the first place.
  std::function<ExitStatus(const ipc::DaemonError&)> report;
};

/// Shows every status as the daemon pushes it, until `enough`: on a terminal as a bar that is
/// rewritten each second below the changes in words, elsewhere as texts, with `asJSON` as one
/// record on each line. When the daemon goes away it waits for it to come back.
///
/// Not finding it at the start is an error; that it went away later is not.
[[nodiscard]] concurrency::Task<ExitStatus> watch(Console console, WatchCollaborators with,
                                                  bool asJSON);

}  // namespace stillow::client
