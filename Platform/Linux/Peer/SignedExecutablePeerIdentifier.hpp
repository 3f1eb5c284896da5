#pragma once

#include <expected>
#include <memory>
#include <string>

#include "PlatformLinuxPeer/SignedExecutableIdentifier.hpp"
#include "StillowIPC/PeerIdentifying.hpp"

namespace stillow::platform {

/// Identifies whoever connects to a Unix-domain socket by the signature of what it executes.
class SignedExecutablePeerIdentifier final : public ipc::PeerIdentifying {
 public:
  explicit SignedExecutablePeerIdentifier(std::shared_ptr<SignedExecutableIdentifier> identifier);

  [[nodiscard]] std::expected<std::unique_ptr<ipc::ConnectedPeer>, std::string> connectedPeer(
      int connectedSocket) override;

 private:
  /// Shared with the peers, which may outlive this object on another thread.
  std::shared_ptr<SignedExecutableIdentifier> identifier_;
};

}  // namespace stillow::platform
