#include <chrono>
#include <cstdint>

#include <gtest/gtest.h>

#include "StillowAuthority/TickRate.hpp"

namespace stillow::authority {
namespace {

using std::chrono::nanoseconds;

/// As the processors of phones and of newer Macs have it: 24 MHz.
constexpr TickRate slow{125, 3};

TEST(TickRate, isANanosecondWhereTheSystemDoesNotSay) {
  EXPECT_EQ(TickRate::of(false, 125, 3).secondsPerTick(), 0.000000001);
  EXPECT_EQ(TickRate::of(true, 125, 0).secondsPerTick(), 0.000000001);
}

TEST(TickRate, isNumeratorByDenominatorInNanoseconds) {
  EXPECT_EQ(TickRate::of(true, 1, 1).secondsPerTick(), 1e-9);
  EXPECT_DOUBLE_EQ(TickRate::of(true, 125, 3).secondsPerTick() * 24e6, 1.0);
}

TEST(TickRate, givesTicksThatLastAtLeastAsLong) {
  EXPECT_EQ(slow.ticks(std::chrono::seconds(1)), 24'000'000U);
  EXPECT_EQ(slow.ticks(nanoseconds(1)), 1U);
  EXPECT_EQ(slow.ticks(nanoseconds(42)), 2U) << "one tick is 41 and two thirds";
  EXPECT_EQ((TickRate{1, 1}).ticks(nanoseconds(1'000'000'007)), 1'000'000'007U);
}

TEST(TickRate, givesNoTicksForWhatIsOverAlready) {
  EXPECT_EQ(slow.ticks(nanoseconds(0)), 0U);
  EXPECT_EQ(slow.ticks(nanoseconds(-5)), 0U);
}

TEST(TickRate, staysBelowItsLimitWhateverIsAskedFor) {
  EXPECT_EQ((TickRate{1, 1'000'000}).ticks(nanoseconds::max()), TickRate::ticksMax);
  EXPECT_EQ((TickRate{0, 1}).ticks(nanoseconds(1)), TickRate::ticksMax);
  EXPECT_LT(slow.ticks(std::chrono::hours(24 * 365)), TickRate::ticksMax);
}

}  // namespace
}  // namespace stillow::authority
