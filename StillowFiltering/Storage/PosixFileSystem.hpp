#pragma once

#include "StillowFiltering/Storage/FileSystem.hpp"

namespace stillow::filtering {

/// The file system that the process runs on. Descriptors are close-on-exec from birth.
class PosixFileSystem : public FileSystem {
 public:
  std::expected<std::unique_ptr<WritableFile>, std::error_code> createExclusively(
      const std::string& path, unsigned mode) override;
  std::expected<std::optional<std::string>, std::error_code> read(const std::string& path,
                                                                  std::size_t bytesMax) override;
  std::expected<void, std::error_code> rename(const std::string& from,
                                              const std::string& to) override;
  std::expected<void, std::error_code> remove(const std::string& path) override;
  std::expected<void, std::error_code> syncDirectory(const std::string& path) override;
  std::expected<void, std::error_code> createDirectory(const std::string& path,
                                                       unsigned mode) override;
  std::expected<bool, std::error_code> isDirectory(const std::string& path) override;
  std::expected<std::vector<std::string>, std::error_code> names(
      const std::string& directory) override;

 private:
  class File;

 protected:
  /// `fsync` is all that POSIX has. A system on which that stops at the drive's own cache overrides
  /// this with the call that does not. Sets errno and returns -1 on failure, as `fsync` does.
  virtual int flushToDisk(int descriptor);
};

}  // namespace stillow::filtering
