#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DoctorTesting.hpp"
#include "StillowDoctor/Rendering.hpp"

namespace stillow::doctor {

namespace {

using namespace testing;
using client::ReachCause;
using enum FindingState;
using ::testing::HasSubstr;
using ::testing::Not;

Finding findingOf(const Report& report, std::string_view check) {
  const auto found = std::ranges::find(report.findings, check, &Finding::check);
  EXPECT_NE(found, report.findings.end()) << check;
  return found == report.findings.end() ? Finding{} : *found;
}

/// What is not ok, as "check", "check?" (warning), "check-" (not checked), "check<cause".
std::vector<std::string> troubles(const Report& report) {
  std::vector<std::string> list;
  for (const Finding& finding : report.findings) {
    if (finding.state == ok) continue;
    std::string text = finding.check;
    if (finding.state == warning) text += '?';
    if (finding.state == notChecked) text += '-';
    if (finding.consequenceOf) text += "<" + *finding.consequenceOf;
    list.push_back(text);
  }
  return list;
}

struct Row {
  const char* what;
  Observations machine;
  std::vector<std::string> expected;
  std::function<void(Observations&)> breakIt;
};

void expectRows(std::vector<Row> rows) {
  for (Row& row : rows) {
    SCOPED_TRACE(row.what);
    row.breakIt(row.machine);
    const Report report = judge(row.machine);
    EXPECT_EQ(troubles(report), row.expected);
    for (const Finding& finding : report.findings) {
      EXPECT_FALSE(finding.meaning.empty()) << finding.check;
      if (finding.state == notChecked) continue;
      EXPECT_EQ(finding.action.has_value(), finding.isWrong() && !finding.consequenceOf)
          << finding.check;
    }
  }
}

ipc::DaemonStatus failedValidation(core::EnforcementValidationFailure failure) {
  return idleStatus(Validation::failed{failure});
}

}  // namespace

TEST(DoctorJudging, findsNothingOnAMachineOnWhichAllIsWell) {
  for (const Observations& machine : {healthyMachine(), enforcingMachine()}) {
    const Report report = judge(machine);
    EXPECT_THAT(troubles(report), ::testing::IsEmpty());
    EXPECT_TRUE(report.healthy);
  }
}

TEST(DoctorJudging, reportsEveryCheckOnceAndCausesBeforeWhatFollows) {
  const std::vector<std::string_view> order{
      check::network,     check::trustStore, check::clock,  check::portal, check::daemonUnit,
      check::filterUnit,  check::signature,  check::socket, check::daemon, check::stateDirectory,
      check::checkpoints, check::directive,  check::filter, check::rules,  check::controlHost,
      check::probedHost,  check::blocking};
  std::vector<std::string_view> found;
  const Report report = judge(healthyMachine());
  for (const Finding& finding : report.findings) found.push_back(finding.check);
  EXPECT_EQ(found, order);
}

TEST(DoctorJudging, findsWhatIsWrongWithTheWayOut) {
  using Strings = std::vector<std::string>;
  using enum core::EnforcementValidationFailure;
  const auto unreachable = [](Observations& seen, Failure failure) {
    seen.control = failing(failure);
    seen.probed = failing(failure);
    seen.validation = failedValidation(networkUnavailable);
  };
  expectRows({
      {"no network", healthyMachine(),
       Strings{"network", "portal-", "control-host<network", "probed-host<network",
               "blocking<network"},
       [&](Observations& seen) {
         seen.network = authority::NetworkPathSnapshot{};
         unreachable(seen, Failure::nameNotResolved);
       }},
      {"no default route, but a way to the hosts", healthyMachine(), Strings{},
       [](Observations& seen) { seen.network = authority::NetworkPathSnapshot{}; }},
      {"a network that leads nowhere", healthyMachine(),
       Strings{"portal-", "control-host", "probed-host<control-host", "blocking<control-host"},
       [&](Observations& seen) { unreachable(seen, Failure::tookTooLong); }},
      {"a captive portal that redirects", healthyMachine(),
       Strings{"portal", "control-host<portal", "probed-host<portal", "blocking<portal"},
       [&](Observations& seen) {
         seen.control = seen.probed = answeringForAnother();
         seen.validation = failedValidation(inconclusive);
       }},
      {"a captive portal with a certificate of its own", healthyMachine(),
       Strings{"portal", "control-host<portal", "probed-host<portal", "blocking<portal"},
       [&](Observations& seen) { unreachable(seen, Failure::certificateNotTrusted); }},
      {"no trusted authorities", healthyMachine(),
       Strings{"trust-store", "portal<trust-store", "control-host<trust-store",
               "probed-host<trust-store", "blocking<trust-store"},
       [&](Observations& seen) {
         seen.trustStore->certificates = 0;
         unreachable(seen, Failure::certificateNotTrusted);
       }},
      {"a list of authorities that cannot be read", healthyMachine(),
       Strings{"trust-store", "portal-", "control-host<trust-store", "probed-host<trust-store",
               "blocking<trust-store"},
       [&](Observations& seen) {
         seen.trustStore->isReadable = false;
         unreachable(seen, Failure::trustStoreUnusable);
       }},
      {"a clock that makes certificates invalid", healthyMachine(),
       Strings{"clock", "portal-", "control-host<clock", "probed-host<clock", "blocking<clock"},
       [&](Observations& seen) {
         unreachable(seen, Failure::certificateOutsideItsTime);
         seen.controlWhateverTheTime = answering(now + 400'000'000);
       }},
      {"likewise, and nobody tells the time", healthyMachine(),
       Strings{"clock", "portal-", "control-host<clock", "probed-host<clock", "blocking<clock"},
       [&](Observations& seen) {
         unreachable(seen, Failure::certificateOutsideItsTime);
         seen.controlWhateverTheTime = failing(Failure::tookTooLong);
       }},
      {"certificates that have run out by a clock that is right", healthyMachine(),
       Strings{"portal-", "control-host", "probed-host<control-host", "blocking<control-host"},
       [&](Observations& seen) {
         unreachable(seen, Failure::certificateOutsideItsTime);
         seen.controlWhateverTheTime = answering();
       }},
      {"only the probed host's name is not resolved", healthyMachine(),
       Strings{"probed-host", "blocking?<probed-host"},
       [](Observations& seen) { seen.probed = failing(Failure::nameNotResolved); }},
  });
}

TEST(DoctorJudging, holdsTheClockAgainstTheControlHosts) {
  struct ClockRow {
    double ahead;
    FindingState state;
    const char* words;
  };
  const ClockRow rows[]{{0, ok, "agrees"},
                        {60, ok, "agrees"},
                        {-60, ok, "agrees"},
                        {61, warning, "1 min 1 s ahead of"},
                        {-300, warning, "5 min 0 s behind"},
                        {301, failed, "ahead of"},
                        {-86'400, failed, "24 h 0 min behind"}};
  for (const ClockRow& row : rows) {
    SCOPED_TRACE(row.ahead);
    Observations seen = healthyMachine();
    seen.control = answering(now + -row.ahead);
    const Finding clock = findingOf(judge(seen), check::clock);
    EXPECT_EQ(clock.state, row.state);
    EXPECT_THAT(clock.meaning, HasSubstr(row.words));
  }
}

TEST(DoctorJudging, doesNotCallAClockRightThatNobodyCompared) {
  Observations seen = healthyMachine();
  seen.control = failing(Failure::notConnected);
  EXPECT_EQ(findingOf(judge(seen), check::clock).state, ok) << "the network keeps it right";
  seen.clockIsSynchronized = false;
  EXPECT_EQ(findingOf(judge(seen), check::clock).state, notChecked);
  seen.control = answering();
  EXPECT_THAT(findingOf(judge(seen), check::clock).meaning, HasSubstr("nothing keeps it right"));
}

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

TEST(DoctorJudging, wantsAnAnswerOfTheProbedHostUnlessItIsBlocked) {
  using Strings = std::vector<std::string>;
  const auto lend = [](Observations& seen, double lifetime) {
    seen.directive->read->value().validation = filtering::ValidationProbe::issued(
        *core::Domain::make(core::ValidationHosts::probed), now, lifetime);
  };
  expectRows({
      {"cut although nothing blocks it", healthyMachine(),
       Strings{"probed-host", "blocking?<probed-host"},
       [](Observations& seen) { seen.probed = failing(Failure::cut); }},
      {"cut in the middle of a Commitment to other sites", enforcingMachine(),
       Strings{"probed-host", "blocking?<probed-host"},
       [](Observations& seen) { seen.probed = failing(Failure::cut); }},
      {"cut while a probe is lent", healthyMachine(), Strings{},
       [&](Observations& seen) {
         lend(seen, 20);
         seen.probed = failing(Failure::cut);
       }},
      {"answering while a probe is lent", healthyMachine(),
       Strings{"probed-host", "blocking?<probed-host"},
       [&](Observations& seen) { lend(seen, 20); }},
      {"answering after a probe ran out", healthyMachine(), Strings{},
       [&](Observations& seen) { lend(seen, 0); }},
      {"cut, and only root can tell whether a probe is lent", healthyMachine(),
       Strings{"directive-", "probed-host?", "blocking?<probed-host"},
       [](Observations& seen) {
         seen.directive = std::unexpected(NotObserved{.needsRoot = true});
         seen.probed = failing(Failure::cut);
       }},
      {"answering during a Commitment that covers it", enforcingMachine(),
       Strings{"probed-host", "blocking?<probed-host"},
       [](Observations& seen) {
         seen.status->commitment = ipc::CommitmentStatus::active{
             {.scopeGeneration = 2,
              .scope = core::DomainSet::of({*core::Domain::make("larchmoor.com")})}};
       }},
  });
}

TEST(DoctorJudging, tellsWhatTheDaemonsOwnTestCameTo) {
  using Strings = std::vector<std::string>;
  using enum core::EnforcementValidationFailure;
  std::vector<Row> rows;
  for (const auto failure : {extensionNotApproved, filterNotArmed, connectionNotDropped,
                             networkUnavailable, inconclusive}) {
    rows.push_back(
        {"a failure without a cause that is known", healthyMachine(), Strings{"blocking"},
         [failure](Observations& seen) { seen.validation = failedValidation(failure); }});
  }
  rows.push_back({"no answer", healthyMachine(), Strings{"blocking"}, [](Observations& seen) {
                    seen.validation = std::unexpected(ipc::DaemonError::daemonDidNotAnswer{30});
                  }});
  rows.push_back({"no result", healthyMachine(), Strings{"blocking"}, [](Observations& seen) {
                    seen.validation->value().readiness.validation.reset();
                  }});
  rows.push_back(
      {"passed, but degraded", healthyMachine(), Strings{"blocking?"}, [](Observations& seen) {
         seen.validation->value().enforcement =
             core::EnforcementHealthStatus::degraded{core::DegradedReason::failedOpen};
       }});
  expectRows(std::move(rows));
}

TEST(DoctorJudging, leavesToRootWhatOnlyRootMaySee) {
  Observations seen = healthyMachine();
  const NotObserved needsRoot{.needsRoot = true};
  seen.checkpoints = std::unexpected(needsRoot);
  seen.directive = std::unexpected(needsRoot);
  seen.queue = std::unexpected(needsRoot);
  seen.rules = std::unexpected(needsRoot);
  const Report report = judge(seen);
  EXPECT_EQ(troubles(report),
            (std::vector<std::string>{"checkpoints-", "directive-", "filter-", "rules-"}));
  EXPECT_TRUE(report.healthy) << "what was not checked is not known to be wrong";
  EXPECT_THAT(findingOf(report, check::rules).meaning, HasSubstr("root"));
  EXPECT_THAT(reportText(report, {}), HasSubstr("as far as it could be checked"));
}

}  // namespace stillow::doctor
