#pragma once

#include <expected>
#include <filesystem>
#include <memory>
#include <string>

#include <sys/types.h>

struct x509_st;

namespace stillow::platform {

/// The one certificate that every signature of ours has to lead to: what "anchor apple generic"
/// means on this platform. Shared and immutable; any thread.
class CodeSigningAnchor {
 public:
  /// The anchor that belongs to this executable: "../share/stillow/anchor.pem" from the
  /// executable's directory; in a build tree, where that does not exist, "anchor.pem" beside the
  /// executable.
  ///
  /// It has to belong to root, or to the owner of this executable, who could as well replace the
  /// executable; and nobody else may be able to write it. The error is one sentence.
  [[nodiscard]] static std::expected<CodeSigningAnchor, std::string> installed();

  /// Likewise for the executable `executable`, which belongs to `owner`.
  [[nodiscard]] static std::expected<CodeSigningAnchor, std::string> installedFor(
      const std::filesystem::path& executable, uid_t owner);

  /// The anchor in the PEM file `path`, which has to belong to root or to `owner`.
  [[nodiscard]] static std::expected<CodeSigningAnchor, std::string> load(const std::string& path,
                                                                          uid_t owner);

  [[nodiscard]] x509_st* certificate() const noexcept { return certificate_.get(); }

 private:
  explicit CodeSigningAnchor(std::shared_ptr<x509_st> certificate)
      : certificate_(std::move(certificate)) {}

  std::shared_ptr<x509_st> certificate_;
};

}  // namespace stillow::platform
