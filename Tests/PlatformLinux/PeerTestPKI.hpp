#pragma once

#include <cstddef>
#include <ctime>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <openssl/evp.h>
#include <openssl/x509.h>

#include "PlatformLinuxPeer/CodeStatement.hpp"
#include "TestSupport/TemporaryDirectory.hpp"

/// Certificates and signatures of every kind that the product has to accept or refuse. What the
/// product accepts in earnest is made by scripts/codesign; this makes the rest.
namespace stillow::platform::test {

struct KeyPair {
  std::shared_ptr<EVP_PKEY> key;
  std::shared_ptr<X509> certificate;

  [[nodiscard]] std::string pem() const;
};

struct CertificateTraits {
  std::string commonName = "Somebody";
  std::vector<std::string> organizationalUnits;
  bool isAuthority = false;
  bool isForSigningCode = true;
  /// A key that is broken in an afternoon.
  bool isWeak = false;
  std::time_t notBefore = 1'600'000'000;
  std::time_t notAfter = 4'000'000'000;
};

/// A fresh key (P-256) with a certificate issued by `issuer`, or by itself.
[[nodiscard]] KeyPair makeKeyPair(const CertificateTraits& traits, const KeyPair* issuer = nullptr);
[[nodiscard]] KeyPair makeAuthority(std::string commonName = "Test anchor");
/// What a development build's signing key is like.
[[nodiscard]] KeyPair makeSigner(const KeyPair& authority, std::string organizationalUnit = "TEAM");

struct SignatureTraits {
  std::vector<const KeyPair*> signers;
  /// Sent along for the chain.
  std::vector<const KeyPair*> intermediates;
  /// None: the signature does not say when it was made.
  std::optional<std::time_t> madeAt = 1'700'000'000;
  bool isDetached = false;
};

/// CMS in DER over `content`.
[[nodiscard]] std::string sign(std::string_view content, const SignatureTraits& traits);
[[nodiscard]] std::string sign(std::string_view content, const KeyPair& signer);

/// The statement that is true of the file `path`.
[[nodiscard]] CodeStatement statementOf(const std::string& path, std::string identifier);

[[nodiscard]] std::string readFile(const std::string& path);
/// Writes in place: the file keeps its inode. A new file gets `mode`.
void writeFile(const std::string& path, std::string_view content, unsigned mode = 0644);

/// A temporary directory under the path that the kernel has for it.
class ScratchDirectory {
 public:
  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string operator/(std::string_view name) const {
    return path_ + "/" + std::string(name);
  }

 private:
  stillow::test::TemporaryDirectory directory_;
  std::string path_ = std::filesystem::canonical(directory_.path()).string();
};

}  // namespace stillow::platform::test
