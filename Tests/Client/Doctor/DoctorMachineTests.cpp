#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "DoctorTesting.hpp"

/// What is installed and runs on the machine itself.
namespace stillow::doctor {

namespace {

using namespace testing;
using client::ReachCause;

}  // namespace

TEST(DoctorJudging, findsWhyTheDaemonDoesNotAnswer) {
  using Strings = std::vector<std::string>;
  expectRows({
      {"the unit failed", healthyMachine(),
       Strings{"daemon-unit", "socket<daemon-unit", "daemon<daemon-unit", "blocking-<daemon-unit"},
       [](Observations& seen) {
         seen.daemonUnit = UnitObservation{Installation::enabled, "failed"};
         seen.socket.kind = SocketObservation::Kind::missing;
         stopDaemon(seen, ReachCause::socketMissing);
       }},
      {"no socket, and no service manager to ask", healthyMachine(),
       Strings{"daemon-unit-", "filter-unit-", "socket", "daemon<socket", "blocking-<socket"},
       [](Observations& seen) {
         seen.daemonUnit = seen.filterUnit = std::unexpected(NotObserved{.reason = "No systemd."});
         seen.socket.kind = SocketObservation::Kind::missing;
         stopDaemon(seen, ReachCause::socketMissing);
       }},
      {"nobody listens", healthyMachine(), Strings{"daemon", "blocking-<daemon"},
       [](Observations& seen) { stopDaemon(seen, ReachCause::connectionRefused); }},
      {"an unsigned client", healthyMachine(),
       Strings{"signature", "daemon<signature", "blocking-<signature"},
       [](Observations& seen) {
         seen.signature = {client::OwnSignature::Standing::refused, "It is not signed."};
         stopDaemon(seen, ReachCause::ownSignature);
       }},
      {"a directory that others can write to", healthyMachine(),
       Strings{"socket", "daemon<socket", "blocking-<socket"},
       [](Observations& seen) {
         seen.socket.unsafeDirectory = "The directory can be written by others than root.";
         stopDaemon(seen, ReachCause::notTrusted);
       }},
      {"something that is no socket", healthyMachine(), Strings{"socket"},
       [](Observations& seen) { seen.socket.kind = SocketObservation::Kind::notASocket; }},
      {"an error that is no matter of reach", healthyMachine(),
       Strings{"daemon", "blocking-<daemon"},
       [](Observations& seen) {
         stopDaemon(seen, ReachCause::other);
         seen.reach.reset();
       }},
      {"masked", healthyMachine(),
       Strings{"daemon-unit", "daemon<daemon-unit", "blocking-<daemon-unit"},
       [](Observations& seen) {
         seen.daemonUnit = UnitObservation{Installation::masked, "inactive"};
         stopDaemon(seen, ReachCause::connectionRefused);
       }},
      {"not installed, but running", healthyMachine(), Strings{"daemon-unit?"},
       [](Observations& seen) {
         seen.daemonUnit = UnitObservation{Installation::absent, "inactive"};
       }},
      {"not enabled", healthyMachine(), Strings{"filter-unit?"},
       [](Observations& seen) {
         seen.filterUnit = UnitObservation{Installation::disabled, "active"};
       }},
  });
}

TEST(DoctorJudging, findsWhatIsWrongBetweenDaemonAndKernel) {
  using Strings = std::vector<std::string>;
  using enum core::EnforcementValidationFailure;
  expectRows({
      {"the filter is down", enforcingMachine(),
       Strings{"filter-unit", "filter<filter-unit", "blocking<filter-unit"},
       [](Observations& seen) {
         seen.filterUnit = UnitObservation{Installation::enabled, "failed"};
         seen.queue->holder = {HolderKind::nobody};
         seen.validation = failedValidation(extensionNotApproved);
       }},
      {"another program has the queue", enforcingMachine(),
       Strings{"filter", "rules<filter", "blocking<filter"},
       [](Observations& seen) {
         seen.queue->holder = {HolderKind::stranger, "suricata (process 7)"};
         for (auto& family : *seen.rules) family.installed = {};
         seen.validation = failedValidation(extensionNotApproved);
       }},
      {"the filter hangs", enforcingMachine(),
       Strings{"portal-", "filter", "control-host<filter", "probed-host<filter", "blocking<filter"},
       [](Observations& seen) {
         seen.queue->waiting = 3;
         seen.queue->isStuck = true;
         seen.control = seen.probed = failing(Failure::tookTooLong);
         seen.validation = failedValidation(networkUnavailable);
       }},
      {"the filter is down, and the name server as well", healthyMachine(),
       Strings{"portal-", "filter", "control-host", "probed-host<control-host", "blocking<filter"},
       [](Observations& seen) {
         seen.queue->holder = {HolderKind::nobody};
         seen.control = seen.probed = failing(Failure::nameNotResolved);
         seen.validation = failedValidation(extensionNotApproved);
       }},
      {"the rules are gone", enforcingMachine(), Strings{"rules", "blocking<rules"},
       [](Observations& seen) {
         seen.rules->back().installed = {};
         seen.validation = failedValidation(filterNotArmed);
       }},
      {"the rules are gone, and with them who would put them back", enforcingMachine(),
       Strings{"daemon", "rules<daemon", "blocking-<daemon"},
       [](Observations& seen) {
         for (auto& family : *seen.rules) family.installed = {};
         stopDaemon(seen, ReachCause::connectionRefused);
       }},
      {"a rule is missing while nothing is to be blocked", healthyMachine(), Strings{"rules?"},
       [](Observations& seen) {
         seen.rules->front().installed = wholeRules();
         --seen.rules->front().installed.holdRules;
       }},
      {"armed for a user interface", healthyMachine(), Strings{},
       [](Observations& seen) {
         for (auto& family : *seen.rules) family.installed = wholeRules();
       }},
      {"the directive lags behind", enforcingMachine(), Strings{"directive", "blocking<directive"},
       [](Observations& seen) {
         seen.directive->read->value().scope->generation = 1;
         seen.validation = failedValidation(connectionNotDropped);
       }},
      {"the directive is newer than the answer", enforcingMachine(), Strings{},
       [](Observations& seen) { seen.directive->read->value().scope->generation = 3; }},
      {"the directive blocks without a Commitment", healthyMachine(), Strings{"directive"},
       [](Observations& seen) { seen.directive->read = *enforcingMachine().directive->read; }},
      {"the directive is damaged", healthyMachine(), Strings{"directive"},
       [](Observations& seen) { seen.directive->read = std::unexpected("It is damaged."); }},
      {"the directive is missing", healthyMachine(), Strings{"directive"},
       [](Observations& seen) { seen.directive->read->reset(); }},
      {"others may read the directive", healthyMachine(), Strings{"directive?"},
       [](Observations& seen) { seen.directive->permissions = 0644; }},
      {"the state directory is open to others", healthyMachine(), Strings{"state-directory"},
       [](Observations& seen) { seen.stateDirectory->permissions = 0755; }},
      {"the state directory belongs to somebody", healthyMachine(), Strings{"state-directory"},
       [](Observations& seen) { seen.stateDirectory->belongsToRoot = false; }},
      {"a directory above it is open to others", healthyMachine(), Strings{"state-directory"},
       [](Observations& seen) { seen.stateDirectory->unsafeDirectory = "It can be written."; }},
      {"the disk is full", healthyMachine(), Strings{"state-directory", "blocking<state-directory"},
       [](Observations& seen) {
         seen.stateDirectory->freeBytes = 4096;
         seen.validation = failedValidation(inconclusive);
       }},
      {"the daemon never ran", healthyMachine(),
       Strings{"socket", "daemon<socket", "state-directory<socket", "directive<socket",
               "blocking-<socket"},
       [](Observations& seen) {
         seen.socket.kind = SocketObservation::Kind::missing;
         stopDaemon(seen, ReachCause::socketMissing);
         seen.stateDirectory->exists = false;
         seen.directive->read->reset();
       }},
      {"one checkpoint is damaged", healthyMachine(), Strings{"checkpoints?"},
       [](Observations& seen) {
         seen.checkpoints = authority::CommitmentStateRecovery::Source::lastKnownGood;
       }},
      {"both checkpoints are damaged", healthyMachine(), Strings{"checkpoints"},
       [](Observations& seen) {
         seen.checkpoints = authority::CommitmentStateRecovery::Source::failedOpen;
       }},
  });
}

}  // namespace stillow::doctor
