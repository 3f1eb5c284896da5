#pragma once

#include <expected>
#include <string>
#include <string_view>

#include "PlatformLinuxPeer/CodeSigningAnchor.hpp"
#include "PlatformLinuxPeer/CodeStatement.hpp"

namespace stillow::platform {

/// More than any signature of ours needs, certificates and all (about 1.2 kB).
inline constexpr std::size_t codeSignatureBytesMax = 64 * 1024;

struct VerifiedCodeStatement {
  CodeStatement statement;
  /// The one organizational unit in the subject of the certificate that signed.
  std::string leafOrganizationalUnit;
};

/// Verifies `signature`, a CMS signed-data in DER that holds its statement, down to `anchor`.
///
/// There has to be exactly one signer, whose certificate is made for signing code and whose chain,
/// of the certificates in the signature alone, ends in `anchor`; nothing that the system trusts
/// counts. Certificates have to have been valid when the signature says that it was made. The clock
/// is not asked: neither a wrong clock nor the mere passing of years turns an installed program
/// into a stranger. The error is a clause that follows "the signature".
[[nodiscard]] std::expected<VerifiedCodeStatement, std::string> verifyCodeSignature(
    std::string_view signature, const CodeSigningAnchor& anchor);

}  // namespace stillow::platform
