#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "SimulatedMachine.hpp"
#include "StillowCore/Date.hpp"
#include "StillowCore/DomainSet.hpp"
#include "StillowIPC/DaemonStatus.hpp"

namespace stillow::simulation {

/// Watches a machine from outside and holds the daemon to what it promises. A broken promise is a
/// failure of the running test.
///
/// Seconds are counted ones: those during which there was a daemon, awake or asleep.
class Promises {
 public:
  explicit Promises(SimulatedMachine& machine) : machine_(machine) {}

  /// What was so when a client sent a request.
  struct Request {
    double countedSeconds = 0;
    int diskFailures = 0;
    core::Date sentAt;
    int clockSettings = 0;
  };
  [[nodiscard]] Request request() const;
  /// A request that has been answered.
  struct Exchange {
    Request request;
    int diskFailures = 0;  ///< when the answer came
  };

  /// A client sends a request; nobody knows yet what will become of it, and if its connection ends
  /// nobody ever will.
  void sendsActivation() { changeIsSent(); }
  void sendsStrengthening() { changeIsSent(); }
  void sendsExtension();
  void sendsAcknowledgement();

  /// A client got this answer to a request that changes the Commitment.
  void acknowledgedActivation(const Exchange& exchange, const ipc::DaemonStatus& status);
  void acknowledgedStrengthening(const Exchange& exchange, const ipc::DaemonStatus& status);
  void acknowledgedExtension(const Exchange& exchange, const ipc::DaemonStatus& status);

  /// Before the machine sleeps for so long.
  void machineSleeps(double seconds);
  /// Before the daemon's process ends.
  void processEnds();
  /// After it started again and opened its door.
  void processBegan();

  /// To be called whenever nothing is ready to run.
  void check();
  /// To be called when no fault is present any more and health has had time to recover.
  void checkAtRest();

  /// The next status that one observer or one client was told: each is as far on as the one before.
  class Order {
   public:
    void tell(const ipc::DaemonStatus& status);

   private:
    std::optional<ipc::DaemonStatus> last_;
    std::vector<core::Date> ended_;  ///< when the Commitments that are over were activated
  };
  /// What somebody was last told has to be what is, except for time, which passes without a word.
  static void compareTold(const ipc::DaemonStatus& told, const ipc::DaemonStatus& present,
                          const char* whom);

 private:
  /// A Commitment as far as somebody was told of it.
  struct Known {
    core::Date activatedAt;
    std::int64_t generation = 0;
    core::DomainSet scope;
    double endsNotBefore = 0;
    double endsNotAfter = 0;  ///< infinite: nobody knows
    double since = 0;         ///< when it was first known to run
  };

  void changeIsSent();
  void saved(const Exchange& exchange, const Known& known);
  [[nodiscard]] Known knownFrom(const ipc::ActiveCommitmentStatus& active) const;
  void compare(const Known& promised, const ipc::ActiveCommitmentStatus& found,
               const std::string& what) const;
  void checkCommitment(const ipc::DaemonStatus& status);
  void checkHiddenCommitment(const ipc::DaemonStatus& status);
  void checkExpiry(const ipc::DaemonStatus& status);
  void checkDirective(const ipc::DaemonStatus& status) const;
  void checkHealth(const ipc::DaemonStatus& status) const;
  void checkAnnounced(const ipc::DaemonStatus& status);

  SimulatedMachine& machine_;
  std::optional<Known> running_;  ///< as of the last answer or look
  std::optional<Known> durable_;  ///< as of the last answer behind a save that was not disturbed
  /// The last look at an expiry that no client may have acknowledged or replaced since.
  std::optional<core::Date> expiry_;
  bool extensionIsOpen_ = false;  ///< one was sent, and no look has shown what became of it
  /// The checkpoints could not be read at the start, so `durable_` is on the disk and not in force.
  bool durableIsHidden_ = false;
  double lastCheckAt_ = 0;
  double lastCountAt_ = 0;  ///< when all time up to then was seen to be charged
  double awakeSince_ = 0;
  int failuresAtStart_ = 0;
  Order announced_;
};

}  // namespace stillow::simulation
