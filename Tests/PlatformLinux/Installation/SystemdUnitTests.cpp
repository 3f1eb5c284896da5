#include <chrono>
#include <expected>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "PlatformLinuxInstallation/InstalledFiles.hpp"
#include "PlatformLinuxInstallation/SystemctlJobUnloader.hpp"
#include "PlatformLinuxInstallation/SystemdContentFilter.hpp"
#include "PlatformLinuxInstallation/SystemdServices.hpp"
#include "PlatformLinuxInstallation/SystemdUnit.hpp"
#include "TestSupport/TemporaryDirectory.hpp"

namespace stillow::platform {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Installation = SystemdUnit::Installation;

constexpr const char* label = "com.larchmoor.Stillow.daemon";
constexpr const char* showsEnabled = "LoadState=loaded\nUnitFileState=enabled\n";
constexpr const char* showsNothing = "LoadState=not-found\nUnitFileState=\n";

/// Answers each systemctl verb as told, and success where nothing was told.
struct ScriptedSystemctl final : CommandRunning {
  using Result = std::expected<CommandResult, CommandFailure>;

  Result run(const Command& command) override {
    EXPECT_EQ(command.arguments.at(0), "systemctl");
    EXPECT_EQ(command.arguments.at(1), "--no-ask-password");
    std::string line;
    for (std::size_t at = 2; at < command.arguments.size(); ++at) {
      line += (at == 2 ? "" : " ") + command.arguments[at];
    }
    calls.push_back(line);
    const std::string& verb = command.arguments.at(2);
    if (verb == "stop") return stop;
    if (verb == "disable") return disable;
    if (verb == "enable") return enable;
    return show;
  }

  Result stop;
  Result disable;
  Result enable;
  Result show = CommandResult{.output = showsNothing};
  std::vector<std::string> calls;
};

std::unexpected<CommandFailure> failure(CommandFailure::Reason reason, std::string description) {
  return std::unexpected(CommandFailure{reason, std::move(description)});
}

struct SystemctlJobUnloaderTest : testing::Test {
  std::shared_ptr<ScriptedSystemctl> systemctl = std::make_shared<ScriptedSystemctl>();
  std::expected<void, std::string> unload() {
    return SystemctlJobUnloader(systemctl).unload(label);
  }
  std::string reason() {
    const auto unloaded = unload();
    return unloaded ? std::string("success") : unloaded.error();
  }
};

TEST_F(SystemctlJobUnloaderTest, stopsAndDisablesTheUnitOfThatName) {
  EXPECT_TRUE(unload());
  EXPECT_EQ(systemctl->calls,
            (std::vector<std::string>{"stop com.larchmoor.Stillow.daemon.service",
                                      "disable com.larchmoor.Stillow.daemon.service"}));
}

TEST_F(SystemctlJobUnloaderTest, countsAUnitThatIsNotLoadedAsUnloaded) {
  systemctl->stop = CommandResult{.exitStatus = 5, .errors = "Unit x.service not loaded.\n"};
  systemctl->disable =
      CommandResult{.exitStatus = 1, .errors = "Unit file x.service does not exist.\n"};
  EXPECT_TRUE(unload());
}

TEST_F(SystemctlJobUnloaderTest, countsAMaskedUnitAsDisabled) {
  systemctl->disable = CommandResult{.exitStatus = 1, .errors = "Unit file is masked.\n"};
  systemctl->show = CommandResult{.output = "LoadState=masked\nUnitFileState=masked\n"};
  EXPECT_TRUE(unload());
}

TEST_F(SystemctlJobUnloaderTest, givesStandardErrorAsTheReason) {
  systemctl->stop = CommandResult{.exitStatus = 1, .errors = " \n Access denied\n\n"};
  EXPECT_EQ(reason(), "Access denied");
}

TEST_F(SystemctlJobUnloaderTest, givesTheExitStatusWhereStandardErrorSaysNothing) {
  for (const std::string errors : {"", " \n\t", "\xff\xfe"}) {
    systemctl->stop = CommandResult{.exitStatus = 4, .errors = errors};
    EXPECT_EQ(reason(), "systemctl stop exited 4");
  }
}

TEST_F(SystemctlJobUnloaderTest, disablesAlsoAUnitThatCannotBeStopped) {
  systemctl->stop = CommandResult{.exitStatus = 1, .errors = "stuck"};
  EXPECT_EQ(reason(), "stuck");
  EXPECT_EQ(systemctl->calls.back(), "disable com.larchmoor.Stillow.daemon.service");
}

TEST_F(SystemctlJobUnloaderTest, failsForAUnitThatStaysEnabled) {
  systemctl->disable = CommandResult{.exitStatus = 1, .errors = "Read-only file system\n"};
  systemctl->show = CommandResult{.output = showsEnabled};
  EXPECT_EQ(reason(), "Read-only file system");
  systemctl->show = failure(CommandFailure::Reason::tookTooLong, "hangs");
  EXPECT_EQ(reason(), "Read-only file system") << "nobody knows that it is disabled";
  systemctl->show = CommandResult{.output = "what?"};
  EXPECT_EQ(reason(), "Read-only file system");
}

TEST_F(SystemctlJobUnloaderTest, saysWhenItCannotBeRunOrHangs) {
  for (const char* const why : {"The command systemctl could not be started", "It took too long"}) {
    systemctl->stop = failure(CommandFailure::Reason::notStarted, why);
    EXPECT_EQ(reason(), why);
  }
}

struct SystemdUnitTest : testing::Test {
  std::shared_ptr<ScriptedSystemctl> systemctl = std::make_shared<ScriptedSystemctl>();
  SystemdUnit unit{systemctl, label};
};

TEST_F(SystemdUnitTest, readsWhatSystemdSaysOfItsInstallation) {
  struct Row {
    const char* output;
    Installation installation;
  };
  for (const Row& row :
       {Row{showsNothing, Installation::absent}, Row{showsEnabled, Installation::enabled},
        Row{"UnitFileState=enabled-runtime\nLoadState=loaded\n", Installation::enabled},
        Row{"LoadState=loaded\nUnitFileState=disabled\n", Installation::disabled},
        Row{"LoadState=loaded\nUnitFileState=static\n", Installation::disabled},
        Row{"LoadState=loaded\nUnitFileState=\n", Installation::disabled},
        Row{"LoadState=masked\nUnitFileState=masked\n", Installation::masked},
        Row{"LoadState=loaded\nUnitFileState=masked-runtime\n", Installation::masked},
        // Still running from before it was masked.
        Row{"LoadState=loaded\nUnitFileState=masked\n", Installation::masked}}) {
    SCOPED_TRACE(row.output);
    systemctl->show = CommandResult{.output = row.output};
    const auto installation = unit.installation();
    ASSERT_TRUE(installation.has_value());
    EXPECT_EQ(*installation, row.installation);
  }
  EXPECT_EQ(systemctl->calls.back(),
            "show --property=LoadState --property=UnitFileState "
            "com.larchmoor.Stillow.daemon.service");
}

TEST_F(SystemdUnitTest, doesNotGuessWhenSystemdSaysNothing) {
  systemctl->show = CommandResult{};
  EXPECT_FALSE(unit.installation().has_value());
  systemctl->show = CommandResult{.exitStatus = 1, .errors = "Failed to connect to bus"};
  EXPECT_EQ(unit.installation().error(), "Failed to connect to bus");
}

struct SystemdServicesTest : testing::Test {
  std::shared_ptr<ScriptedSystemctl> systemctl = std::make_shared<ScriptedSystemctl>();
  SystemdServices services{systemctl};
  using State = ipc::DaemonRegistration::State;

  State stateFor(const char* output) {
    systemctl->show = CommandResult{.output = output};
    return ipc::DaemonRegistration::state(services);
  }
};

TEST_F(SystemdServicesTest, seeAMaskedUnitAsOneThatWaitsForApproval) {
  EXPECT_EQ(stateFor(showsEnabled), State::enabled);
  EXPECT_EQ(stateFor("LoadState=masked\nUnitFileState=masked\n"), State::awaitingApproval);
  EXPECT_EQ(stateFor("LoadState=loaded\nUnitFileState=disabled\n"), State::notRegistered);
  EXPECT_EQ(stateFor(showsNothing), State::notFound);
  systemctl->show = failure(CommandFailure::Reason::notStarted, "no systemd here");
  EXPECT_EQ(ipc::DaemonRegistration::state(services), State::notFound);
}

TEST_F(SystemdServicesTest, enableTheUnitAndStartIt) {
  EXPECT_TRUE(ipc::DaemonRegistration::registerDaemon(services));
  EXPECT_EQ(systemctl->calls,
            std::vector<std::string>{"enable --now com.larchmoor.Stillow.daemon.service"});
  systemctl->enable = CommandResult{.exitStatus = 1, .errors = "Unit is masked.\n"};
  EXPECT_EQ(ipc::DaemonRegistration::registerDaemon(services).error().description,
            "Unit is masked.");
}

TEST_F(SystemdServicesTest, registerAgainThoughTheOldUnitCannotBeStopped) {
  systemctl->stop = CommandResult{.exitStatus = 1, .errors = "stuck"};
  EXPECT_TRUE(ipc::DaemonRegistration::reregisterDaemon(services));
  EXPECT_EQ(systemctl->calls.back(), "enable --now com.larchmoor.Stillow.daemon.service");
}

// A program in systemctl's place, run as the real one is.

struct FakeSystemctl {
  test::TemporaryDirectory directory;
  explicit FakeSystemctl(const std::string& body) {
    const std::string path = directory.path("systemctl");
    std::ofstream(path) << "#!/bin/sh\necho \"$@\" >> '" << log() << "'\n" << body << "\n";
    fs::permissions(path, fs::perms::owner_all);
  }
  std::string log() const { return directory.path("log"); }
  std::shared_ptr<CommandRunner> runner(std::chrono::nanoseconds limit = 60s) const {
    return std::make_shared<CommandRunner>(limit, std::vector<std::string>{directory.path()});
  }
};

TEST(SystemctlJobUnloader, runsTheRealProgramWithRealExitStatuses) {
  const FakeSystemctl absent(
      "case $2 in stop) echo 'not loaded' >&2; exit 5;; disable) echo 'no file' >&2; exit 1;;\n"
      "show) echo LoadState=not-found; echo UnitFileState=;; esac");
  EXPECT_TRUE(SystemctlJobUnloader(absent.runner()).unload(label));
  std::ifstream log(absent.log());
  std::string first;
  std::getline(log, first);
  EXPECT_EQ(first, "--no-ask-password stop com.larchmoor.Stillow.daemon.service");

  const FakeSystemctl denied("echo 'Interactive authentication required.' >&2; exit 4");
  EXPECT_EQ(SystemctlJobUnloader(denied.runner()).unload(label).error(),
            "Interactive authentication required.");
}

TEST(SystemctlJobUnloader, saysThatThereIsNoSystemctl) {
  const test::TemporaryDirectory empty;
  const auto unloaded =
      SystemctlJobUnloader(std::make_shared<CommandRunner>(5s, std::vector{empty.path()}))
          .unload(label);
  ASSERT_FALSE(unloaded.has_value());
  EXPECT_NE(unloaded.error().find("systemctl"), std::string::npos) << unloaded.error();
}

struct SystemdContentFilterTest : testing::Test {
  struct Jobs final : authority::PrivilegedJobUnloading {
    std::expected<void, std::string> unload(std::string_view name) override {
      deeds->push_back("unload " + std::string(name));
      return result;
    }
    std::vector<std::string>* deeds = nullptr;
    std::expected<void, std::string> result;
  };

  test::TemporaryDirectory root;
  std::vector<std::string> deeds;
  std::shared_ptr<Jobs> jobs = std::make_shared<Jobs>();
  std::expected<void, std::string> rules;
  std::string unitPath = root.path("filter.service");

  std::expected<void, std::string> remove() {
    jobs->deeds = &deeds;
    return SystemdContentFilter({.removeRules =
                                     [this] {
                                       deeds.emplace_back("remove rules");
                                       return rules;
                                     },
                                 .jobs = jobs,
                                 .developmentUnitPath = unitPath})
        .remove();
  }
};

TEST_F(SystemdContentFilterTest, takesTheRulesAwayBeforeTheFilter) {
  std::ofstream(unitPath) << "[Service]";
  EXPECT_TRUE(remove());
  EXPECT_EQ(deeds,
            (std::vector<std::string>{"remove rules", "unload com.larchmoor.Stillow.filter"}));
  EXPECT_FALSE(fs::exists(unitPath));
  EXPECT_TRUE(remove()) << "nothing to remove is no failure";
}

TEST_F(SystemdContentFilterTest, triesEverythingAndNamesEveryFailure) {
  rules = std::unexpected("The command iptables-save failed.");
  jobs->result = std::unexpected("stuck");
  unitPath = "/proc/version";
  EXPECT_EQ(remove().error(),
            "The command iptables-save failed; stuck; /proc/version: Operation not permitted");
  EXPECT_EQ(deeds.size(), 2U);
}

TEST(InstalledFiles, areNeverInPlacesThatAPackageOwns) {
  const auto locations = uninstallLocations("/Library/Application Support/Stillow");
  EXPECT_EQ(locations.stateDirectory, "/Library/Application Support/Stillow");
  EXPECT_EQ(locations.developmentLaunchDaemonPlist,
            "/etc/systemd/system/com.larchmoor.Stillow.daemon.service");
  for (const auto& path :
       {locations.developmentHelperBundle, locations.legacyDevelopmentHelperBinary}) {
    EXPECT_TRUE(path.string().starts_with("/usr/local/")) << path;
  }
  EXPECT_TRUE(std::string(developmentFilterUnitPath).starts_with("/etc/systemd/system/"));
}

}  // namespace
}  // namespace stillow::platform
