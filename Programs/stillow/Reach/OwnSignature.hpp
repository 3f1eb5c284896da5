#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace stillow::client {

/// What the daemon makes of this program when it connects.
struct OwnSignature {
  enum class Standing : std::uint8_t {
    trusted,    ///< signed as one of the daemon's clients
    refused,    ///< not signed, or not as one of them: the daemon ends every connection of it
    unchecked,  ///< it could not be found out here
  };

  Standing standing = Standing::unchecked;
  std::string reason = {};  ///< one sentence; empty for `trusted`

  friend bool operator==(const OwnSignature&, const OwnSignature&) = default;
};

/// Looks at this very process as the daemon looks at its peers: the same identifier, the same
/// requirement, the anchor that belongs to this executable. Blocks, for `limit` at the most. A
/// daemon of another build has an anchor of its own and may still refuse what is trusted here.
[[nodiscard]] OwnSignature checkOwnSignature(
    std::chrono::nanoseconds limit = std::chrono::seconds(10));

}  // namespace stillow::client
