#pragma once

#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "StillowClient/SiteList.hpp"
#include "StillowConcurrency/Sleeper.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowCore/CommitmentDuration.hpp"
#include "StillowCore/Date.hpp"
#include "StillowIPC/CommitmentAuthorityClient.hpp"

namespace stillow::client {

/// How the program ends; listed in its help.
enum class ExitStatus : int {
  success = 0,
  refused = 1,      ///< the daemon said no, in its own words
  usage = 2,        ///< bad input; nothing was asked of the daemon
  unreachable = 3,  ///< no answer from the daemon
  declined = 4,     ///< the user did not say yes
};

/// Results go to `out`; progress, questions and refusals to `err`.
struct Console {
  std::istream& in;
  std::ostream& out;
  std::ostream& err;
  bool isTerminal = false;  ///< `out` is one: bars and lines that are rewritten
};

/// What the commands do, once the command line is understood. One command per object's life.
class Commands {
 public:
  struct Collaborators {
    std::shared_ptr<ipc::CommitmentAuthorityClient> daemon;
    std::shared_ptr<concurrency::Sleeper> sleeper;
    core::WallClock clock;
  };
  Commands(Console console, Collaborators collaborators)
      : console_(console), with_(std::move(collaborators)) {}

  /// Shows what will be blocked and until when, asks unless `isConfirmed`, and starts.
  concurrency::Task<ExitStatus> start(std::vector<TypedSite> sites,
                                      core::CommitmentDuration duration, bool isConfirmed);
  concurrency::Task<ExitStatus> add(std::vector<TypedSite> sites);
  /// Moves the end of the running Commitment later by `seconds`.
  concurrency::Task<ExitStatus> extend(double seconds);
  concurrency::Task<ExitStatus> status(bool asJSON);
  /// Shows each change until the connection ends; on a terminal one line that is rewritten.
  concurrency::Task<ExitStatus> watch(bool asJSON);
  concurrency::Task<ExitStatus> acknowledge();

 private:
  ExitStatus report(const ipc::DaemonError& error) const;
  void show(const ipc::DaemonStatus& status, bool asJSON) const;
  bool confirm(const std::vector<TypedSite>& sites, core::CommitmentDuration duration) const;

  Console console_;
  Collaborators with_;
};

}  // namespace stillow::client
