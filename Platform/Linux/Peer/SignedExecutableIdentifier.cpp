#include "PlatformLinuxPeer/SignedExecutableIdentifier.hpp"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <vector>

#include <openssl/evp.h>
#include <sys/stat.h>

#include "PlatformLinuxPeer/CodeSignature.hpp"
#include "PlatformLinuxPeer/FileReading.hpp"
#include "PlatformLinuxPeer/LogText.hpp"

namespace stillow::platform {
namespace {

/// Reads `size` bytes from the start of `file`. Not by mapping them: a file that is cut short
/// meanwhile would then end this process.
std::expected<core::SHA256Digest, std::string> readDigest(const core::FileDescriptor& file,
                                                          std::uint64_t size) {
  constexpr std::size_t pieceBytes = 256 * 1024;
  struct ContextFreeing {
    void operator()(EVP_MD_CTX* context) const noexcept { EVP_MD_CTX_free(context); }
  };
  const std::unique_ptr<EVP_MD_CTX, ContextFreeing> context(EVP_MD_CTX_new());
  bool isWell = context && EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) == 1;
  std::vector<unsigned char> piece(pieceBytes);
  for (std::uint64_t offset = 0; isWell && offset < size;) {
    const auto wanted = std::min<std::uint64_t>(piece.size(), size - offset);
    const auto count = ::pread(file.get(), piece.data(), wanted, static_cast<off_t>(offset));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::unexpected("cannot be read: " + systemErrorText(errno));
    if (count == 0) return std::unexpected("was changed while it was read");
    isWell = EVP_DigestUpdate(context.get(), piece.data(), static_cast<std::size_t>(count)) == 1;
    offset += static_cast<std::uint64_t>(count);
  }
  core::SHA256Digest digest{};
  isWell = isWell && EVP_DigestFinal_ex(context.get(), digest.data(), nullptr) == 1;
  if (!isWell) return std::unexpected("could not be digested");
  return digest;
}

}  // namespace

SignedExecutableIdentifier::SignedExecutableIdentifier(
    std::expected<CodeSigningAnchor, std::string> anchor, core::WallClock now)
    : anchor_(std::move(anchor)), now_(std::move(now)) {}

std::expected<ipc::CodeIdentity, std::string> SignedExecutableIdentifier::identify(
    const PinnedProcess& process) {
  if (!anchor_) return std::unexpected(anchor_.error());
  const auto executable = process.openExecutable();
  if (!executable) return std::unexpected(executable.error());
  const auto name = process.executableName();
  if (!name) return std::unexpected(name.error());
  const auto refusal = [&](const std::string& clause) {
    return std::unexpected("The executable " + quotedForLog(*name) + " of process " +
                           std::to_string(process.pid()) + " " + clause + ".");
  };

  struct stat status{};
  if (::fstat(executable->get(), &status) != 0) {
    return refusal("cannot be looked at: " + systemErrorText(errno));
  }
  // The name is needed to find the signature. It need not be trusted for that, because the
  // signature speaks for itself, but a name that has come to mean another file says plainly what is
  // wrong.
  struct stat named{};
  if (status.st_nlink == 0 || ::stat(name->c_str(), &named) != 0 || named.st_dev != status.st_dev ||
      named.st_ino != status.st_ino) {
    return refusal("is not there any more: it was deleted, moved or replaced while it ran");
  }

  const auto signature = readSmallFile(*name + ".cms", codeSignatureBytesMax);
  if (!signature && signature.error() == ENOENT) return refusal("is not signed");
  if (!signature) {
    return refusal("has a signature that cannot be read: " + systemErrorText(signature.error()));
  }
  const auto verified = verifyCodeSignature(signature->content, *anchor_);
  if (!verified) return refusal("has a signature that " + verified.error());

  const auto version = FileVersion::of(status);
  if (verified->statement.size != version.size) return refusal("has the signature of another file");
  const auto digest = digestOf(*executable, version);
  if (!digest) return refusal(digest.error());
  if (*digest != verified->statement.sha256) return refusal("has the signature of another file");

  return ipc::CodeIdentity{verified->statement.identifier, verified->leafOrganizationalUnit,
                           /*anchorIsTrusted=*/true};
}

std::expected<core::SHA256Digest, std::string> SignedExecutableIdentifier::digestOf(
    const core::FileDescriptor& file, const FileVersion& version) {
  if (const auto remembered = digests_.find(version)) return *remembered;
  // Judged by the moment before the first byte is read: a change after that moment shows.
  const bool isSettled = version.isSettled(now_());
  ++executablesRead_;
  auto digest = readDigest(file, version.size);
  struct stat after{};
  if (!digest) return digest;
  if (::fstat(file.get(), &after) != 0 || FileVersion::of(after) != version) {
    return std::unexpected("was changed while it was read");
  }
  if (isSettled) digests_.store(version, *digest);
  return digest;
}

}  // namespace stillow::platform
