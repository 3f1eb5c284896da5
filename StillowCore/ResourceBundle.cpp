#include "StillowCore/ResourceBundle.hpp"

#include <cstddef>
#include <fstream>
#include <system_error>

#include "StillowCore/Invariant.hpp"

namespace stillow::core {

ResourceBundle ResourceBundle::named(std::string_view name) {
  return named(name, platform::executableDirectory());
}

ResourceBundle ResourceBundle::named(std::string_view name,
                                     const std::filesystem::path& executableDirectory) {
  const std::string directoryName = std::string(name) + ".bundle";
  const auto above = executableDirectory.parent_path();
  // In an application only code may lie beside the executable.
  const bool isInApplication = executableDirectory.filename() == "MacOS";
  for (const auto& parent :
       {executableDirectory, isInApplication ? above / "Resources" : above / "share" / "stillow"}) {
    std::error_code ignored;  // What cannot be looked at is not there.
    if (auto directory = parent / directoryName;
        std::filesystem::is_directory(directory, ignored)) {
      return ResourceBundle(std::move(directory));
    }
  }
  stopProcess("unable to find bundle named " + std::string(name));
}

std::optional<std::string> ResourceBundle::contents(std::string_view name,
                                                    std::string_view extension) const {
  const auto path = directory_ / (std::string(name) + "." + std::string(extension));
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(path, ignored)) return std::nullopt;
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  constexpr std::size_t stepBytes = 1 << 18;
  std::string bytes;
  while (file) {
    const std::size_t length = bytes.size();
    bytes.resize(length + stepBytes);
    file.read(bytes.data() + length, stepBytes);
    bytes.resize(length + static_cast<std::size_t>(file.gcount()));
  }
  if (file.bad()) return std::nullopt;
  return bytes;
}

}  // namespace stillow::core
