// stillow-probe: one diagnostic HTTPS connection, for the daemon, in a process of its own.
//
// It has root's id, since it belongs to the daemon and nobody else may meddle with it, and none of
// root's capabilities, since it reads what a stranger sends.

#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include <linux/capability.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "PlatformLinuxDiagnostic/DiagnosticExchange.hpp"
#include "PlatformLinuxProbe/ProbeAnswer.hpp"

namespace stillow::probe {
namespace {

using std::chrono::milliseconds;

/// In the numbers of <sysexits.h>.
enum class ExitStatus : int { success = 0, usage = 64, systemError = 71 };

/// As long as anybody could want to wait.
constexpr milliseconds limitMax = std::chrono::hours(1);

std::optional<milliseconds> limitOf(std::string_view text) {
  milliseconds::rep count = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  if (count < 1 || count > limitMax.count()) return std::nullopt;
  return milliseconds(count);
}

/// For good: what has no new privileges does not get root's capabilities back from another program
/// either.
bool dropPrivileges() {
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return false;
  __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
  const std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
  return ::syscall(SYS_capset, &header, none.data()) == 0;
}

/// From here on the process is gone when the daemon is, whatever it does at that moment.
bool dieWithParent() { return ::prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0) == 0; }

/// False where the other end of the pipe is closed: the daemon ended before `dieWithParent`.
bool hasReader() {
  pollfd output{.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
  return ::poll(&output, 1, 0) >= 0 && (output.revents & (POLLERR | POLLNVAL)) == 0;
}

bool print(std::string_view text) {
  // Short enough for a pipe to take it whole.
  return ::write(STDOUT_FILENO, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

ExitStatus systemFailure(const char* what) {
  (void)std::fprintf(stderr, "stillow-probe: %s: %s\n", what, std::strerror(errno));
  return ExitStatus::systemError;
}

ExitStatus run(int argc, char** argv) {
  const auto limit = argc == 3 ? limitOf(argv[2]) : std::nullopt;
  if (!limit) {
    (void)std::fputs("Usage: stillow-probe HOST MILLISECONDS\n", stderr);
    return ExitStatus::usage;
  }
  if (!dropPrivileges()) return systemFailure("cannot drop privileges");
  if (!dieWithParent()) return systemFailure("cannot follow the daemon");
  if (!hasReader()) return ExitStatus::systemError;
  // A server that resets the connection while we write is an outcome, not our end.
  (void)std::signal(SIGPIPE, SIG_IGN);
  const auto exchange = platform::exchangeDiagnostic(argv[1], *limit);
  if (!print(platform::probeAnswer(exchange.outcome))) return systemFailure("cannot answer");
  return ExitStatus::success;
}

}  // namespace
}  // namespace stillow::probe

int main(int argc, char** argv) {
  using stillow::probe::ExitStatus;
  ExitStatus status = ExitStatus::systemError;
  try {
    status = stillow::probe::run(argc, argv);
  } catch (const std::exception& failure) {
    (void)std::fprintf(stderr, "stillow-probe: %s\n", failure.what());
  }
  // At once: a resolver that hangs runs on a thread of its own, and nobody waits for it.
  std::_Exit(static_cast<int>(status));
}
