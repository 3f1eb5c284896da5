#pragma once

#include <cstdint>
#include <expected>
#include <memory>
#include <system_error>

#include "PlatformLinuxFilter/FlowKey.hpp"

namespace stillow::platform {

/// Ends flows that were released earlier, because what they go to is blocked now.
///
/// A TCP connection of this machine is destroyed where it stands: both ends learn of it at once. In
/// any case the flow's connection mark becomes "dropped", so that the rules refuse what it still
/// sends; for UDP, and for flows of containers and virtual machines behind this one, that is all,
/// so they notice with their next packet. UDP sockets are not destroyed, since one may serve many
/// peers.
///
/// Out of reach are flows whose addresses connection tracking knows otherwise than their packets
/// show: forwarded ones whose destination this machine translates.
///
/// For one thread.
class FlowCutter {
 public:
  struct Outcome {
    bool hasDestroyedSocket = false;
    bool hasMarkedConnection = false;
    friend bool operator==(const Outcome&, const Outcome&) = default;
  };

  /// Fails where the kernel has no netlink sockets for it.
  [[nodiscard]] static std::expected<FlowCutter, std::error_code> open();

  FlowCutter(FlowCutter&&) noexcept;
  FlowCutter& operator=(FlowCutter&&) noexcept;
  ~FlowCutter();

  /// A flow that is gone is no error: then neither field of the outcome is true. An error is one of
  /// the kernel's beyond that, such as a kernel that cannot destroy sockets.
  [[nodiscard]] std::expected<Outcome, std::error_code> cut(const FlowKey& flow);

 private:
  struct Impl;
  explicit FlowCutter(std::unique_ptr<Impl> impl) noexcept;

  std::unique_ptr<Impl> impl_;
};

}  // namespace stillow::platform
