// A status call over the daemon's socket against an echo of the same bytes by a server that does
// nothing but epoll_wait, read and write. The client is the same for both and does as little as it
// can: it writes the line and reads until the line feed. Client, daemon and echo are three
// processes on one processor, so what is compared is the work that a call makes, and not how well
// two processors share it. The argument is the number of domains in the status. Every call finds a
// status that has changed, so each is encoded. Wall time, because it is that of two processes.

#include <array>
#include <cstddef>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

#include <benchmark/benchmark.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Alternating.hpp"
#include "ChildProcess.hpp"
#include "LocalSocket.hpp"
#include "ServedCommitment.hpp"
#include "TemporaryDirectory.hpp"

namespace stillow::benchmarks {
namespace {

using core::FileDescriptor;

constexpr std::string_view request = "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"status\"}\n";

/// The client of both sides.
class Caller {
 public:
  explicit Caller(const std::string& path) : socket_(connectedTo(path)) {}

  /// The whole line; valid until the next call.
  std::string_view call() {
    check(::write(socket_.get(), request.data(), request.size()) ==
          static_cast<ssize_t>(request.size()));
    std::size_t size = 0;
    do {
      if (size == reply_.size()) reply_.resize(2 * size);
      const ssize_t count = ::read(socket_.get(), reply_.data() + size, reply_.size() - size);
      check(count > 0);
      size += static_cast<std::size_t>(count);
    } while (reply_[size - 1] != '\n');
    return {reply_.data(), size};
  }
  void call(std::size_t count) {
    for (; count > 0; --count) (void)call();
  }

 private:
  FileDescriptor socket_;
  std::string reply_ = std::string(512 * 1024, '\0');
};

/// The echo's end of one connection.
class EchoedConnection {
 public:
  EchoedConnection(int epoll, FileDescriptor socket) : epoll_(epoll), socket_(std::move(socket)) {
    epoll_event event{.events = EPOLLIN, .data = {.ptr = this}};
    check(::epoll_ctl(epoll_, EPOLL_CTL_ADD, socket_.get(), &event) == 0);
  }

  /// Answers each line that has arrived; the replies come in turn. False at the end.
  bool advance(const std::array<std::string, 2>& replies) {
    for (;;) {
      while (!waiting_.empty()) {
        const ssize_t written = ::write(socket_.get(), waiting_.data(), waiting_.size());
        if (written < 0) return wait(EPOLLOUT);
        waiting_.remove_prefix(static_cast<std::size_t>(written));
      }
      std::array<char, 4'096> chunk;  // NOLINT(cppcoreguidelines-pro-type-member-init)
      const ssize_t count = ::read(socket_.get(), chunk.data(), chunk.size());
      if (count < 0) return wait(EPOLLIN);
      if (count == 0) return false;
      if (chunk[static_cast<std::size_t>(count) - 1] == '\n') waiting_ = replies[replied_++ % 2];
    }
  }

 private:
  bool wait(std::uint32_t events) {
    if (std::exchange(events_, events) == events) return true;
    epoll_event event{.events = events, .data = {.ptr = this}};
    check(::epoll_ctl(epoll_, EPOLL_CTL_MOD, socket_.get(), &event) == 0);
    return true;
  }

  int epoll_;
  FileDescriptor socket_;
  std::uint32_t events_ = EPOLLIN;
  std::string_view waiting_;
  std::size_t replied_ = 0;
};

/// Serves one client until it leaves.
void echo(const std::string& path, const std::array<std::string, 2>& replies) {
  const FileDescriptor listening(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = localAddress(path);
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): what the system takes
  check(::bind(listening.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
  check(::listen(listening.get(), 1) == 0);
  const FileDescriptor epoll(::epoll_create1(EPOLL_CLOEXEC));
  FileDescriptor socket(::accept4(listening.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  EchoedConnection connection(epoll.get(), std::move(socket));
  std::array<epoll_event, 16> events{};
  for (;;) {
    const int count = ::epoll_wait(epoll.get(), events.data(), events.size(), -1);
    for (int i = 0; i < count; ++i) {
      auto* const ready =
          static_cast<EchoedConnection*>(events[static_cast<std::size_t>(i)].data.ptr);
      if (!ready->advance(replies)) return;
    }
  }
}

void call(benchmark::State& state) {
  stayOnThisProcessor();
  const TemporaryDirectory directory;
  const std::string ourPath = directory.path() + "/daemon.sock";
  const std::string echoPath = directory.path() + "/echo.sock";
  const ChildProcess daemon([&] {
    const ServedCommitment served(static_cast<std::size_t>(state.range(0)), ourPath);
    for (;;) ::pause();
  });
  Caller ours(ourPath);
  const std::array<std::string, 2> replies{std::string(ours.call()), std::string(ours.call())};
  const ChildProcess echoing([&] { echo(echoPath, replies); });
  Caller reference(echoPath);
  bool areEqual =
      replies[0] != replies[1] &&
      replies[0].starts_with("{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":{\"observedAt\":");
  for (int i = 0; i < 10; ++i) {
    const std::string reply(reference.call());
    areEqual = areEqual && ours.call() == reply;
  }
  if (!areEqual) return state.SkipWithError("the replies differ");
  compareAlternating(
      state, Measure::wallTime, [&](std::size_t count) { ours.call(count); },
      [&](std::size_t count) { reference.call(count); });
  state.counters["reply_bytes"] = static_cast<double>(replies[0].size());
}

BENCHMARK(call)->Arg(20)->Apply(batches);

}  // namespace
}  // namespace stillow::benchmarks
