#include <map>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "StillowCore/ContentTag.hpp"

namespace stillow::core {
namespace {

TEST(ContentTag, isTheSameForTheSameBytes) {
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{100'000}}) {
    const std::string bytes(size, 'x');
    const std::string copy = bytes;
    EXPECT_EQ(contentTag(bytes), contentTag(copy));
  }
}

TEST(ContentTag, differsWhereOneBitDoes) {
  std::string bytes(100, '\0');
  const ContentTag tag = contentTag(bytes);
  for (std::size_t bit = 0; bit < 8 * bytes.size(); ++bit) {
    const char before = bytes[bit / 8];
    bytes[bit / 8] = static_cast<char>(1U << bit % 8);
    EXPECT_NE(contentTag(bytes), tag);
    bytes[bit / 8] = before;
  }
}

TEST(ContentTag, differsWhereOnlyTheLengthDoes) {
  std::map<ContentTag, std::size_t> sizes;
  for (std::size_t size = 0; size < 200; ++size) sizes[contentTag(std::string(size, '\0'))] = size;
  EXPECT_EQ(sizes.size(), 200U);
}

// Short texts of two letters, so that many are equal.
TEST(ContentTag, isEqualExactlyWhereTheBytesAre) {
  std::mt19937_64 random(86'400);
  std::map<std::string, ContentTag> tags;
  std::map<ContentTag, std::string> texts;
  for (int round = 0; round < 20'000; ++round) {
    std::string text;
    for (auto count = random() % 12; count > 0; --count) text += "ab"[random() % 2];
    const ContentTag tag = contentTag(text);
    EXPECT_EQ(tags.try_emplace(text, tag).first->second, tag);
    EXPECT_EQ(texts.try_emplace(tag, text).first->second, text);
  }
  EXPECT_GT(tags.size(), 2'000U);
}

}  // namespace
}  // namespace stillow::core
