#pragma once

namespace stillow::filter {

/// How the program ends, in the numbers of <sysexits.h>. Listed in docs/filter.md.
enum class ExitStatus : int {
  success = 0,              ///< a signal asked for it
  usage = 64,               ///< arguments that the program does not know
  kernelWithoutQueue = 69,  ///< no nfnetlink_queue in this kernel
  systemError = 71,         ///< the system refused something else; the last log line says what
  queueHeld = 75,           ///< another program is bound to the queue; its name is in the log
  notPermitted = 77,        ///< not root, or without CAP_NET_ADMIN
};

}  // namespace stillow::filter
