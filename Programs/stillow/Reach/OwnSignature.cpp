#include "StillowReach/OwnSignature.hpp"

#include <cerrno>

#include <unistd.h>

#include "PlatformLinuxPeer/CodeSigningAnchor.hpp"
#include "PlatformLinuxPeer/LogText.hpp"
#include "PlatformLinuxPeer/PinnedProcess.hpp"
#include "PlatformLinuxPeer/SignedExecutableIdentifier.hpp"
#include "StillowIPC/CodeSigningRequirement.hpp"
#include "StillowReach/BoundedWork.hpp"

namespace stillow::client {

namespace {

using Standing = OwnSignature::Standing;

OwnSignature identifySelf() {
  const auto self = platform::PinnedProcess::withID(::getpid());
  if (!self) return {Standing::unchecked, self.error()};
  auto anchor = platform::CodeSigningAnchor::installed();
  if (!anchor) {
    // A copy that was made without its signature needs no anchor to be recognised.
    const auto name = self->executableName();
    if (name && ::access((*name + ".cms").c_str(), F_OK) != 0 && errno == ENOENT) {
      return {Standing::refused,
              "The executable " + platform::quotedForLog(*name) + " is not signed."};
    }
    return {Standing::unchecked, anchor.error()};
  }
  // A single look has nothing to remember a digest for.
  platform::SignedExecutableIdentifier identifier(std::move(anchor), [] { return core::Date{}; });
  const auto identity = identifier.identify(*self);
  if (!identity) return {Standing::refused, identity.error()};
  if (!ipc::CodeSigningRequirement::trustedPeers().isSatisfiedBy(*identity)) {
    return {Standing::refused, "This program is signed as \"" + identity->identifier +
                                   "\" by the team \"" + identity->leafOrganizationalUnit +
                                   "\", which is none of the daemon's clients."};
  }
  return {Standing::trusted};
}

}  // namespace

OwnSignature checkOwnSignature(std::chrono::nanoseconds limit) {
  const auto found = withinLimit(limit, identifySelf);
  if (found) return *found;
  return {Standing::unchecked, "Reading this program's own executable takes too long."};
}

}  // namespace stillow::client
