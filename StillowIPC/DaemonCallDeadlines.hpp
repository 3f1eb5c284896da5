#pragma once

#include <chrono>

namespace stillow::ipc {

/// How long a client waits for an answer.
struct DaemonCallDeadlines {
  std::chrono::nanoseconds ordinary;
  /// Of `validateEnforcement` alone, which waits for the network.
  std::chrono::nanoseconds enforcementValidation;

  [[nodiscard]] static constexpr DaemonCallDeadlines standard() noexcept {
    return {std::chrono::seconds(5), std::chrono::seconds(30)};
  }
  /// For a caller that has another way to find out, such as the uninstaller.
  [[nodiscard]] static constexpr DaemonCallDeadlines quick() noexcept {
    return {std::chrono::seconds(2), std::chrono::seconds(30)};
  }

  friend bool operator==(const DaemonCallDeadlines&, const DaemonCallDeadlines&) = default;
};

}  // namespace stillow::ipc
