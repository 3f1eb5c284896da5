#include <cstdint>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "StillowIPC/DaemonRegistration.hpp"
#include "TestSupport/TemporaryDirectory.hpp"

namespace stillow::ipc {
namespace {

namespace fs = std::filesystem;
using State = DaemonRegistration::State;
using Result = DaemonRegistration::Result;

TEST(DaemonRegistration, readsTheStatusesOfServiceManagement) {
  EXPECT_EQ(DaemonRegistration::stateOf(0), State::notRegistered);
  EXPECT_EQ(DaemonRegistration::stateOf(1), State::enabled);
  EXPECT_EQ(DaemonRegistration::stateOf(2), State::awaitingApproval);
  EXPECT_EQ(DaemonRegistration::stateOf(3), State::notFound);
  for (const std::int64_t unknown :
       {std::int64_t{-1}, std::int64_t{4}, std::numeric_limits<std::int64_t>::min(),
        std::numeric_limits<std::int64_t>::max()}) {
    EXPECT_EQ(DaemonRegistration::stateOf(unknown), State::notFound) << unknown;
  }
}

/// Numbers the service objects that it hands out, and notes what each is asked.
struct ScriptedServices final : DaemonServiceManaging {
  struct Service final : DaemonService {
    Service(ScriptedServices& o, std::size_t n) : owner(o), number(n) {}
    State state() override { return owner.current; }
    Result registerService() override { return note("register", owner.registering); }
    Result unregisterService() override { return note("unregister", owner.unregistering); }
    Result note(const char* what, const Result& result) const {
      owner.calls.push_back(what + (" on " + std::to_string(number)));
      return result;
    }
    ScriptedServices& owner;
    std::size_t number;
  };
  std::unique_ptr<DaemonService> daemonService() override {
    return std::make_unique<Service>(*this, ++handedOut);
  }

  State current = State::enabled;
  Result registering;
  Result unregistering;
  std::size_t handedOut = 0;
  std::vector<std::string> calls;
};

const PlatformError denied{"SMAppServiceErrorDomain", 1, "Operation not permitted", std::nullopt};

TEST(DaemonRegistration, givesTheStateAsItIs) {
  ScriptedServices services;
  for (const State state :
       {State::enabled, State::awaitingApproval, State::notRegistered, State::notFound}) {
    services.current = state;
    EXPECT_EQ(DaemonRegistration::state(services), state);
  }
}

TEST(DaemonRegistration, passesTheErrorOfRegisteringOn) {
  ScriptedServices services;
  EXPECT_TRUE(DaemonRegistration::registerDaemon(services));
  services.registering = std::unexpected(denied);
  EXPECT_EQ(DaemonRegistration::registerDaemon(services).error(), denied);
}

TEST(DaemonRegistration, registersAgainOnAFreshServiceWhateverBecameOfTheOldOne) {
  ScriptedServices services;
  services.unregistering = std::unexpected(denied);
  EXPECT_TRUE(DaemonRegistration::reregisterDaemon(services));
  EXPECT_EQ(services.calls, (std::vector<std::string>{"unregister on 1", "register on 2"}));
  services.registering = std::unexpected(denied);
  EXPECT_EQ(DaemonRegistration::reregisterDaemon(services).error(), denied);
}

/// An application with a daemon's program in it.
struct DaemonProgramTest : testing::Test {
  test::TemporaryDirectory directory;
  fs::path bundle = directory.path("Stillow.app");
  std::optional<std::string> value = "Contents/MacOS/StillowDaemon";
  std::vector<fs::path> lists;

  DaemonProgramTest() { fs::create_directories(bundle / "Contents/MacOS"); }
  void putProgram(fs::perms permissions) {
    const fs::path path = bundle / "Contents/MacOS/StillowDaemon";
    std::ofstream(path) << "a program";
    fs::permissions(path, permissions);
  }
  DaemonRegistration::PropertyListText reader() {
    return [this](const fs::path& list, std::string_view key) {
      lists.push_back(list);
      return key == "BundleProgram" ? value : std::nullopt;
    };
  }
  std::optional<fs::path> program() { return DaemonRegistration::daemonProgram(bundle, reader()); }
  bool isUsable() { return DaemonRegistration::isDaemonProgramUsable(bundle, reader()); }
};

TEST_F(DaemonProgramTest, liesWhereThePropertyListSays) {
  EXPECT_EQ(program(), bundle / "Contents/MacOS/StillowDaemon");
  EXPECT_EQ(lists,
            (std::vector<fs::path>{
                bundle / "Contents/Library/LaunchDaemons/com.larchmoor.Stillow.daemon.plist"}));
  value = "/Contents/MacOS/StillowDaemon";
  EXPECT_EQ(program(), bundle / "Contents/MacOS/StillowDaemon");
}

TEST_F(DaemonProgramTest, liesNowhereWithoutANameInThePropertyList) {
  for (const auto& none : {std::optional<std::string>(), std::optional<std::string>("")}) {
    value = none;
    EXPECT_EQ(program(), std::nullopt);
    EXPECT_FALSE(isUsable());
  }
}

TEST_F(DaemonProgramTest, isUsableAsAnExecutableFile) {
  EXPECT_FALSE(isUsable()) << "it is not there";
  putProgram(fs::perms::owner_read);
  EXPECT_FALSE(isUsable()) << "it may not be executed";
  putProgram(fs::perms::owner_read | fs::perms::owner_exec);
  EXPECT_TRUE(isUsable());
  value = "Contents/MacOS";
  EXPECT_FALSE(isUsable()) << "it is a directory";
}

}  // namespace
}  // namespace stillow::ipc
