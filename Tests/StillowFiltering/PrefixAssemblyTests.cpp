#include <algorithm>
#include <limits>
#include <random>

#include <gtest/gtest.h>

#include "StillowFiltering/Wire/PrefixAssembly.hpp"
#include "WireTesting.hpp"

namespace stillow::filtering {
namespace {

using testing::Bytes;
using testing::bytesOf;

std::string prefixText(const PrefixAssembly& assembly) {
  const WireBytes prefix = assembly.prefix();
  return {prefix.begin(), prefix.end()};
}

TEST(PrefixAssembly, growsInOrder) {
  PrefixAssembly assembly;
  EXPECT_TRUE(assembly.insert(0, bytesOf("abc")));
  EXPECT_TRUE(assembly.insert(3, bytesOf("def")));
  EXPECT_EQ(prefixText(assembly), "abcdef");
}

TEST(PrefixAssembly, showsNothingBeyondAGapUntilItCloses) {
  PrefixAssembly assembly;
  EXPECT_FALSE(assembly.insert(3, bytesOf("def")));
  EXPECT_FALSE(assembly.insert(8, bytesOf("i")));
  EXPECT_EQ(prefixText(assembly), "");
  EXPECT_TRUE(assembly.insert(0, bytesOf("abc")));
  EXPECT_EQ(prefixText(assembly), "abcdef");
  EXPECT_TRUE(assembly.insert(6, bytesOf("gh")));
  EXPECT_EQ(prefixText(assembly), "abcdefghi");
}

TEST(PrefixAssembly, keepsTheFirstCopyOfAByte) {
  PrefixAssembly assembly;
  assembly.insert(2, bytesOf("cd"));
  assembly.insert(0, bytesOf("ABCDEF"));
  EXPECT_EQ(prefixText(assembly), "ABcdEF");
  EXPECT_FALSE(assembly.insert(0, bytesOf("xxxxxx")));
  EXPECT_TRUE(assembly.insert(4, bytesOf("xxgh")));
  EXPECT_EQ(prefixText(assembly), "ABcdEFgh");
}

TEST(PrefixAssembly, clipsAtItsWindow) {
  PrefixAssembly assembly;
  EXPECT_FALSE(assembly.insert(inspectedBytesMax, bytesOf("x")));
  EXPECT_FALSE(assembly.insert(std::numeric_limits<std::uint64_t>::max(), bytesOf("x")));
  EXPECT_FALSE(assembly.insert(0, {}));
  EXPECT_FALSE(assembly.insert(inspectedBytesMax - 1, bytesOf("yz")));
  EXPECT_TRUE(assembly.insert(0, Bytes(inspectedBytesMax + 5, 'a')));
  EXPECT_TRUE(assembly.isFull());
  EXPECT_EQ(assembly.prefix().size(), inspectedBytesMax);
  EXPECT_EQ(assembly.prefix().back(), 'y');
  EXPECT_EQ(assembly.prefix()[inspectedBytesMax - 2], 'a');
}

TEST(PrefixAssembly, rebuildsAnyStreamFromAnyPieces) {
  for (unsigned seed = 0; seed < 300; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random{seed};
    Bytes stream(1 + random() % 5000);
    for (auto& byte : stream) byte = static_cast<std::uint8_t>(random());
    PrefixAssembly assembly;
    for (const auto& piece : testing::shuffledPieces(stream.size(), 1 + random() % 700, random)) {
      const std::size_t before = assembly.prefix().size();
      const bool hasGrown =
          assembly.insert(piece.offset, WireBytes{stream}.subspan(piece.offset, piece.size));
      EXPECT_EQ(hasGrown, assembly.prefix().size() > before);
      ASSERT_TRUE(
          std::ranges::equal(assembly.prefix(), WireBytes{stream}.first(assembly.prefix().size())));
    }
    EXPECT_EQ(assembly.prefix().size(), std::min(stream.size(), inspectedBytesMax));
  }
}

}  // namespace
}  // namespace stillow::filtering
