#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "StillowClient/Confirmation.hpp"
#include "StillowClient/Console.hpp"
#include "StillowClient/EndTimeText.hpp"
#include "StillowClient/Selection.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowCore/CommitmentDuration.hpp"
#include "StillowCore/Date.hpp"
#include "StillowIPC/CommitmentAuthorityClient.hpp"

namespace stillow::client {

/// The first of `sentences`, and how many more there are.
void tellRefusals(const std::vector<std::string>& sentences, const Console& console);

/// How a command is to go about it.
struct CommandOptions {
  bool isConfirmed = false;  ///< a step that nobody can take back is not asked about
  bool asJSON = false;       ///< the result is a record, see docs/client-json
};

/// How long a new Commitment runs, or when the running one is to end.
struct EndRequest {
  /// Empty: not given. One of the two has to be.
  std::string duration;
  std::string until;
};

/// What the commands that speak to the daemon do. One command per object's life; it stays alive
/// until the command's task has ended.
class Commands {
 public:
  struct Collaborators {
    std::shared_ptr<ipc::CommitmentAuthorityClient> daemon;
    core::WallClock clock;
    LocalOffset offset;
    /// Only called where sites have to be understood.
    std::function<const core::DomainNormalizer&()> normalizer;
    CollectionReader readCollection;
    /// Some lines, without an end, on why the daemon could not be reached and what to do. May block
    /// for some seconds. Empty: the error's own words are told.
    std::function<std::string(const ipc::DaemonError&)> explainUnreachable;
  };
  Commands(Console console, Collaborators collaborators)
      : console_(std::move(console)), with_(std::move(collaborators)) {}

  concurrency::Task<ExitStatus> start(SelectionWords words, EndRequest end, CommandOptions options);
  concurrency::Task<ExitStatus> add(SelectionWords words, CommandOptions options);
  /// `end.duration` is by how much the end of the running Commitment moves later.
  concurrency::Task<ExitStatus> extend(EndRequest end, CommandOptions options);
  concurrency::Task<ExitStatus> status(CommandOptions options);
  concurrency::Task<ExitStatus> acknowledge(CommandOptions options);
  concurrency::Task<ExitStatus> validate(CommandOptions options);
  /// Asks the daemon only for what is not in the JSON form: whether the site is in the Scope.
  concurrency::Task<ExitStatus> explain(std::string site, CommandOptions options);

  /// Tells why there is no result, and what to do.
  ExitStatus report(const ipc::DaemonError& error) const;

 private:
  /// A length, or a moment that stays where it is however long the user thinks.
  using Length = std::variant<core::CommitmentDuration, core::Date>;

  std::expected<Length, std::string> understandLength(const EndRequest& end) const;
  ExitStatus refuse(const std::vector<std::string>& sentences,
                    ExitStatus status = ExitStatus::usage) const;
  void show(const ipc::DaemonStatus& status, CommandOptions options) const;
  /// Asks, unless that is not wanted.
  bool isAgreed(const Promise& promise, CommandOptions options) const;
  Promise promiseToAdd(const ipc::ActiveCommitmentStatus& active,
                       const std::vector<TypedSite>& sites) const;

  Console console_;
  Collaborators with_;
};

}  // namespace stillow::client
