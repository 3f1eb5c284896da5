#pragma once

#include <atomic>
#include <cstddef>
#include <expected>
#include <string>

#include "PlatformLinuxPeer/CodeSigningAnchor.hpp"
#include "PlatformLinuxPeer/FileDigestCache.hpp"
#include "PlatformLinuxPeer/PinnedProcess.hpp"
#include "StillowCore/Date.hpp"
#include "StillowIPC/CodeIdentity.hpp"

namespace stillow::platform {

/// Tells who made the code that a process runs: from the executable file that the kernel names and
/// from the signature beside it ("NAME.cms"), never from what the process says of itself.
///
/// All errors are one sentence for the log; the process is then a stranger. Any thread, several
/// processes at once.
class SignedExecutableIdentifier {
 public:
  /// With an anchor that could not be loaded everybody is a stranger, and that error is the reason:
  /// the door stays shut and everything else goes on. `now` decides only whether a digest may be
  /// remembered.
  SignedExecutableIdentifier(std::expected<CodeSigningAnchor, std::string> anchor,
                             core::WallClock now);

  /// Blocks while it reads files. A digest that is remembered makes that one small file; else the
  /// whole executable is read, but only once a signature has vouched for a file of that size.
  [[nodiscard]] std::expected<ipc::CodeIdentity, std::string> identify(
      const PinnedProcess& process);

  /// Executables read whole since the start.
  [[nodiscard]] std::size_t executablesRead() const noexcept { return executablesRead_; }

 private:
  std::expected<core::SHA256Digest, std::string> digestOf(const core::FileDescriptor& file,
                                                          const FileVersion& version);

  const std::expected<CodeSigningAnchor, std::string> anchor_;
  const core::WallClock now_;
  FileDigestCache digests_;
  std::atomic<std::size_t> executablesRead_ = 0;
};

}  // namespace stillow::platform
