#include "PeerTestProcess.hpp"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

#include <linux/sched.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>

#include "StillowCore/Invariant.hpp"

namespace stillow::platform::test {
namespace {

using core::require;

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  require(path.size() < sizeof address.sun_path, "socket path too long");
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

core::FileDescriptor newSocket() {
  core::FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  require(static_cast<bool>(socket), "no socket");
  return socket;
}

}  // namespace

ChildProcess::ChildProcess(ChildProcess&& other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  std::swap(pid_, other.pid_);
  return *this;
}
ChildProcess::~ChildProcess() { kill(); }

void ChildProcess::kill() {
  if (pid_ <= 0) return;
  (void)::kill(pid_, SIGKILL);  // it may have ended already
  (void)wait();
}

int ChildProcess::wait() {
  int status = 0;
  pid_t ended = -1;
  do {
    ended = ::waitpid(pid_, &status, 0);
  } while (ended < 0 && errno == EINTR);
  require(ended == pid_, "a child of a test got lost");
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

ChildProcess spawn(const std::string& executable, const std::string& argument, pid_t pid) {
  std::string name = executable;
  std::string parameter = argument;
  char* arguments[] = {name.data(), parameter.data(), nullptr};
  clone_args request{};
  request.exit_signal = SIGCHLD;
  if (pid > 0) {
    request.set_tid = reinterpret_cast<std::uintptr_t>(&pid);
    request.set_tid_size = 1;
  }
  const auto child = static_cast<pid_t>(::syscall(SYS_clone3, &request, sizeof request));
  if (child == 0) {
    ::execv(executable.c_str(), arguments);
    ::_exit(127);
  }
  require(child > 0, "a test cannot start its program (choosing a process id takes root)");
  return ChildProcess(child);
}

Listener::Listener(std::string path) : path_(std::move(path)), socket_(boundSocket(path_)) {
  require(::listen(socket_.get(), 16) == 0, "cannot listen");
}

core::FileDescriptor Listener::accept() const {
  pollfd poll{socket_.get(), POLLIN, 0};
  require(::poll(&poll, 1, 60'000) == 1, "nobody connects");
  core::FileDescriptor connection(::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  require(static_cast<bool>(connection), "cannot accept");
  return connection;
}

core::FileDescriptor connectTo(const std::string& path) {
  auto socket = newSocket();
  const auto address = addressOf(path);
  require(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
          "cannot connect");
  return socket;
}

core::FileDescriptor boundSocket(const std::string& path) {
  auto socket = newSocket();
  const auto address = addressOf(path);
  require(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
          "cannot bind");
  return socket;
}

}  // namespace stillow::platform::test
