#pragma once

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

/// What the kernel says of this process's descriptors.
namespace stillow::platform::testing {

/// The kernel's own lines about each open descriptor, in no order.
inline std::vector<std::string> descriptorInfos() {
  std::vector<std::string> infos;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
    std::ifstream file(entry.path());
    // The one that lists the directory is gone by now.
    if (file)
      infos.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  return infos;
}

inline std::size_t openDescriptors() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    ++count;
  }
  return count;
}

/// How many descriptors the kernel describes with every one of `lines` in it.
inline std::size_t descriptorsWith(const std::vector<std::string>& lines) {
  std::size_t count = 0;
  for (const std::string& info : descriptorInfos()) {
    bool hasAll = true;
    for (const std::string& line : lines) hasAll = hasAll && info.find(line) != std::string::npos;
    if (hasAll) ++count;
  }
  return count;
}

}  // namespace stillow::platform::testing
