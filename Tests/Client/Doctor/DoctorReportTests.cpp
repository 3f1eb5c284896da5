#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "DoctorTesting.hpp"
#include "StillowDoctor/Gathering.hpp"
#include "StillowDoctor/Rendering.hpp"

namespace stillow::doctor {

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

Report sampleReport() {
  return {.healthy = false,
          .findings = {{.check = "network", .meaning = "There is a way out."},
                       {.check = "clock",
                        .state = FindingState::failed,
                        .meaning = "It is wrong.",
                        .action = "Set it."},
                       {.check = "control-host",
                        .state = FindingState::failed,
                        .meaning = "It is not reached.",
                        .consequenceOf = "clock"},
                       {.check = "rules",
                        .state = FindingState::notChecked,
                        .meaning = "Only root may look at it."}}};
}

}  // namespace

// What scripts read. Another form is another version.
TEST(DoctorReport, hasOneFormInJSON) {
  EXPECT_EQ(reportJSON(sampleReport()),
            R"({"version":1,"healthy":false,"findings":[)"
            R"({"check":"network","state":"ok","meaning":"There is a way out."},)"
            R"({"check":"clock","state":"failed","meaning":"It is wrong.","action":"Set it."},)"
            R"({"check":"control-host","state":"failed","meaning":"It is not reached.",)"
            R"("consequenceOf":"clock"},)"
            R"({"check":"rules","state":"notChecked","meaning":"Only root may look at it."}]})");
}

TEST(DoctorReport, saysWhatToDoOnceForEachCause) {
  EXPECT_EQ(reportText(sampleReport(), {}),
            "ok           network          There is a way out.\n"
            "failed       clock            It is wrong.\n"
            "                              → Set it.\n"
            "failed       control-host     It is not reached. This follows from: clock.\n"
            "not checked  rules            Only root may look at it.\n"
            "\n"
            "To be put right: clock.\n");
}

TEST(DoctorReport, hasColourOnlyWhereItIsWanted) {
  EXPECT_THAT(reportText(sampleReport(), {}), Not(HasSubstr("\x1b")));
  const std::string coloured = reportText(sampleReport(), {.hasColour = true});
  EXPECT_THAT(coloured, HasSubstr("\x1b[31mfailed\x1b[0m       clock"));
  EXPECT_THAT(coloured, HasSubstr("\x1b[2mfailed\x1b[0m       control-host"));
}

TEST(DoctorReport, breaksLinesAtTheEdgeOfTheWindow) {
  Report report;
  report.findings = {{.check = "clock", .meaning = "one two three four five six seven eight"}};
  EXPECT_THAT(reportText(report, {.columns = 60}),
              HasSubstr("ok           clock            one two three four five six\n"
                        "                              seven eight\n"));
  EXPECT_THAT(reportText(report, {.columns = 40}), HasSubstr("one two three four five six seven"));
}

TEST(DoctorReport, letsNoTextSteerTheTerminal) {
  Report report;
  report.findings = {{.check = "filter", .meaning = "Held by \x1b[2J\r\n\x7f."}};
  const std::string text = reportText(report, {});
  EXPECT_THAT(text, Not(HasSubstr("\r")));
  EXPECT_THAT(text, Not(HasSubstr("\x1b")));
}

TEST(DoctorReport, isHealthyAsLongAsNothingIsWrong) {
  EXPECT_THAT(reportText(judge(testing::healthyMachine()), {}), HasSubstr("\nAll is well.\n"));
}

namespace {

/// A machine that is seen as it is given, and what was done on the way.
struct RecordedInstruments {
  Observations machine = testing::healthyMachine();
  std::vector<std::string> done;

  Instruments instruments() {
    return {.now = [this] { return machine.now; },
            .hasServiceManager = [this] { return machine.hasServiceManager; },
            .unit = [this](std::string_view) { return machine.daemonUnit; },
            .signature = [this] { return machine.signature; },
            .socket = [this] { return machine.socket; },
            .status = [this] { return noted("status", machine.status); },
            .reach = [this](const ipc::DaemonError&) { return noted("reach", machine.reach); },
            .stateDirectory = [this] { return machine.stateDirectory; },
            .checkpoints = [this] { return machine.checkpoints; },
            .directive = [this] { return noted("directive", machine.directive); },
            .queue = [this] { return machine.queue; },
            .rules = [this] { return machine.rules; },
            .network = [this] { return machine.network; },
            .trustStore = [this] { return machine.trustStore; },
            .clockIsSynchronized = [this] { return machine.clockIsSynchronized; },
            .exchange =
                [this](const std::string& host, platform::CertificateTimes times) {
                  const bool isVerified = times == platform::CertificateTimes::verified;
                  done.push_back(host.substr(0, 3) + (isVerified ? "" : " whatever the time"));
                  return host == core::ValidationHosts::probed ? machine.probed : machine.control;
                },
            .validate = [this] { return noted("validate", *machine.validation); },
            .progress = [](std::string_view) {}};
  }

 private:
  template <class T>
  T noted(const char* what, const T& seen) {
    done.emplace_back(what);
    return seen;
  }
};

}  // namespace

// A probe that the daemon lends would make the probed host look dead.
TEST(DoctorGathering, hasTheBlockTestedLast) {
  RecordedInstruments recorded;
  const Observations seen = gather(recorded.instruments());
  EXPECT_THAT(recorded.done, ElementsAre("status", "directive", "new", "old", "validate"));
  EXPECT_TRUE(judge(seen).healthy);
}

TEST(DoctorGathering, asksNoDaemonForATestThatDoesNotAnswer) {
  RecordedInstruments recorded;
  testing::stopDaemon(recorded.machine, client::ReachCause::socketMissing);
  const Observations seen = gather(recorded.instruments());
  EXPECT_THAT(recorded.done, ElementsAre("status", "reach", "directive", "new", "old"));
  EXPECT_FALSE(seen.validation);
  EXPECT_TRUE(seen.reach);
}

TEST(DoctorGathering, asksForTheTimeAgainWhereCertificatesAreNotOfIt) {
  RecordedInstruments recorded;
  recorded.machine.control = testing::failing(testing::Failure::certificateOutsideItsTime);
  const Observations seen = gather(recorded.instruments());
  EXPECT_THAT(recorded.done, ElementsAre("status", "directive", "new", "new whatever the time",
                                         "old", "validate"));
  EXPECT_TRUE(seen.controlWhateverTheTime);
}

}  // namespace stillow::doctor
