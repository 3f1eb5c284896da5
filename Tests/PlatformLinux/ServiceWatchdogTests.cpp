#include <chrono>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "PlatformLinuxDaemon/ServiceWatchdog.hpp"
#include "StillowConcurrency/OneShot.hpp"
#include "StillowCore/FileDescriptor.hpp"
#include "TestSupport/DeterministicExecutor.hpp"

namespace stillow::platform {
namespace {

using namespace std::chrono_literals;
using concurrency::OneShot;
using concurrency::Task;

struct WatchdogWorld {
  void start(std::function<Task<void>()> roundTrip) {
    concurrency::spawn(world.executor(), ServiceWatchdog::feed({.sleeper = world.sleeper(),
                                                                .roundTrip = std::move(roundTrip),
                                                                .giveSign = [this] { ++signs; },
                                                                .interval = 30s}));
    world.runReady();
  }

  int signs = 0;
  test::DeterministicExecutor world;
};

Task<void> answerAtOnce() { co_return; }

Task<void> answerOnce(int& trips, OneShot<bool> never) {
  if (++trips > 1) (void)co_await never.wait();
}

TEST(ServiceWatchdog, givesASignAfterEachRoundTrip) {
  WatchdogWorld watchdog;
  watchdog.start(answerAtOnce);
  EXPECT_EQ(watchdog.signs, 1);
  watchdog.world.advance(29s);
  EXPECT_EQ(watchdog.signs, 1);
  watchdog.world.advance(1s);
  EXPECT_EQ(watchdog.signs, 2);
  watchdog.world.advance(300s);
  EXPECT_EQ(watchdog.signs, 12);
}

TEST(ServiceWatchdog, givesNoSignOnceARoundTripDoesNotComeBack) {
  int trips = 0;
  const OneShot<bool> never;
  WatchdogWorld watchdog;
  watchdog.start([&trips, never] { return answerOnce(trips, never); });
  EXPECT_EQ(watchdog.signs, 1);
  watchdog.world.advance(300s);
  EXPECT_EQ(watchdog.signs, 1);
  EXPECT_EQ(trips, 2);
  // Late is better than never: it goes on from there.
  never.settle(true);
  watchdog.world.runReady();
  EXPECT_EQ(watchdog.signs, 2);
}

/// Restores what the environment held, which other tests of this process may use.
class EnvironmentValue {
 public:
  EnvironmentValue(const char* name, const std::string& value) : name_(name) {
    if (const char* before = std::getenv(name)) before_ = before;
    (void)::setenv(name, value.c_str(), 1);
  }
  EnvironmentValue(const EnvironmentValue&) = delete;
  EnvironmentValue& operator=(const EnvironmentValue&) = delete;
  ~EnvironmentValue() {
    (void)(before_ ? ::setenv(name_, before_->c_str(), 1) : ::unsetenv(name_));
  }

 private:
  const char* name_;
  std::optional<std::string> before_;
};

TEST(ServiceWatchdog, isFedTwiceInTheTimeThatTheManagerWaits) {
  const EnvironmentValue limit("WATCHDOG_USEC", "60000000");
  const EnvironmentValue process("WATCHDOG_PID", std::to_string(::getpid()));
  EXPECT_EQ(ServiceWatchdog::interval(), 30s);
}

TEST(ServiceWatchdog, isNotThereForAnotherProcessOrWithoutALimit) {
  {
    const EnvironmentValue limit("WATCHDOG_USEC", "60000000");
    const EnvironmentValue process("WATCHDOG_PID", std::to_string(::getpid() + 1));
    EXPECT_EQ(ServiceWatchdog::interval(), std::nullopt);
  }
  EXPECT_EQ(ServiceWatchdog::interval(), std::nullopt);
}

TEST(ServiceWatchdog, isToldThroughTheManagersSocket) {
  // A name without a file: it goes with the socket.
  const std::string name = "stillow-watchdog-test-" + std::to_string(::getpid());
  const core::FileDescriptor manager(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  ASSERT_EQ(::bind(manager.get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
  const EnvironmentValue socketName("NOTIFY_SOCKET", "@" + name);
  ServiceWatchdog::notifyManager();
  char said[64]{};
  const ssize_t count = ::recv(manager.get(), said, sizeof said, MSG_DONTWAIT);
  ASSERT_GT(count, 0);
  EXPECT_EQ(std::string(said, static_cast<std::size_t>(count)), "WATCHDOG=1");
}

}  // namespace
}  // namespace stillow::platform
