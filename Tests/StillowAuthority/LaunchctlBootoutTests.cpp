#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "StillowAuthority/LaunchctlBootout.hpp"

namespace stillow::authority {
namespace {

std::string reason(int exitStatus, std::string_view standardError) {
  const auto result = LaunchctlBootout::result(exitStatus, standardError);
  return result ? "success" : result.error();
}

TEST(LaunchctlBootout, namesTheJobInTheSystemsDomain) {
  EXPECT_THAT(LaunchctlBootout::arguments("com.larchmoor.Stillow.daemon"),
              testing::ElementsAre("bootout", "system/com.larchmoor.Stillow.daemon"));
}

TEST(LaunchctlBootout, succeedsIfTheJobWasEndedOrNotLoaded) {
  EXPECT_EQ(reason(0, "said in passing"), "success");
  EXPECT_EQ(reason(3, "Boot-out failed: 3: No such process"), "success");
}

TEST(LaunchctlBootout, failsWithWhatTheCommandSaid) {
  EXPECT_EQ(reason(1, "\n Boot-out failed: 1: Operation not permitted \n"),
            "Boot-out failed: 1: Operation not permitted");
}

TEST(LaunchctlBootout, failsWithItsExitStatusIfItSaidNothingReadable) {
  EXPECT_EQ(reason(5, ""), "launchctl bootout exited 5");
  EXPECT_EQ(reason(36, " \t\n"), "launchctl bootout exited 36");
  EXPECT_EQ(reason(1, "\xff\xfe"), "launchctl bootout exited 1");
}

}  // namespace
}  // namespace stillow::authority
