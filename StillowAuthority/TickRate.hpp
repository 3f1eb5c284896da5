#pragma once

#include <chrono>
#include <cstdint>
#include <limits>

namespace stillow::authority {

/// How long a tick of the system's time counter is: `numerator` / `denominator` nanoseconds.
struct TickRate {
  std::uint32_t numerator = 1;
  std::uint32_t denominator = 1;

  /// One nanosecond to the tick where the system did not say: `isKnown` is false or the rate makes
  /// no sense.
  [[nodiscard]] static constexpr TickRate of(bool isKnown, std::uint32_t numerator,
                                             std::uint32_t denominator) noexcept {
    if (!isKnown || denominator == 0) return {};
    return {numerator, denominator};
  }

  [[nodiscard]] constexpr double secondsPerTick() const noexcept {
    constexpr double nanosecondsPerSecond = 1e9;
    return static_cast<double>(numerator) / static_cast<double>(denominator) / nanosecondsPerSecond;
  }

  /// Ticks that last at least `duration`, and never more than `ticksMax`: a moment further away
  /// would overflow some clock. None for a duration that is not above 0.
  static constexpr std::uint64_t ticksMax = std::numeric_limits<std::int64_t>::max() / 2;
  [[nodiscard]] constexpr std::uint64_t ticks(std::chrono::nanoseconds duration) const noexcept {
    if (duration.count() <= 0) return 0;
    if (numerator == 0) return ticksMax;
    const auto nanoseconds = static_cast<std::uint64_t>(duration.count());
    // In two parts, because the product of the whole can pass 64 bits.
    const std::uint64_t whole = nanoseconds / numerator;
    const std::uint64_t rest = nanoseconds % numerator;
    if (whole >= ticksMax / denominator) return ticksMax;
    return whole * denominator + (rest * denominator + numerator - 1) / numerator;
  }

  friend bool operator==(TickRate, TickRate) = default;
};

}  // namespace stillow::authority
