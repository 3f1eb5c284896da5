#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "StillowCore/FileDescriptor.hpp"
#include "StillowFiltering/DirectoryEventSource.hpp"

namespace stillow::platform {

/// Directory events through inotify, taken by the filter's own loop: nothing is called but from
/// `drain`.
///
/// The kernel queues an event before the call that caused it returns. So whoever drains before it
/// looks at a packet knows of every change that was complete when the packet was sent.
///
/// Each directory on the way to the file is watched for the next name on it, as far as the way
/// exists; so a directory that comes, goes or is exchanged is noticed wherever it lies, without
/// polling. What is not noticed is a file system mounted over one of them, and another link in the
/// place of a link.
///
/// For one thread.
class DirectoryEvents final : public filtering::DirectoryEventSource {
 public:
  /// `directory` is absolute; `fileName` is the bare name whose changes matter.
  DirectoryEvents(std::string directory, std::string fileName);

  /// Fails where there is no inotify instance to be had or the directory, being there, cannot be
  /// watched.
  [[nodiscard]] std::expected<void, std::error_code> start(std::function<void()> changed) override;
  void stop() override;

  /// Readable when `drain` has something to do; -1 while stopped. The same from start to stop.
  [[nodiscard]] int descriptor() const noexcept { return inotify_.get(); }

  /// Takes all events that are pending and, if any of them matters, calls `changed` once. Never
  /// blocks. After an error changes may go unnoticed: the directory has come into a place where it
  /// cannot be watched.
  [[nodiscard]] std::expected<void, std::error_code> drain();

 private:
  /// One directory of the way, and the name in it that is of interest: the next directory or the
  /// file.
  struct Level {
    std::string path;
    std::string name;
    int watch = -1;
  };

  /// Watches as much of the way as there is.
  std::expected<void, std::error_code> watchLevels();
  /// Whether the event concerns the way or the file.
  [[nodiscard]] bool matters(int watch, std::uint32_t mask, std::string_view name) const;

  std::vector<Level> levels_;
  core::FileDescriptor inotify_;
  std::function<void()> changed_;
};

}  // namespace stillow::platform
