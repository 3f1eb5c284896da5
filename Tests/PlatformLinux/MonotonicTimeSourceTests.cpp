#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include "PlatformLinuxDaemon/ContinuousMonotonicTimeSource.hpp"

namespace stillow::platform {
namespace {

TEST(ContinuousMonotonicTimeSource, neverRunsBackwards) {
  const ContinuousMonotonicTimeSource source;
  double last = source.seconds();
  EXPECT_GT(last, 0);
  for (int i = 0; i < 10'000; ++i) {
    const double now = source.seconds();
    ASSERT_GE(now, last);
    last = now;
  }
}

/// What a child of this process does in a time namespace of its own; its exit status.
int reportFromShiftedBootTime(int answer, std::string_view offsets) {
  // Root may do so as it is; others only inside a user namespace of their own.
  if (::unshare(CLONE_NEWTIME) != 0 && ::unshare(CLONE_NEWUSER | CLONE_NEWTIME) != 0) return 1;
  const int file = ::open("/proc/self/timens_offsets", O_WRONLY | O_CLOEXEC);
  if (file < 0) return 2;
  if (::write(file, offsets.data(), offsets.size()) != static_cast<ssize_t>(offsets.size())) {
    return 3;
  }
  // Only children of this process enter the namespace.
  const pid_t inside = ::fork();
  if (inside < 0) return 4;
  if (inside == 0) {
    const double seconds = ContinuousMonotonicTimeSource().seconds();
    ::_exit(::write(answer, &seconds, sizeof seconds) == sizeof seconds ? 0 : 5);
  }
  int status = 0;
  if (::waitpid(inside, &status, 0) != inside || !WIFEXITED(status)) return 6;
  return WEXITSTATUS(status);
}

/// The source's reading where the given clocks are ahead of this machine's.
double readWithOffsets(std::string_view offsets) {
  std::array<int, 2> pipe{};
  EXPECT_EQ(::pipe2(pipe.data(), O_CLOEXEC), 0);
  const pid_t child = ::fork();
  if (child == 0) ::_exit(reportFromShiftedBootTime(pipe[1], offsets));
  EXPECT_GT(child, 0);
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "1: no time namespace to be had";
  (void)::close(pipe[1]);
  double seconds = 0;
  EXPECT_EQ(::read(pipe[0], &seconds, sizeof seconds), static_cast<ssize_t>(sizeof seconds));
  (void)::close(pipe[0]);
  return seconds;
}

// Where boot time alone is shifted, the reading is; where the monotonic clock alone is, it is not.
TEST(ContinuousMonotonicTimeSource, readsTheBootTimeClock) {
  const ContinuousMonotonicTimeSource source;
  const double before = source.seconds();
  const double shifted = readWithOffsets("boottime 1000000 0\n");
  const double unshifted = readWithOffsets("monotonic 2000000 0\n");
  const double after = source.seconds();
  EXPECT_GE(shifted, before + 1'000'000);
  EXPECT_LE(shifted, after + 1'000'000);
  EXPECT_GE(unshifted, before);
  EXPECT_LE(unshifted, after);
}

}  // namespace
}  // namespace stillow::platform
