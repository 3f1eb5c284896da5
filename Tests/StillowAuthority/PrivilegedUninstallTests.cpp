#include <expected>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "StillowAuthority/PrivilegedUninstall.hpp"
#include "TestSupport/TemporaryDirectory.hpp"

namespace stillow::authority {
namespace {

namespace fs = std::filesystem;
using ipc::UninstallRefusalCause;
using ipc::UninstallRuling;
using Outcome = UninstallStepResult::Outcome;

const std::string label = "com.larchmoor.Stillow.daemon";
const UninstallRuling permitted = UninstallRuling::mayUninstall{};

struct RecordingJobs final : PrivilegedJobUnloading {
  std::expected<void, std::string> unload(std::string_view name) override {
    unloaded.emplace_back(name);
    if (onUnload) onUnload();
    return result;
  }
  std::vector<std::string> unloaded;
  std::expected<void, std::string> result;
  std::function<void()> onUnload;
};

/// A machine on which everything that can be removed is there.
struct PrivilegedUninstallTest : testing::Test {
  test::TemporaryDirectory root;
  PrivilegedUninstall::Locations locations{.stateDirectory = root.path("state"),
                                           .developmentLaunchDaemonPlist = root.path("job.plist"),
                                           .developmentHelperBundle = root.path("helper.app"),
                                           .legacyDevelopmentHelperBinary = root.path("helper")};
  std::shared_ptr<RecordingJobs> jobs = std::make_shared<RecordingJobs>();

  static void put(const fs::path& path) {
    fs::create_directories(path.parent_path());
    std::ofstream(path) << "something";
  }
  void SetUp() override {
    put(locations.stateDirectory / "commitment-checkpoint.json");
    put(locations.developmentLaunchDaemonPlist);
    put(locations.developmentHelperBundle / "Contents" / "MacOS" / "helper");
    put(locations.legacyDevelopmentHelperBinary);
  }

  UninstallReport run(const UninstallRuling& ruling = permitted) {
    return PrivilegedUninstall(locations, jobs).run(ruling);
  }
  UninstallReport reportOf(Outcome job, Outcome state, Outcome plist, Outcome bundle,
                           Outcome binary) {
    return {.steps = {{label, job},
                      {locations.stateDirectory.string(), state},
                      {locations.developmentLaunchDaemonPlist.string(), plist},
                      {locations.developmentHelperBundle.string(), bundle},
                      {locations.legacyDevelopmentHelperBinary.string(), binary}}};
  }
  bool isEmpty() const { return fs::is_empty(root.path()); }
};

const Outcome removed = Outcome::removed{};
const Outcome notPresent = Outcome::notPresent{};

TEST(PrivilegedUninstallLocations, areThoseOfMacOSUnlessNamedOtherwise) {
  const PrivilegedUninstall::Locations locations;
  EXPECT_EQ(locations.stateDirectory, "/Library/Application Support/Stillow");
  EXPECT_EQ(locations.developmentLaunchDaemonPlist,
            "/Library/LaunchDaemons/com.larchmoor.Stillow.daemon.plist");
  EXPECT_EQ(locations.developmentHelperBundle,
            "/Library/PrivilegedHelperTools/com.larchmoor.Stillow.daemon.app");
  EXPECT_EQ(locations.legacyDevelopmentHelperBinary,
            "/Library/PrivilegedHelperTools/com.larchmoor.Stillow.daemon");
}

TEST_F(PrivilegedUninstallTest, removesEverythingInOrder) {
  jobs->onUnload = [this] {
    EXPECT_TRUE(fs::exists(locations.stateDirectory)) << "the job ends before its state goes";
  };
  const UninstallReport report = run();
  EXPECT_EQ(report, reportOf(removed, removed, removed, removed, removed));
  EXPECT_TRUE(report.isEverythingGone());
  EXPECT_EQ(jobs->unloaded, std::vector<std::string>{label});
  EXPECT_TRUE(isEmpty());
}

TEST_F(PrivilegedUninstallTest, touchesNothingWhenRefused) {
  for (const UninstallRefusalCause& cause :
       {UninstallRefusalCause(UninstallRefusalCause::commitmentActive{{{5}}}),
        UninstallRefusalCause(UninstallRefusalCause::enforcementStateUnknown{})}) {
    const UninstallReport report = run(UninstallRuling::refused{cause});
    EXPECT_EQ(report, UninstallReport{.refusal = cause});
    EXPECT_FALSE(report.isEverythingGone());
  }
  EXPECT_TRUE(jobs->unloaded.empty());
  EXPECT_TRUE(fs::exists(locations.stateDirectory / "commitment-checkpoint.json"));
  EXPECT_TRUE(fs::exists(locations.developmentLaunchDaemonPlist));
  EXPECT_TRUE(fs::exists(locations.developmentHelperBundle / "Contents" / "MacOS" / "helper"));
  EXPECT_TRUE(fs::exists(locations.legacyDevelopmentHelperBinary));
}

TEST_F(PrivilegedUninstallTest, findsOnlyTheJobToRemoveTheSecondTime) {
  (void)run();
  const UninstallReport again = run();
  EXPECT_EQ(again, reportOf(removed, notPresent, notPresent, notPresent, notPresent));
  EXPECT_TRUE(again.isEverythingGone());
}

TEST_F(PrivilegedUninstallTest, goesOnAfterAJobThatCannotBeEnded) {
  jobs->result = std::unexpected("Operation not permitted");
  const UninstallReport report = run();
  EXPECT_EQ(report, reportOf(Outcome::failed{"Operation not permitted"}, removed, removed, removed,
                             removed));
  EXPECT_FALSE(report.isEverythingGone());
}

TEST_F(PrivilegedUninstallTest, goesOnAfterAFileThatCannotBeRemoved) {
  // Nobody, root included, can remove what the kernel shows there.
  locations.developmentLaunchDaemonPlist = "/proc/version";
  const UninstallReport report = run();
  ASSERT_EQ(report.steps.size(), 5U);
  EXPECT_TRUE(core::is<Outcome::failed>(report.steps[2].outcome));
  EXPECT_EQ(report.steps[3].outcome, removed);
  EXPECT_EQ(report.steps[4].outcome, removed);
  EXPECT_FALSE(report.isEverythingGone());
}

TEST_F(PrivilegedUninstallTest, removesLinksAndNotWhatTheyLeadTo) {
  const fs::path kept = root.path("kept");
  put(kept / "file");
  fs::remove_all(locations.stateDirectory);
  fs::create_directory_symlink(kept, locations.stateDirectory);
  fs::create_directory_symlink(kept, locations.developmentHelperBundle / "link");
  fs::remove(locations.legacyDevelopmentHelperBinary);
  fs::create_symlink(root.path("nowhere"), locations.legacyDevelopmentHelperBinary);
  EXPECT_EQ(run(), reportOf(removed, removed, removed, removed, removed));
  EXPECT_TRUE(fs::exists(kept / "file"));
  EXPECT_EQ(fs::symlink_status(locations.legacyDevelopmentHelperBinary).type(),
            fs::file_type::not_found);
}

TEST_F(PrivilegedUninstallTest, findsNothingBelowAFileThatIsNoDirectory) {
  locations.developmentHelperBundle = locations.legacyDevelopmentHelperBinary / "below";
  EXPECT_EQ(run(), reportOf(removed, removed, removed, notPresent, removed));
}

}  // namespace
}  // namespace stillow::authority
