#include <cstdint>
#include <limits>

#include <gtest/gtest.h>

#include "StillowAuthority/RecoveryBackoff.hpp"

namespace stillow::authority {
namespace {

TEST(RecoveryBackoff, doublesFromFiveSecondsToFiveMinutes) {
  constexpr RecoveryBackoff backoff;
  const double expected[]{5, 10, 20, 40, 80, 160, 300, 300, 300};
  std::int64_t attempt = 0;
  for (const double seconds : expected) EXPECT_EQ(backoff.delay(++attempt), seconds) << attempt;
}

TEST(RecoveryBackoff, waitsFiveMinutesForEveryAttemptFromTheSeventhOn) {
  constexpr RecoveryBackoff backoff;
  EXPECT_EQ(backoff.delay(7), 300);
  EXPECT_EQ(backoff.delay(1'000), 300);
  EXPECT_EQ(backoff.delay(std::numeric_limits<std::int64_t>::max()), 300);
}

TEST(RecoveryBackoff, neverWaitsLongerThanItsMaximum) {
  constexpr RecoveryBackoff backoff{.initialDelay = 50, .multiplier = 3, .maximumDelay = 40};
  EXPECT_EQ(backoff.delay(1), 40);
  EXPECT_EQ(backoff.delay(2), 40);
}

TEST(RecoveryBackoff, multipliesOncePerAttempt) {
  constexpr RecoveryBackoff backoff{.initialDelay = 1, .multiplier = 10, .maximumDelay = 250};
  EXPECT_EQ(backoff.delay(3), 100);
  EXPECT_EQ(backoff.delay(4), 250);
}

}  // namespace
}  // namespace stillow::authority
