#include <cstddef>
#include <cstdint>
#include <string_view>

#include "BoostJSONReference.hpp"
#include "StillowCore/Invariant.hpp"

// Two readings of one text have to agree: whether it is JSON, and on every value and key.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace stillow;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto ours = testing::readWithDocument(text);
  const auto theirs = testing::readWithBoost(text);
  core::require(theirs.hasGivenUp || ours == theirs.events, "another reading");
  return 0;
}
