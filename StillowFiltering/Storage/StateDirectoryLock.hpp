#pragma once

#include <expected>
#include <functional>
#include <string>

#include "StillowCore/FileDescriptor.hpp"
#include "StillowFiltering/Storage/FileSystem.hpp"

namespace stillow::filtering {

/// The sole right to the state directory, held until this is destroyed or the process ends, however
/// it ends. Who reads or writes state takes it first: two daemons that each believed to own the
/// checkpoints would undo one another's saves.
class [[nodiscard]] StateDirectoryLock {
 public:
  static constexpr const char* lockFileName = "daemon.lock";

  /// Why there is no lock, in one sentence for the log.
  struct Error {
    std::string description;
    friend bool operator==(const Error&, const Error&) = default;
  };

  /// Makes the directory if it is missing, with mode 0700, and waits for the lock as long as it
  /// takes; `onWaiting` is called once if that is not at once. Nothing but the lock file is
  /// touched. Blocks. `stateDirectory` is absolute.
  static std::expected<StateDirectoryLock, Error> acquire(filtering::FileSystem& fileSystem,
                                                          const std::string& stateDirectory,
                                                          const std::function<void()>& onWaiting);

 private:
  explicit StateDirectoryLock(core::FileDescriptor file) noexcept : file_(std::move(file)) {}

  core::FileDescriptor file_;
};

}  // namespace stillow::filtering
