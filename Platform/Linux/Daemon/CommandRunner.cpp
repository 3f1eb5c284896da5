#include "PlatformLinuxDaemon/CommandRunner.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <optional>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "StillowCore/FileDescriptor.hpp"

namespace stillow::platform {

namespace {

using Clock = std::chrono::steady_clock;
using Reason = CommandFailure::Reason;

/// How long to wait for a child that was killed. It can be stuck in the kernel for longer than
/// anybody wants to wait.
constexpr std::chrono::milliseconds deathMax{500};

std::string messageOf(int error) { return std::generic_category().message(error); }

/// The library's own wrapper cannot be linked from C++ with every version of it.
core::FileDescriptor openPidfd(pid_t pid) {
  return core::FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0U)));
}

struct Pipe {
  core::FileDescriptor readEnd;
  core::FileDescriptor writeEnd;
};

std::optional<Pipe> makePipe() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return std::nullopt;
  Pipe pipe{core::FileDescriptor(ends[0]), core::FileDescriptor(ends[1])};
  // Only our end: what the child writes to is one description, shared by all its descendants.
  if (::fcntl(pipe.readEnd.get(), F_SETFL, O_NONBLOCK) != 0) return std::nullopt;
  return pipe;
}

/// The input as a file, so that nobody has to write while the child reads, or gets a SIGPIPE when
/// it does not.
core::FileDescriptor inputFile(const std::string& input) {
  core::FileDescriptor file(::memfd_create("stillow-command-input", MFD_CLOEXEC));
  if (!file) return {};
  std::size_t written = 0;
  while (written < input.size()) {
    const ssize_t count = ::write(file.get(), input.data() + written, input.size() - written);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return {};
    written += static_cast<std::size_t>(count);
  }
  if (::lseek(file.get(), 0, SEEK_SET) != 0) return {};
  return file;
}

class SpawnActions {
 public:
  SpawnActions() { (void)::posix_spawn_file_actions_init(&actions_); }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;
  ~SpawnActions() { (void)::posix_spawn_file_actions_destroy(&actions_); }
  posix_spawn_file_actions_t* get() { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

class SpawnAttributes {
 public:
  SpawnAttributes() { (void)::posix_spawnattr_init(&attributes_); }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;
  ~SpawnAttributes() { (void)::posix_spawnattr_destroy(&attributes_); }
  posix_spawnattr_t* get() { return &attributes_; }

 private:
  posix_spawnattr_t attributes_{};
};

std::expected<pid_t, int> spawn(const std::string& path, const std::vector<std::string>& arguments,
                                int input, int output, int errors) {
  SpawnActions actions;
  SpawnAttributes attributes;
  sigset_t all;
  sigset_t none;
  (void)::sigfillset(&all);
  (void)::sigemptyset(&none);
  const std::array results{
      ::posix_spawn_file_actions_addchdir_np(actions.get(), "/"),
      ::posix_spawn_file_actions_adddup2(actions.get(), input, STDIN_FILENO),
      ::posix_spawn_file_actions_adddup2(actions.get(), output, STDOUT_FILENO),
      ::posix_spawn_file_actions_adddup2(actions.get(), errors, STDERR_FILENO),
      // Also what a library opened without close-on-exec.
      ::posix_spawn_file_actions_addclosefrom_np(actions.get(), STDERR_FILENO + 1),
      ::posix_spawnattr_setsigdefault(attributes.get(), &all),
      ::posix_spawnattr_setsigmask(attributes.get(), &none),
      ::posix_spawnattr_setflags(attributes.get(), POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK),
  };
  for (const int result : results) {
    if (result != 0) return std::unexpected(result);
  }
  std::vector<std::string> ownedArguments = arguments;
  std::vector<char*> argumentPointers;
  argumentPointers.reserve(ownedArguments.size() + 1);
  for (auto& argument : ownedArguments) argumentPointers.push_back(argument.data());
  argumentPointers.push_back(nullptr);
  std::array<std::string, 2> environment{"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C"};
  std::array<char*, 3> environmentPointers{environment[0].data(), environment[1].data(), nullptr};

  pid_t pid = -1;
  const int error = ::posix_spawn(&pid, path.c_str(), actions.get(), attributes.get(),
                                  argumentPointers.data(), environmentPointers.data());
  if (error != 0) return std::unexpected(error);
  return pid;
}

/// A child that was started and not yet waited for; until then its id belongs to nobody else.
struct Child {
  pid_t pid = -1;
  core::FileDescriptor pidfd;

  /// Kills it and takes it off the process table; false if it does not go within `deathMax`.
  [[nodiscard]] bool end() const {
    (void)::kill(pid, SIGKILL);
    if (pidfd) {
      pollfd death{.fd = pidfd.get(), .events = POLLIN, .revents = 0};
      (void)::poll(&death, 1, static_cast<int>(deathMax.count()));
    }
    return ::waitpid(pid, nullptr, WNOHANG) != 0;
  }
};

/// One stream of the child's: keeps the first `bytesMax` bytes and reads on.
struct Stream {
  core::FileDescriptor from;
  std::size_t bytesMax;
  std::string text = {};
  bool isTooLong = false;

  /// Takes what is there; closes at the end.
  void take() {
    std::array<char, 65'536> buffer;
    while (from) {
      const ssize_t count = ::read(from.get(), buffer.data(), buffer.size());
      if (count < 0 && errno == EINTR) continue;
      if (count < 0 && errno == EAGAIN) return;
      if (count <= 0) {
        from = core::FileDescriptor();
        return;
      }
      const auto length = static_cast<std::size_t>(count);
      const std::size_t kept = std::min(length, bytesMax - text.size());
      text.append(buffer.data(), kept);
      if (kept < length) isTooLong = true;
      if (isTooLong) return;  // a child that never stops printing must not keep us here
    }
  }
};

enum class Progress { ended, tooLong, timeout };

/// Reads both streams until the child has ended. What it left behind in the pipes is read too, but
/// a descendant that keeps them open is not waited for.
Progress follow(const Child& child, Stream& output, Stream& errors, Clock::time_point deadline) {
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return Progress::timeout;
    std::array<pollfd, 3> events{{
        {.fd = child.pidfd.get(), .events = POLLIN, .revents = 0},
        {.fd = output.from.get(), .events = POLLIN, .revents = 0},
        {.fd = errors.from.get(), .events = POLLIN, .revents = 0},
    }};
    const int ready = ::poll(events.data(), events.size(), static_cast<int>(left.count()));
    if (ready < 0 && errno != EINTR) return Progress::timeout;
    if (ready <= 0) continue;
    if (events[1].revents != 0) output.take();
    if (events[2].revents != 0) errors.take();
    if (output.isTooLong) return Progress::tooLong;
    if (events[0].revents == 0) continue;
    output.take();
    errors.take();
    return output.isTooLong ? Progress::tooLong : Progress::ended;
  }
}

}  // namespace

CommandRunner::CommandRunner(std::chrono::nanoseconds limit,
                             std::vector<std::string> programDirectories)
    : limit_(limit), programDirectories_(std::move(programDirectories)) {}

std::string CommandRunner::programPath(const std::string& name) const {
  if (name.find('/') != std::string::npos) return name;
  for (const auto& directory : programDirectories_) {
    std::string path = directory + "/" + name;
    if (::access(path.c_str(), X_OK) == 0) return path;
  }
  return name;
}

void CommandRunner::takeAbandoned() {
  const std::lock_guard lock(mutex_);
  std::erase_if(abandoned_, [](pid_t pid) { return ::waitpid(pid, nullptr, WNOHANG) != 0; });
}

void CommandRunner::abandon(pid_t pid) {
  const std::lock_guard lock(mutex_);
  abandoned_.push_back(pid);
}

std::expected<CommandResult, CommandFailure> CommandRunner::run(const Command& command) {
  takeAbandoned();
  const auto deadline = Clock::now() + command.limit.value_or(limit_);
  const std::string name = command.arguments.empty() ? std::string() : command.arguments.front();
  const auto failure = [&name](Reason reason, const std::string& what) {
    return std::unexpected(CommandFailure{reason, "The command " + name + " " + what + "."});
  };
  const auto notStarted = [&failure](int error) {
    return failure(Reason::notStarted, "could not be started: " + messageOf(error));
  };
  if (name.empty()) return notStarted(EINVAL);

  auto outputPipe = makePipe();
  auto errorPipe = makePipe();
  const core::FileDescriptor input = inputFile(command.input);
  if (!outputPipe || !errorPipe || !input) return notStarted(errno);

  const auto spawned = spawn(programPath(name), command.arguments, input.get(),
                             outputPipe->writeEnd.get(), errorPipe->writeEnd.get());
  if (!spawned) return notStarted(spawned.error());
  const Child child{.pid = *spawned, .pidfd = openPidfd(*spawned)};
  if (!child.pidfd) {
    const int error = errno;
    if (!child.end()) abandon(child.pid);
    return notStarted(error);
  }
  outputPipe->writeEnd = core::FileDescriptor();
  errorPipe->writeEnd = core::FileDescriptor();

  Stream output{.from = std::move(outputPipe->readEnd), .bytesMax = outputBytesMax};
  Stream errors{.from = std::move(errorPipe->readEnd), .bytesMax = errorBytesMax};
  const Progress progress = follow(child, output, errors, deadline);
  if (progress != Progress::ended) {
    if (!child.end()) abandon(child.pid);
    return progress == Progress::timeout
               ? failure(Reason::tookTooLong, "took too long and was ended")
               : failure(Reason::printedTooMuch, "printed too much and was ended");
  }

  int status = 0;
  pid_t waited = -1;
  do {
    waited = ::waitpid(child.pid, &status, 0);
  } while (waited < 0 && errno == EINTR);
  if (waited < 0) return failure(Reason::notStarted, "could not be waited for");
  if (!WIFEXITED(status)) {
    return failure(Reason::endedBySignal,
                   "was ended by signal " + std::to_string(WTERMSIG(status)));
  }
  return CommandResult{.exitStatus = WEXITSTATUS(status),
                       .output = std::move(output.text),
                       .errors = std::move(errors.text)};
}

}  // namespace stillow::platform
