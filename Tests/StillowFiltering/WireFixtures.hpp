#pragma once

#include <cstddef>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "WireTesting.hpp"

namespace stillow::filtering::testing {

/// The captured bytes that Tests/Fixtures/wire/README.md describes.
inline Bytes loadFixture(std::string_view name) {
  const std::string path = std::string{STILLOW_FIXTURES} + "/wire/" + std::string{name};
  std::ifstream file{path, std::ios::binary};
  if (!file) throw std::runtime_error{"no fixture " + path};
  return {std::istreambuf_iterator<char>{file}, {}};
}

inline std::vector<Bytes> loadDatagrams(std::string_view name) {
  const Bytes file = loadFixture(name);
  std::vector<Bytes> datagrams;
  for (std::size_t at = 0; at + 2 <= file.size();) {
    const auto size = static_cast<std::size_t>(file[at] << 8 | file[at + 1]);
    const auto start = file.begin() + static_cast<std::ptrdiff_t>(at + 2);
    if (at + 2 + size > file.size()) throw std::runtime_error{"a damaged fixture"};
    datagrams.emplace_back(start, start + static_cast<std::ptrdiff_t>(size));
    at += 2 + size;
  }
  return datagrams;
}

}  // namespace stillow::filtering::testing
