#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DoctorTesting.hpp"
#include "StillowDoctor/Rendering.hpp"

namespace stillow::doctor {

namespace {

using namespace testing;
using enum FindingState;
using ::testing::HasSubstr;

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
