#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace stillow::core {

/// A directory of files that ship with a module.
class ResourceBundle {
 public:
  /// The directory "<name>.bundle" beside the executable, or in ../share/stillow from there (which
  /// is where a package puts it), or in ../Resources if the executable lies in the directory
  /// "MacOS" of an application. The process stops when there is none: the installation is broken.
  [[nodiscard]] static ResourceBundle named(std::string_view name);
  [[nodiscard]] static ResourceBundle named(std::string_view name,
                                            const std::filesystem::path& executableDirectory);

  /// The bytes of the resource "<name>.<extension>"; none if it is missing or cannot be read.
  [[nodiscard]] std::optional<std::string> contents(std::string_view name,
                                                    std::string_view extension) const;

 private:
  explicit ResourceBundle(std::filesystem::path directory) : directory_(std::move(directory)) {}

  std::filesystem::path directory_;
};

/// What an adapter defines.
namespace platform {
/// Directory of the running executable, links resolved; empty if the system does not say. Never
/// taken from the command line or the environment, which the caller of a privileged program
/// chooses.
[[nodiscard]] std::filesystem::path executableDirectory();
}  // namespace platform

}  // namespace stillow::core
