// A status of many domains pushed to 1,000 subscribers against encoding it once and writing the
// same bytes into 1,000 sockets, epoll saying where more fits. The daemon, its threads included, is
// this process; another one reads the other ends of both sides' sockets, so that what is compared
// is the processor's time of the writing side alone. Both are on one processor. More subscribers
// than the daemon lets one user have: that limit is raised, everything else is as the daemon has
// it. The argument is the number of domains in the status.

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Alternating.hpp"
#include "ChildProcess.hpp"
#include "LocalSocket.hpp"
#include "ServedCommitment.hpp"
#include "StillowIPC/DaemonWireCoding.hpp"
#include "TemporaryDirectory.hpp"

namespace stillow::benchmarks {
namespace {

using core::FileDescriptor;

constexpr std::size_t subscriberCount = 1'000;
constexpr std::string_view subscription =
    "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"subscribeToStatusChanges\"}\n";
constexpr std::string_view pushBegin =
    R"({"jsonrpc":"2.0","method":"daemonStatusChanged","params":)";

using Sockets = std::vector<FileDescriptor>;

/// Two ends of a pipe that carries numbers from one process to the other.
class Signal {
 public:
  Signal() { check(::pipe2(ends_.data(), O_CLOEXEC) == 0); }
  void give(std::uint64_t number) const {
    check(::write(ends_[1], &number, sizeof number) == sizeof number);
  }
  [[nodiscard]] std::uint64_t take() const {
    std::uint64_t number = 0;
    check(::read(ends_[0], &number, sizeof number) == sizeof number);
    return number;
  }

 private:
  std::array<int, 2> ends_{};  // which end with the process
};

/// What a text was read to be: a digest that differs where a byte does.
constexpr std::uint64_t digestStart = 14'695'981'039'346'656'037U;
std::uint64_t digest(std::uint64_t so, std::string_view text) {
  for (const char c : text) so = (so ^ static_cast<unsigned char>(c)) * 1'099'511'628'211U;
  return so;
}

/// Reads one line from each of `sockets`, whoever has something first; the digests of the lines,
/// all in one if they are equal, else 0. Without `isLooking` nothing is looked at but where a line
/// ends.
std::uint64_t readLines(std::span<const FileDescriptor> sockets, bool isLooking) {
  struct Reading {
    const FileDescriptor* socket;
    std::uint64_t digest = digestStart;
  };
  static std::string chunk(1 << 20, '\0');
  std::vector<Reading> readings;
  readings.reserve(sockets.size());
  const FileDescriptor epoll(::epoll_create1(EPOLL_CLOEXEC));
  for (const auto& socket : sockets) {
    readings.push_back({&socket});
    epoll_event event{.events = EPOLLIN, .data = {.ptr = &readings.back()}};
    check(::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, socket.get(), &event) == 0);
  }
  std::array<epoll_event, 64> events{};
  for (std::size_t left = sockets.size(); left > 0;) {
    const int count = ::epoll_wait(epoll.get(), events.data(), events.size(), -1);
    for (int i = 0; i < count; ++i) {
      Reading& reading = *static_cast<Reading*>(events[static_cast<std::size_t>(i)].data.ptr);
      const ssize_t size = ::read(reading.socket->get(), chunk.data(), chunk.size());
      check(size > 0);
      const std::string_view text(chunk.data(), static_cast<std::size_t>(size));
      if (isLooking) reading.digest = digest(reading.digest, text);
      if (text.back() != '\n') continue;
      check(::epoll_ctl(epoll.get(), EPOLL_CTL_DEL, reading.socket->get(), nullptr) == 0);
      --left;
    }
  }
  for (const Reading& reading : readings) {
    if (reading.digest != readings.front().digest) return 0;
  }
  return readings.front().digest;
}

/// What the reading process is asked for, and answers when it has it.
enum Order : std::uint64_t { subscribe, readOurs, readReference, lookAtOurs, lookAtReference };

void read(const std::string& path, const Sockets& reference, const Signal& orders,
          const Signal& answers) {
  Sockets ours;
  for (;;) {
    switch (orders.take()) {
      case subscribe:
        for (std::size_t i = 0; i < subscriberCount; ++i) {
          ours.push_back(connectedTo(path));
          check(::write(ours.back().get(), subscription.data(), subscription.size()) ==
                static_cast<ssize_t>(subscription.size()));
          // One by one: the text that waits for those who do not read is limited.
          (void)readLines(std::span(&ours.back(), 1), false);
        }
        answers.give(0);
        break;
      case readOurs:
        answers.give(readLines(ours, false));
        break;
      case readReference:
        answers.give(readLines(reference, false));
        break;
      case lookAtOurs:
        answers.give(readLines(ours, true));
        break;
      case lookAtReference:
        answers.give(readLines(reference, true));
        break;
      default:
        std::abort();
    }
  }
}

/// Writes one text into many sockets.
class BareWriter {
 public:
  explicit BareWriter(const Sockets& sockets) : epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
    writings_.reserve(sockets.size());
    for (const auto& socket : sockets) {
      writings_.push_back({&socket, {}});
      epoll_event event{.events = EPOLLOUT | EPOLLET, .data = {.ptr = &writings_.back()}};
      check(::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, socket.get(), &event) == 0);
    }
  }

  void write(std::string_view text) {
    std::size_t left = 0;
    for (Writing& writing : writings_) {
      writing.text = text;
      if (!advance(writing)) ++left;
    }
    std::array<epoll_event, 64> events{};
    while (left > 0) {
      const int count = ::epoll_wait(epoll_.get(), events.data(), events.size(), -1);
      for (int i = 0; i < count; ++i) {
        Writing& writing = *static_cast<Writing*>(events[static_cast<std::size_t>(i)].data.ptr);
        if (!writing.text.empty() && advance(writing)) --left;
      }
    }
  }

 private:
  struct Writing {
    const FileDescriptor* socket;
    std::string_view text;
  };

  /// True: all of it is written.
  static bool advance(Writing& writing) {
    while (!writing.text.empty()) {
      const ssize_t count =
          ::send(writing.socket->get(), writing.text.data(), writing.text.size(), MSG_NOSIGNAL);
      if (count < 0) {
        check(errno == EAGAIN);
        return false;
      }
      writing.text.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
  }

  FileDescriptor epoll_;
  std::vector<Writing> writings_;
};

concurrency::Task<void> publish(std::shared_ptr<authority::CommitmentAuthority> authority) {
  (void)co_await authority->publishStatus();
}
concurrency::Task<void> ask(std::shared_ptr<authority::CommitmentAuthority> authority,
                            ipc::DaemonStatus& place, const Signal& done) {
  ipc::DaemonStatus status = co_await authority->status();
  place = std::move(status);
  done.give(0);
}

std::string pushOf(const ipc::DaemonStatus& status) {
  std::string text(pushBegin);
  text += *ipc::DaemonWireCoding::encode(status);
  text += "}\n";
  return text;
}

platform::SocketLimits limits() {
  platform::SocketLimits limits;
  limits.connectionsMax = limits.connectionsPerUserMax = subscriberCount;
  return limits;
}

void push(benchmark::State& state) {
  rlimit descriptors{};
  check(::getrlimit(RLIMIT_NOFILE, &descriptors) == 0);
  descriptors.rlim_cur = descriptors.rlim_max;
  check(::setrlimit(RLIMIT_NOFILE, &descriptors) == 0);

  stayOnThisProcessor();
  const TemporaryDirectory directory;
  const std::string path = directory.path() + "/daemon.sock";
  const Signal orders;
  const Signal answers;
  Sockets written;
  Sockets read;
  for (std::size_t i = 0; i < subscriberCount; ++i) {
    std::array<int, 2> ends{};
    check(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()) == 0);
    written.emplace_back(ends[0]);
    read.emplace_back(ends[1]);
  }
  const ChildProcess reading([&] {
    written.clear();
    // Whether it takes the writer's processor with every write or later, when it has to wait, makes
    // a write cost a fifth or all of what it does: later it is, for both sides.
    const sched_param noPriority{};
    check(::sched_setscheduler(0, SCHED_BATCH, &noPriority) == 0);
    benchmarks::read(path, read, orders, answers);
  });
  read.clear();

  ServedCommitment served(static_cast<std::size_t>(state.range(0)), path, limits());
  const auto order = [&](Order what) {
    orders.give(what);
    return answers.take();
  };
  order(subscribe);

  // The clock moves to and fro, so there are two statuses that take turns.
  std::array<ipc::DaemonStatus, 2> statuses;
  for (auto& status : statuses) {
    const Signal done;
    concurrency::spawn(served.executor(), ask(served.authority(), status, done));
    (void)done.take();
  }
  BareWriter writer(written);
  std::size_t writes = 0;
  const auto ours = [&](Order readers) {
    concurrency::spawn(served.executor(), publish(served.authority()));
    return order(readers);
  };
  const auto reference = [&](Order readers) {
    orders.give(readers);
    writer.write(pushOf(statuses[writes++ % 2]));
    return answers.take();
  };
  for (int i = 0; i < 4; ++i) {
    const std::uint64_t digestOfOurs = ours(lookAtOurs);
    const std::uint64_t digestOfReference = reference(lookAtReference);
    if (digestOfOurs != digestOfReference || digestOfOurs == 0) {
      return state.SkipWithError("what was read differs");
    }
  }
  const auto repeat = [](const auto& side, Order readers) {
    return [&side, readers](std::size_t count) {
      for (; count > 0; --count) (void)side(readers);
    };
  };
  compareAlternating(state, Measure::processorTime, repeat(ours, readOurs),
                     repeat(reference, readReference));
  state.counters["status_bytes"] = static_cast<double>(pushOf(statuses[0]).size());
}

BENCHMARK(push)->Arg(10'000)->Apply(batches);

}  // namespace
}  // namespace stillow::benchmarks
