#pragma once

#include <memory>
#include <string>

#include "StillowFiltering/DirectoryEventSource.hpp"

namespace stillow::platform {

/// Directory events through dispatch sources on the directories' own entries in the kernel.
///
/// Every directory on the way to the file is watched, as far as the way exists; so a directory that
/// comes, goes or is exchanged is noticed without polling. An event says only that something in a
/// directory changed: whether it was our file is seen by looking at it.
///
/// `changed` is called on a serial queue of the source's own.
class DispatchDirectoryEvents final : public filtering::DirectoryEventSource {
 public:
  /// `directory` is absolute; `fileName` is the bare name whose changes matter.
  DispatchDirectoryEvents(const std::string& directory, const std::string& fileName);
  ~DispatchDirectoryEvents() override;
  DispatchDirectoryEvents(const DispatchDirectoryEvents&) = delete;
  DispatchDirectoryEvents& operator=(const DispatchDirectoryEvents&) = delete;

  /// Fails where a directory that is there cannot be watched.
  [[nodiscard]] std::expected<void, std::error_code> start(std::function<void()> changed) override;
  void stop() override;

  /// Looks at the file now and calls `changed`, on the queue, if it is another one than at the last
  /// look. Returns when that is done. So whoever drains before it judges knows of every replacement
  /// that was complete by then, however late its event comes. Not inside `changed`.
  void drain();

 private:
  class Watch;
  std::shared_ptr<Watch> watch_;
};

}  // namespace stillow::platform
