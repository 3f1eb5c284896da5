#include <cstddef>
#include <random>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "StillowCore/ShortText.hpp"

namespace stillow::core {
namespace {

static_assert(sizeof(ShortText) == sizeof(std::string));
static_assert(std::is_nothrow_move_constructible_v<ShortText>);
static_assert(std::is_nothrow_move_assignable_v<ShortText>);

bool isWithin(const ShortText& text) {
  const auto* const object = reinterpret_cast<const char*>(&text);
  return text.view().data() >= object && text.view().data() < object + sizeof text;
}

TEST(ShortText, keepsTextsOfEverySizeAroundTheLimit) {
  const std::string letters(100, 'x');
  for (std::size_t size = 0; size <= letters.size(); ++size) {
    const std::string expected = letters.substr(0, size) + "y";
    const ShortText text(expected);
    EXPECT_EQ(text.view(), expected);
    EXPECT_EQ(isWithin(text), expected.size() <= ShortText::inPlaceMax);
  }
}

TEST(ShortText, keepsEveryByte) {
  const std::string bytes{"\0\xFF\n", 3};
  EXPECT_EQ(ShortText(bytes).view(), bytes);
}

TEST(ShortText, isEmptyByItself) { EXPECT_EQ(ShortText().view(), ""); }

TEST(ShortText, doesNotNeedWhatItWasMadeOf) {
  std::string source(40, 'a');
  const ShortText text(source);
  source.assign(40, 'b');
  EXPECT_EQ(text.view(), std::string(40, 'a'));
}

TEST(ShortText, copiesAreTextsOfTheirOwn) {
  ShortText text(std::string(40, 'a'));
  const ShortText copy = text;
  EXPECT_NE(copy.view().data(), text.view().data());
  text = ShortText("b");
  EXPECT_EQ(copy.view(), std::string(40, 'a'));
  EXPECT_EQ(text.view(), "b");
}

TEST(ShortText, survivesAnAssignmentToItself) {
  for (const std::size_t size : {std::size_t{5}, std::size_t{50}}) {
    ShortText text(std::string(size, 'a'));
    const ShortText& same = text;
    text = same;
    EXPECT_EQ(text.view(), std::string(size, 'a'));
    ShortText& alias = text;
    text = std::move(alias);
    EXPECT_EQ(text.view(), std::string(size, 'a'));
  }
}

TEST(ShortText, leavesNothingBehindWhereItWasMovedFrom) {
  for (const std::size_t size : {std::size_t{5}, std::size_t{50}}) {
    ShortText from(std::string(size, 'a'));
    const ShortText to = std::move(from);
    EXPECT_EQ(to.view(), std::string(size, 'a'));
    EXPECT_EQ(from.view(), "");  // NOLINT(bugprone-use-after-move): promised
  }
}

// Whatever is done to a list of texts, they are what strings would be.
TEST(ShortText, behavesAsStringsDo) {
  std::mt19937_64 random(86'400);
  std::vector<ShortText> texts;
  std::vector<std::string> strings;
  for (int step = 0; step < 20'000; ++step) {
    const std::string made(random() % 60, static_cast<char>('a' + random() % 26));
    if (strings.size() < 2) {
      texts.emplace_back(made);
      strings.push_back(made);
      continue;
    }
    const std::size_t one = random() % strings.size();
    const std::size_t other = random() % strings.size();
    switch (random() % 6) {
      case 0:
      case 1:
        texts.insert(texts.begin() + static_cast<std::ptrdiff_t>(one), ShortText(made));
        strings.insert(strings.begin() + static_cast<std::ptrdiff_t>(one), made);
        break;
      case 2:
        texts.erase(texts.begin() + static_cast<std::ptrdiff_t>(one));
        strings.erase(strings.begin() + static_cast<std::ptrdiff_t>(one));
        break;
      case 3:
        texts[one] = texts[other];
        strings[one] = strings[other];
        break;
      case 4:
        texts[one] = ShortText(made);
        strings[one] = made;
        break;
      default:
        std::swap(texts[one], texts[other]);
        std::swap(strings[one], strings[other]);
        break;
    }
    if (step % 100 != 0) continue;
    ASSERT_EQ(texts.size(), strings.size());
    for (std::size_t i = 0; i < texts.size(); ++i) ASSERT_EQ(texts[i].view(), strings[i]);
  }
}

}  // namespace
}  // namespace stillow::core
