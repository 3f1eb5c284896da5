#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "StillowAuthority/CommitmentCheckpointStore.hpp"
#include "StillowCore/Invariant.hpp"
#include "StillowCore/SHA256.hpp"

namespace {

using namespace stillow;
using Store = authority::FileCommitmentCheckpointStore;

/// What opens is the same checkpoint after it was sealed and opened once more.
void open(std::string_view file) {
  const auto opened = Store::open(file);
  if (!opened) {
    core::require(!authority::describe(opened.error()).empty(), "an error without a reason");
    return;
  }
  const auto sealed = Store::seal(*opened);
  core::require(sealed.has_value(), "what was decoded can be encoded");
  const auto again = Store::open(*sealed);
  core::require(again.has_value(), "what was encoded can be decoded");
  core::require(*again == *opened, "the same checkpoint");
  core::require(Store::seal(*again) == *sealed, "the same bytes");
}

}  // namespace

// The input is taken for a file, and for the payload of a file whose checksum is right, since no
// fuzzer finds one of those by itself.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  open(input);
  const auto file = core::encode(Store::Envelope{
      Store::currentSchemaVersion, core::hexadecimal(core::sha256(input)), core::Data{input}});
  core::require(file.has_value(), "an envelope can be encoded around any bytes");
  open(*file);
  return 0;
}
