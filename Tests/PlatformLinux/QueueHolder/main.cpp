// Stands in for stillow-filter where only its place counts: binds the filter's queue as the filter
// does, says so by one byte on the descriptor that its argument names, and stays until it is ended.

#include <csignal>
#include <cstdlib>
#include <iostream>

#include <sys/prctl.h>
#include <unistd.h>

#include "PlatformLinuxFilter/FlowMark.hpp"
#include "PlatformLinuxFilter/PacketQueue.hpp"

int main(int argumentCount, char** arguments) {
  if (argumentCount != 2) return 2;
  (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
  const auto queue = stillow::platform::PacketQueue::bind(stillow::platform::filterQueueNumber);
  if (!queue) {
    std::cerr << queue.error().message << '\n';
    return 1;
  }
  const int ready = std::atoi(arguments[1]);
  if (::write(ready, "+", 1) != 1) return 3;
  (void)::close(ready);
  while (true) (void)::pause();
}
