#pragma once

#include <cstdint>

namespace stillow::platform {

/// The queue between the kernel's rules and stillow-filter: one number, used by both.
inline constexpr std::uint16_t filterQueueNumber = 5300;

/// The two bits of packet and connection marks that belong to Stillow. Every other bit is somebody
/// else's (VPNs and policy routing use them) and is carried through unchanged.
///
/// In a packet's mark they are stillow-filter's answer, on their way to the rules; in a
/// connection's mark they are the decision about the flow. Only the value with both bits means "cut
/// off", so that a program that uses one of the bits for its own purposes makes a flow pass, not
/// fail.
struct FlowMark {
  static constexpr std::uint32_t mask = 0x30000000;

  static constexpr std::uint32_t undecided = 0;
  static constexpr std::uint32_t released = 0x10000000;  ///< never asked about again
  static constexpr std::uint32_t keepLooking =
      0x20000000;                                       ///< packets only: ask about the next one
  static constexpr std::uint32_t dropped = 0x30000000;  ///< refused at once, each packet of it

  /// `mark` with its Stillow bits replaced by `bits`.
  [[nodiscard]] static constexpr std::uint32_t replacing(std::uint32_t mark,
                                                         std::uint32_t bits) noexcept {
    return (mark & ~mask) | (bits & mask);
  }

  FlowMark() = delete;
};

}  // namespace stillow::platform
