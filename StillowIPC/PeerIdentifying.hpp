#pragma once

#include <cstdint>
#include <expected>
#include <memory>
#include <string>

#include "StillowIPC/CodeIdentity.hpp"

namespace stillow::ipc {

/// A process as the kernel named it. For the log: a process id says nothing about who it is.
struct PeerProcess {
  std::int64_t pid = 0;
  std::uint32_t uid = 0;

  friend bool operator==(const PeerProcess&, const PeerProcess&) = default;
};

/// The process at the other end of a connection, held so that no process that gets its id later can
/// be taken for it. It does not use the connection, which may be closed meanwhile. It holds two
/// descriptors until it is destroyed.
class ConnectedPeer {
 public:
  virtual ~ConnectedPeer() = default;

  [[nodiscard]] virtual PeerProcess process() const = 0;

  /// Who made the code that the process is running now. The error is one sentence for the log: the
  /// peer is then a stranger.
  ///
  /// Blocks: it reads files, an executable of many megabytes among them. Not for an event loop; any
  /// thread, several peers at once.
  [[nodiscard]] virtual std::expected<CodeIdentity, std::string> codeIdentity() const = 0;
};

class PeerIdentifying {
 public:
  virtual ~PeerIdentifying() = default;

  /// The process that connected `connectedSocket`. Quick; to be called as soon as the connection
  /// has been accepted, because on old kernels it is the call that ties the process to its id. The
  /// error is one sentence for the log: the peer is then a stranger.
  [[nodiscard]] virtual std::expected<std::unique_ptr<ConnectedPeer>, std::string> connectedPeer(
      int connectedSocket) = 0;
};

}  // namespace stillow::ipc
