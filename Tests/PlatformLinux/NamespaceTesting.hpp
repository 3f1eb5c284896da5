#pragma once

#include <array>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <optional>
#include <string>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include "PeerTestProcess.hpp"
#include "PlatformLinuxFilter/FlowMark.hpp"
#include "PlatformLinuxFilter/QueueStatus.hpp"

/// Tests that change networks, rules and mounts do so in namespaces that nobody else is in.
namespace stillow::platform::testing {

/// Runs `body` in a child of this process, in network and mount namespaces of its own, and fails
/// the test if an expectation fails there. Needs root.
inline void inOwnNamespaces(const std::function<void()>& body) {
  std::cout.flush();
  (void)std::fflush(nullptr);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (::unshare(CLONE_NEWNET | CLONE_NEWNS) != 0 ||
        ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
      std::perror("no namespaces to be had");
      ::_exit(2);
    }
    body();
    std::cout.flush();
    (void)std::fflush(nullptr);
    ::_exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0) << "2: no namespaces to be had";
}

/// Runs a shell command that is expected to succeed.
inline void shell(const std::string& command) {
  EXPECT_EQ(std::system(command.c_str()), 0) << command;
}

/// What a shell command prints.
inline std::string shellOutput(const std::string& command) {
  std::string text;
  std::FILE* const pipe = ::popen(command.c_str(), "re");
  if (pipe == nullptr) return text;
  for (int sign = std::fgetc(pipe); sign != EOF; sign = std::fgetc(pipe)) {
    text += static_cast<char>(sign);
  }
  EXPECT_EQ(::pclose(pipe), 0) << command;
  return text;
}

/// Starts `executable`, a QueueHolder, and waits until it holds the queue.
inline test::ChildProcess startQueueHolder(const std::string& executable) {
  std::array<int, 2> pipe{};
  EXPECT_EQ(::pipe2(pipe.data(), O_CLOEXEC), 0);
  const int inherited = ::dup(pipe[1]);
  auto child = test::spawn(executable, std::to_string(inherited));
  (void)::close(pipe[1]);
  (void)::close(inherited);
  char byte = 0;
  EXPECT_EQ(::read(pipe[0], &byte, 1), 1) << "it ended without binding the queue";
  (void)::close(pipe[0]);
  return child;
}

/// The holder that is signed as the filter.
inline std::string signedQueueHolder() { return std::string(STILLOW_BIN) + "/QueueHolder"; }

}  // namespace stillow::platform::testing
