#pragma once

#include <expected>
#include <functional>
#include <system_error>

namespace stillow::filtering {

/// Tells when a file may have changed, by watching the directory that holds it: the file itself is
/// replaced as a whole, so watching it would follow the old one.
///
/// Events that concern other names in the directory are not passed on. The directory need not exist
/// yet: its coming and going count as changes of the file.
class DirectoryEventSource {
 public:
  virtual ~DirectoryEventSource() = default;

  /// From now on every change leads to a call of `changed`, which may stand for several changes.
  /// Where it is called (on the implementation's queue, or by whoever drains it) is the
  /// implementation's contract; never inside this call. On an error nothing is watched.
  [[nodiscard]] virtual std::expected<void, std::error_code> start(
      std::function<void()> changed) = 0;
  /// When this returns no call of `changed` is under way or will begin, but for the one that calls
  /// this. Harmless when stopped already.
  virtual void stop() = 0;
};

}  // namespace stillow::filtering
