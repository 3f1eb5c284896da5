#pragma once

#include <string>

#include <sys/types.h>

#include "StillowCore/FileDescriptor.hpp"

/// Real peers for the tests: programs that connect to a listening socket.
namespace stillow::platform::test {

/// A child that is ended by its id and waited for, at the latest when this is destroyed.
class ChildProcess {
 public:
  ChildProcess() = default;
  explicit ChildProcess(pid_t pid) : pid_(pid) {}
  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&& other) noexcept;
  ~ChildProcess();

  [[nodiscard]] pid_t pid() const { return pid_; }
  /// Ends it and waits until its id is free again.
  void kill();
  /// Waits for it to end by itself: its exit status, or -1 for a signal.
  int wait();

 private:
  pid_t pid_ = -1;
};

/// Runs `executable` with the one argument `argument`; with `pid`, under that process id, which has
/// to be free (and which takes the right to choose ids).
[[nodiscard]] ChildProcess spawn(const std::string& executable, const std::string& argument,
                                 pid_t pid = 0);

/// A Unix-domain socket that listens at `path`.
class Listener {
 public:
  explicit Listener(std::string path);

  [[nodiscard]] const std::string& path() const { return path_; }
  /// The next connection; stops the test program if none comes within a minute.
  [[nodiscard]] core::FileDescriptor accept() const;

 private:
  std::string path_;
  core::FileDescriptor socket_;
};

/// A connection to the listener at `path`, from this process.
[[nodiscard]] core::FileDescriptor connectTo(const std::string& path);
/// A socket that is bound to `path` and does not listen yet.
[[nodiscard]] core::FileDescriptor boundSocket(const std::string& path);

}  // namespace stillow::platform::test
