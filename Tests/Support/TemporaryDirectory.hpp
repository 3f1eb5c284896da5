#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include "StillowCore/Invariant.hpp"

namespace stillow::test {

/// A new, empty directory, removed with everything in it at the end.
class TemporaryDirectory {
 public:
  TemporaryDirectory()
      : path_((std::filesystem::temp_directory_path() / "stillow-test-XXXXXX").string()) {
    core::require(::mkdtemp(path_.data()) != nullptr, "no temporary directory to be had");
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  ~TemporaryDirectory() {
    std::error_code ignored;  // the system cleans its own temporary directory
    std::filesystem::remove_all(path_, ignored);
  }

  /// Absolute.
  [[nodiscard]] const std::string& path() const noexcept { return path_; }
  [[nodiscard]] std::string path(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace stillow::test
