#pragma once

#include <cstddef>
#include <expected>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "TestSupport/SimulatedFileSystem.hpp"

namespace stillow::simulation {

/// A disk whose calls fail on request, and on which a process can die in the middle of a save.
class UnreliableDisk final : public filtering::FileSystem {
 public:
  bool isFull = false;              ///< every writing call fails
  bool refusesCheckpoints = false;  ///< writing calls for the checkpoints fail
  bool refusesDirectives = false;   ///< writing calls for the directive fail
  bool isUnreadable = false;        ///< every reading of a checkpoint fails
  bool hidesCurrent = false;        ///< every reading of the current checkpoint fails
  /// After so many writing calls one fails, the others do not; none: no call fails for this reason.
  std::optional<int> callsUntilFailure;
  /// After so many writing calls nothing reaches the medium any more, until the process is gone.
  std::optional<int> callsUntilDeath;

  int failures = 0;  ///< calls that failed
  test::SimulatedFileSystem medium;

  /// No fault any more. What died stays dead.
  void mend();

  std::expected<std::unique_ptr<filtering::WritableFile>, std::error_code> createExclusively(
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
  std::optional<std::error_code> failure(const std::string& path);
};

}  // namespace stillow::simulation
