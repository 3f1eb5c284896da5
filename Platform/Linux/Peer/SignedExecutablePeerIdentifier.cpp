#include "PlatformLinuxPeer/SignedExecutablePeerIdentifier.hpp"

namespace stillow::platform {
namespace {

class PinnedPeer final : public ipc::ConnectedPeer {
 public:
  PinnedPeer(ipc::PeerProcess credentials, PinnedProcess process,
             std::shared_ptr<SignedExecutableIdentifier> identifier)
      : credentials_(credentials),
        process_(std::move(process)),
        identifier_(std::move(identifier)) {}

  [[nodiscard]] ipc::PeerProcess process() const override { return credentials_; }
  [[nodiscard]] std::expected<ipc::CodeIdentity, std::string> codeIdentity() const override {
    return identifier_->identify(process_);
  }

 private:
  ipc::PeerProcess credentials_;
  PinnedProcess process_;
  std::shared_ptr<SignedExecutableIdentifier> identifier_;
};

}  // namespace

SignedExecutablePeerIdentifier::SignedExecutablePeerIdentifier(
    std::shared_ptr<SignedExecutableIdentifier> identifier)
    : identifier_(std::move(identifier)) {}

std::expected<std::unique_ptr<ipc::ConnectedPeer>, std::string>
SignedExecutablePeerIdentifier::connectedPeer(int connectedSocket) {
  const auto credentials = peerCredentials(connectedSocket);
  if (!credentials) return std::unexpected(credentials.error());
  auto process = PinnedProcess::connectedPeer(connectedSocket);
  if (!process) return std::unexpected(process.error());
  return std::make_unique<PinnedPeer>(*credentials, std::move(*process), identifier_);
}

}  // namespace stillow::platform
