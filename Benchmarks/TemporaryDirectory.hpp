#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace stillow::benchmarks {

/// A directory that goes with its content; where TMPDIR says, so that the disk can be chosen.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    path_ = (std::filesystem::temp_directory_path() / "stillow-benchmark-XXXXXX").string();
    if (::mkdtemp(path_.data()) == nullptr) std::abort();
  }
  ~TemporaryDirectory() {
    std::error_code ignored;  // the system cleans its own temporary directory
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  [[nodiscard]] const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
};

}  // namespace stillow::benchmarks
