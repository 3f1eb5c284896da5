#pragma once

#include <utility>

#include "StillowIPC/DaemonWireCoding.hpp"

namespace stillow::ipc {

/// Which status to push next to a peer that may be slow: one at a time is on its way, and of those
/// offered meanwhile only the newest waits, since a status is a full snapshot.
///
/// Not synchronised: the connection's lock guards it and is held while what comes out of here is
/// handed to the system, so that the order stays.
class NewestPush {
 public:
  /// What to send now; null if it has to wait for the one on its way.
  [[nodiscard]] SharedBytes offer(SharedBytes status) {
    if (isOnItsWay_) {
      waiting_ = std::move(status);
      return nullptr;
    }
    isOnItsWay_ = true;
    return status;
  }

  /// The one on its way has left. What to send next; null if there is nothing.
  [[nodiscard]] SharedBytes noteSent() {
    isOnItsWay_ = waiting_ != nullptr;
    return takeWaiting();
  }

  /// What waits, to be sent out of turn before an answer; null if nothing does. Whatever is on its
  /// way stays so.
  [[nodiscard]] SharedBytes takeWaiting() { return std::exchange(waiting_, nullptr); }

 private:
  bool isOnItsWay_ = false;
  SharedBytes waiting_;
};

}  // namespace stillow::ipc
