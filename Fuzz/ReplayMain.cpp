/// Feeds a fuzz target the files that are named, or that lie in the directories that are named.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::vector<std::filesystem::path> inputsIn(const std::filesystem::path& path) {
  if (!std::filesystem::is_directory(path)) return {path};
  std::vector<std::filesystem::path> inputs;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(path)) {
    if (entry.is_regular_file()) inputs.push_back(entry.path());
  }
  std::ranges::sort(inputs);
  return inputs;
}

bool replay(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(file),
                                std::istreambuf_iterator<char>()};
  if (!file) {
    std::fprintf(stderr, "%s: cannot be read\n", path.c_str());
    return false;
  }
  // Named first, so that a crash below says which input it was.
  std::printf("%s\n", path.c_str());
  std::fflush(stdout);
  (void)LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t count = 0;
  for (const char* const argument : std::vector<const char*>(argv + 1, argv + argc)) {
    for (const auto& input : inputsIn(argument)) {
      if (!replay(input)) return 1;
      ++count;
    }
  }
  std::printf("%zu inputs\n", count);
  // A corpus that is not there must not look like one that passed.
  return count == 0 ? 1 : 0;
}
