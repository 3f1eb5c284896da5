#include "PlatformLinuxPeer/CodeSigningAnchor.hpp"

#include <system_error>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include "PlatformLinuxPeer/FileReading.hpp"
#include "PlatformLinuxPeer/LogText.hpp"

namespace stillow::platform {
namespace {

/// A certificate in PEM has one or two kilobytes; with comments and a chain some more.
constexpr std::size_t anchorBytesMax = 64 * 1024;

}  // namespace

std::expected<CodeSigningAnchor, std::string> CodeSigningAnchor::installed() {
  constexpr const char* self = "/proc/self/exe";
  struct stat status{};
  std::error_code error;
  const auto executable = std::filesystem::read_symlink(self, error);
  if (error || ::stat(self, &status) != 0) {
    return std::unexpected("This program cannot find its own executable.");
  }
  return installedFor(executable, status.st_uid);
}

std::expected<CodeSigningAnchor, std::string> CodeSigningAnchor::installedFor(
    const std::filesystem::path& executable, uid_t owner) {
  const auto directory = executable.parent_path();
  const auto shared = directory.parent_path() / "share/stillow/anchor.pem";
  std::error_code error;
  // Whatever is there counts as installed, unreadable or not: a fault must not lead to the other.
  const auto found = std::filesystem::symlink_status(shared, error);
  const bool isInstalled = found.type() != std::filesystem::file_type::not_found;
  return load((isInstalled ? shared : directory / "anchor.pem").string(), owner);
}

std::expected<CodeSigningAnchor, std::string> CodeSigningAnchor::load(const std::string& path,
                                                                      uid_t owner) {
  const auto subject = "The signing anchor " + quotedForLog(path);
  const auto file = readSmallFile(path, anchorBytesMax);
  if (!file) {
    return std::unexpected(subject + " cannot be read: " + systemErrorText(file.error()) + ".");
  }
  if (file->status.st_uid != 0 && file->status.st_uid != owner) {
    return std::unexpected(subject + " belongs to somebody else.");
  }
  if ((file->status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return std::unexpected(subject + " can be written by others than its owner.");
  }
  const std::unique_ptr<BIO, decltype(&BIO_free_all)> source(
      BIO_new_mem_buf(file->content.data(), static_cast<int>(file->content.size())), &BIO_free_all);
  std::shared_ptr<X509> certificate(
      source ? PEM_read_bio_X509(source.get(), nullptr, nullptr, nullptr) : nullptr, &X509_free);
  ERR_clear_error();
  if (!certificate) return std::unexpected(subject + " holds no certificate.");
  return CodeSigningAnchor(std::move(certificate));
}

}  // namespace stillow::platform
