#include <array>
#include <csignal>
#include <fstream>
#include <iterator>
#include <string>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "NamespaceTesting.hpp"
#include "PeerTestProcess.hpp"
#include "StillowCore/FileDescriptor.hpp"

/// stillow-probe as a process, in the middle of a connection to a server that never answers.
namespace stillow::platform {
namespace {

using core::FileDescriptor;
using ::testing::HasSubstr;
using testing::inOwnNamespaces;
using testing::shell;

constexpr const char* program = STILLOW_BIN "/stillow-probe";
constexpr int waitingMax = 60'000;  // milliseconds, where something is wrong

struct Pipe {
  Pipe() {
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    readEnd = FileDescriptor(ends[0]);
    writeEnd = FileDescriptor(ends[1]);
  }
  FileDescriptor readEnd;
  FileDescriptor writeEnd;
};

test::ChildProcess start(const char* host, const char* limit, int output) {
  const pid_t pid = ::fork();
  if (pid != 0) return test::ChildProcess(pid);
  (void)::dup2(output, STDOUT_FILENO);
  (void)::execl(program, program, host, limit, static_cast<char*>(nullptr));
  ::_exit(127);
}

class SilentServer {
 public:
  SilentServer() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    shell("ip link set lo up");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(443);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    EXPECT_EQ(::listen(socket_.get(), 8), 0);
  }

  [[nodiscard]] bool hasCaller(int milliseconds) const {
    pollfd event{.fd = socket_.get(), .events = POLLIN, .revents = 0};
    return ::poll(&event, 1, milliseconds) == 1;
  }

 private:
  const FileDescriptor socket_;
};

std::string statusOf(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/status");
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(StillowProbe, connectsWithoutAnyCapability) {
  inOwnNamespaces([] {
    const SilentServer server;
    const Pipe pipe;
    const auto probe = start("127.0.0.1", "600000", pipe.writeEnd.get());
    ASSERT_TRUE(server.hasCaller(waitingMax));
    const std::string status = statusOf(probe.pid());
    for (const char* const set : {"CapInh", "CapPrm", "CapEff", "CapAmb"}) {
      EXPECT_THAT(status, HasSubstr(std::string(set) + ":\t0000000000000000\n"));
    }
    EXPECT_THAT(status, HasSubstr("NoNewPrivs:\t1\n"));
  });
}

TEST(StillowProbe, isGoneWhenTheDaemonIs) {
  inOwnNamespaces([] {
    const SilentServer server;
    const Pipe pipe;
    const pid_t parent = ::fork();
    if (parent == 0) {
      const auto probe = start("127.0.0.1", "600000", STDOUT_FILENO);
      const pid_t pid = probe.pid();
      (void)!::write(pipe.writeEnd.get(), &pid, sizeof pid);
      while (true) ::pause();
    }
    test::ChildProcess daemon(parent);
    pid_t pid = 0;
    ASSERT_EQ(::read(pipe.readEnd.get(), &pid, sizeof pid), static_cast<ssize_t>(sizeof pid));
    const FileDescriptor probe(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0U)));
    ASSERT_TRUE(probe);
    ASSERT_TRUE(server.hasCaller(waitingMax));
    daemon.kill();
    pollfd death{.fd = probe.get(), .events = POLLIN, .revents = 0};
    EXPECT_EQ(::poll(&death, 1, waitingMax), 1);
  });
}

TEST(StillowProbe, doesNotConnectWhereTheDaemonIsGoneAlready) {
  inOwnNamespaces([] {
    const SilentServer server;
    Pipe pipe;
    pipe.readEnd = FileDescriptor();
    auto probe = start("127.0.0.1", "600000", pipe.writeEnd.get());
    EXPECT_EQ(probe.wait(), 71);
    EXPECT_FALSE(server.hasCaller(0));
  });
}

TEST(StillowProbe, takesAHostAndALimitAndNothingElse) {
  const Pipe pipe;
  for (const char* const limit :
       {"", "0", "-1", "1.5", "5000ms", " 5000", "3600001", "99999999999999999999"}) {
    EXPECT_EQ(start("localhost", limit, pipe.writeEnd.get()).wait(), 64) << limit;
  }
  EXPECT_EQ(test::spawn(program, "localhost").wait(), 64);
}

TEST(StillowProbe, bringsWhatTheDaemonDoesNotLoad) {
  const auto libraries = [](const std::string& name) {
    return testing::shellOutput("ldd " STILLOW_BIN "/" + name);
  };
  EXPECT_THAT(libraries("stillow-probe"), HasSubstr("libcurl"));
  EXPECT_THAT(libraries("StillowDaemon"), ::testing::Not(HasSubstr("libcurl")));
}

}  // namespace
}  // namespace stillow::platform
