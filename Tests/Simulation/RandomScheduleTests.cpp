#include <cstdint>
#include <cstdlib>
#include <optional>

#include <gtest/gtest.h>

#include "RandomLife.hpp"

namespace stillow::simulation {
namespace {

constexpr std::uint64_t seedsPerTest = 100;

/// A thousand lives, in ten tests so that they can run side by side.
class RandomSchedules : public testing::TestWithParam<std::uint64_t> {};

/// The seed that STILLOW_SIMULATION_SEED asks for, instead of all others.
std::optional<std::uint64_t> chosenSeed() {
  const char* const chosen = std::getenv("STILLOW_SIMULATION_SEED");
  if (chosen == nullptr) return std::nullopt;
  return std::strtoull(chosen, nullptr, 10);
}

TEST_P(RandomSchedules, breakNoPromise) {
  const auto chosen = chosenSeed();
  const std::uint64_t first = chosen.value_or(GetParam() * seedsPerTest + 1);
  const std::uint64_t last = chosen.value_or(first + seedsPerTest - 1);
  Coverage coverage;
  for (std::uint64_t seed = first; seed <= last; ++seed) {
    RandomLife life(seed, coverage);
    life.run();
    if (HasFailure()) {
      FAIL() << "seed " << seed << "; repeat it with\n  STILLOW_SIMULATION_SEED=" << seed
             << " SimulationTests --gtest_filter='Seeds/RandomSchedules.breakNoPromise/0'\n"
             << life.story();
    }
  }
  if (chosen) return;
  // Otherwise these lives would be too quiet, or too troubled, to show anything.
  EXPECT_GT(coverage.activations, 40);
  EXPECT_GT(coverage.strengthenings, 100);
  EXPECT_GT(coverage.extensions, 50);
  EXPECT_GT(coverage.expiries, 50);
  EXPECT_GT(coverage.acknowledgements, 100);
  EXPECT_GT(coverage.pushes, 300);
  EXPECT_GT(coverage.failedCalls, 500);
  EXPECT_GT(coverage.diskFailures, 500);
  EXPECT_GT(coverage.restartsWithCommitment, 80);
  EXPECT_GT(coverage.degradedLooks, 1'000);
  EXPECT_GT(coverage.looks - coverage.degradedLooks, 500);
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomSchedules, testing::Range<std::uint64_t>(0, 10));

}  // namespace
}  // namespace stillow::simulation
