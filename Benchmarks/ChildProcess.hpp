#pragma once

#include <csignal>
#include <cstdlib>

#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace stillow::benchmarks {

/// This process and those that it makes from here on stay on the processor that it is on now.
inline void stayOnThisProcessor() {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(static_cast<unsigned>(::sched_getcpu()), &set);
  if (::sched_setaffinity(0, sizeof set, &set) != 0) std::abort();
}

/// A copy of this process that runs something until it is ended, with this at the latest. This
/// process must not have other threads yet.
class ChildProcess {
 public:
  /// `work` does not return before there is nothing more to do.
  template <class Work>
  explicit ChildProcess(Work work) : id_(::fork()) {
    if (id_ < 0) std::abort();
    if (id_ > 0) return;
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) std::abort();
    work();
    std::_Exit(0);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess() {
    (void)::kill(id_, SIGKILL);  // unless it has ended by itself
    (void)::waitpid(id_, nullptr, 0);
  }

 private:
  pid_t id_;
};

}  // namespace stillow::benchmarks
