// The text rules that look at many bytes at once or at tables of their own, each against a plain
// one or against ICU's.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unicode/ubrk.h>
#include <unicode/utf16.h>

#include "StillowCore/Text.hpp"

namespace stillow::core::text {
namespace {

using ::testing::ElementsAreArray;

/// Up to `piecesMax` of the pieces, in any order.
std::string randomText(std::mt19937_64& random, const std::vector<std::string>& pieces,
                       std::size_t piecesMax) {
  std::string text;
  for (auto count = random() % (piecesMax + 1); count > 0; --count) {
    text += pieces[random() % pieces.size()];
  }
  return text;
}

TEST(TextUTF8, isWhatReadsWithoutAnIllFormedCodePoint) {
  std::mt19937_64 random(8'132);
  const std::vector<std::string> pieces{
      "a", "plain text of ASCII", "\u00E9", "\u20AC", "\U0001F600", "bc", "\n", "\xC3", "\x80"};
  int wellFormed = 0;
  for (int round = 0; round < 20'000; ++round) {
    const std::string text = randomText(random, pieces, round % 2 == 0 ? 4 : 12);
    bool expected = true;
    for (std::size_t at = 0; at < text.size();) {
      const auto next = codePointAt(text, at);
      expected = expected && next.isWellFormed;
      at += next.length;
    }
    ASSERT_EQ(isValidUTF8(text), expected) << testing::PrintToString(text);
    wellFormed += expected ? 1 : 0;
  }
  EXPECT_GT(wellFormed, 2'000);
  EXPECT_LT(wellFormed, 18'000);
}

TEST(TextASCII, isInLowerCaseWhereNoByteIsACapitalOrBeyondIt) {
  const auto isPlain = [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x80 && (byte < 'A' || byte > 'Z');
  };
  for (std::size_t size = 0; size < 60; ++size) {
    std::string text(size, 'm');
    ASSERT_TRUE(isLowercaseASCII(text)) << size;
    for (std::size_t at = 0; at < size; ++at) {
      for (int byte = 0; byte < 256; ++byte) {
        text[at] = static_cast<char>(byte);
        ASSERT_EQ(isLowercaseASCII(text), isPlain(text[at])) << byte << " at " << at;
      }
      text[at] = 'm';
    }
  }
}

TEST(TextWhitespace, isTrimmedAsIfCodePointByCodePoint) {
  std::mt19937_64 random(160);
  const std::vector<std::string> pieces{" ", "\t",     "\u00A0", "\u200B",
                                        "a", "\u00E9", "\x1F",   "\xA0"};
  for (int round = 0; round < 20'000; ++round) {
    const std::string text = randomText(random, pieces, 8);
    std::vector<std::string_view> codePoints;
    for (std::size_t at = 0; at < text.size(); at += codePoints.back().size()) {
      codePoints.push_back(std::string_view(text).substr(at, codePointAt(text, at).length));
    }
    const auto isBlank = [](std::string_view codePoint) {
      return codePoint == " " || codePoint == "\t" || codePoint == "\u00A0" ||
             codePoint == "\u200B";
    };
    const auto first = std::ranges::find_if_not(codePoints, isBlank);
    while (codePoints.end() != first && isBlank(codePoints.back())) codePoints.pop_back();
    std::string expected;
    for (auto codePoint = first; codePoint < codePoints.end(); ++codePoint) expected += *codePoint;
    ASSERT_EQ(trimmingWhitespace(text), expected) << testing::PrintToString(text);
  }
}

/// Looks for each terminator at each byte.
std::vector<std::string> plainLines(std::string_view text) {
  std::vector<std::string> found;
  std::string line;
  while (!text.empty()) {
    std::size_t terminator = 0;
    for (const std::string_view ending :
         {"\r\n", "\n", "\r", "\xC2\x85", "\xE2\x80\xA8", "\xE2\x80\xA9"}) {
      if (terminator == 0 && text.starts_with(ending)) terminator = ending.size();
    }
    if (terminator == 0) {
      line += text.front();
      text.remove_prefix(1);
      if (text.empty()) found.push_back(line);
    } else {
      found.push_back(line);
      line.clear();
      text.remove_prefix(terminator);
    }
  }
  return found;
}

TEST(TextLines, areThoseThatAPlainLookAtEachByteFinds) {
  std::mt19937_64 random(1'013);
  const std::vector<std::string> pieces{"a",
                                        "some more words",
                                        "a line of sixteen bytes and of others",
                                        "\n",
                                        "\r",
                                        "\r\n",
                                        "\t",
                                        "\v",
                                        "\x0E",
                                        "\u0085",
                                        "\u2028",
                                        "\u2029",
                                        "\u2027",
                                        "\u00E9",
                                        "\U0001F600",
                                        "\xC2",
                                        "\xE2\x80",
                                        "\x85"};
  for (int round = 0; round < 20'000; ++round) {
    const std::string text = randomText(random, pieces, 12);
    const auto expected = plainLines(text);
    ASSERT_THAT(lines(text), ElementsAreArray(expected)) << testing::PrintToString(text);
    std::string_view rest = text;
    for (const std::string& line : expected) {
      ASSERT_FALSE(rest.empty());
      ASSERT_EQ(takeLine(rest), line) << testing::PrintToString(text);
    }
    ASSERT_TRUE(rest.empty()) << testing::PrintToString(text);
  }
}

/// Pairs of code points as ICU's own iterator over characters separates them.
class CharacterBreaks {
 public:
  CharacterBreaks() {
    UErrorCode status = U_ZERO_ERROR;
    iterator_.reset(ubrk_open(UBRK_CHARACTER, "", nullptr, 0, &status));
    isSuccess_ = U_SUCCESS(status);
  }

  void add(char32_t left, char32_t right) {
    append('\n');  // Which no rule looks across.
    append(left);
    pairs_.push_back({left, right, static_cast<int32_t>(length_)});
    append(right);
  }
  /// Compares those that were added, and forgets them. False if ICU separates others.
  [[nodiscard]] bool agree() {
    UErrorCode status = U_ZERO_ERROR;
    ubrk_setText(iterator_.get(), text_.data(), static_cast<int32_t>(length_), &status);
    isSuccess_ = isSuccess_ && U_SUCCESS(status);
    auto next = ubrk_first(iterator_.get());
    for (const Pair& pair : pairs_) {
      while (next != UBRK_DONE && next < pair.middle) next = ubrk_next(iterator_.get());
      if (platform::areSeparateCharacters(pair.left, pair.right) != (next == pair.middle)) {
        ADD_FAILURE() << std::hex << static_cast<std::uint32_t>(pair.left) << " "
                      << static_cast<std::uint32_t>(pair.right);
        isSuccess_ = false;
        break;
      }
    }
    pairs_.clear();
    length_ = 0;
    return isSuccess_;
  }

 private:
  struct Closing {
    void operator()(UBreakIterator* iterator) const { ubrk_close(iterator); }
  };
  struct Pair {
    char32_t left;
    char32_t right;
    int32_t middle;
  };

  void append(char32_t codePoint) {
    if (text_.size() < length_ + 2) text_.resize(2 * text_.size() + 2);
    U16_APPEND_UNSAFE(text_.data(), length_, static_cast<UChar32>(codePoint));
  }

  std::unique_ptr<UBreakIterator, Closing> iterator_;
  std::u16string text_;
  std::size_t length_ = 0;
  std::vector<Pair> pairs_;
  bool isSuccess_ = false;
};

/// Each with `partner`, on either side.
bool agreeAbout(CharacterBreaks& breaks, char32_t first, char32_t last, char32_t partner) {
  for (char32_t codePoint = first; codePoint <= last; ++codePoint) {
    if (U_IS_SURROGATE(codePoint)) continue;
    breaks.add(codePoint, partner);
    breaks.add(partner, codePoint);
    if (codePoint % 0x1000 == 0 && !breaks.agree()) return false;
  }
  return breaks.agree();
}

TEST(TextCharacters, areSeparateFromAFullStopWhereICUsIteratorSaysSo) {
  CharacterBreaks breaks;
  EXPECT_TRUE(agreeAbout(breaks, 0, 0x10FFFF, '.'));
}

TEST(TextCharacters, areSeparateWhereICUsIteratorSaysSo) {
  // One of each kind that the rules tell apart, a pictograph and an Indic consonant.
  constexpr char32_t partners[]{'\r',   '\n',   0x0000, 0x0301, 0x200D, 0x0903,  0x0600, 0x1100,
                                0x1161, 0x11A8, 0xAC00, 0xAC01, 0x0915, 0x1F1E6, 0x1F600};
  CharacterBreaks breaks;
  for (const char32_t partner : partners) {
    ASSERT_TRUE(agreeAbout(breaks, 0x0000, 0x1FFFF, partner));
    ASSERT_TRUE(agreeAbout(breaks, 0xE0000, 0xE0FFF, partner));  // The last that join others.
  }
}

}  // namespace
}  // namespace stillow::core::text
