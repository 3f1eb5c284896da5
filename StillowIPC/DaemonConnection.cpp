#include "StillowIPC/DaemonConnection.hpp"

#include "StillowIPC/DaemonError.hpp"

namespace stillow::ipc {

void CallAnswer::Call::settle(DaemonReply reply) {
  if (isSettled.exchange(true)) return;
  // What it captured goes with it, not with the last copy of the answer.
  const auto deliverOnce = std::exchange(deliver, nullptr);
  deliverOnce(std::move(reply));
}

CallAnswer::Call::~Call() {
  settle(
      DaemonReply::of(DaemonError(DaemonError::internalFailure{"The call ended without an answer."})
                          .platformError()));
}

}  // namespace stillow::ipc
