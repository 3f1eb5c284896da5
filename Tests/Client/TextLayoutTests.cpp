#include <string>

#include <gtest/gtest.h>

#include "StillowClient/TextLayout.hpp"

namespace stillow::client {
namespace {

TEST(TextLayout, countsCellsAndNotBytes) {
  EXPECT_EQ(displayWidth("example"), 7U);
  EXPECT_EQ(displayWidth("bücher"), 6U);
  EXPECT_EQ(displayWidth("bu\u0308cher"), 6U) << "a combining mark";
  EXPECT_EQ(displayWidth("日本語"), 6U);
  EXPECT_EQ(displayWidth("🙂"), 2U);
  EXPECT_EQ(displayWidth("\x1b[32mgood\x1b[0m"), 4U);
  EXPECT_EQ(displayWidth(""), 0U);
}

TEST(TextLayout, breaksLinesAtBlanks) {
  EXPECT_EQ(wrapped("one two three", 8), "one two\nthree");
  EXPECT_EQ(wrapped("one two three", 8, 2), "one two\n  three");
  EXPECT_EQ(wrapped("one two three", 0), "one two three");
  EXPECT_EQ(wrapped("one\ntwo three", 5), "one\ntwo\nthree");
  EXPECT_EQ(wrapped("  indented words", 12, 4), "  indented\n    words");
  EXPECT_EQ(wrapped("", 8), "");
}

TEST(TextLayout, breaksWordsOnlyWhereTheyDoNotFit) {
  EXPECT_EQ(wrapped("abcdefghij", 4), "abcd\nefgh\nij");
  EXPECT_EQ(wrapped("日本語日本語", 5), "日本\n語日\n本語") << "a wide character is not halved";
  EXPECT_EQ(wrapped("abcdef", 1), "a\nb\nc\nd\ne\nf");
  EXPECT_EQ(wrapped("日本", 1), "日\n本") << "what never fits is still written";
}

TEST(TextLayout, neverExceedsTheWidth) {
  const std::string text =
      "A Commitment is active for another 30 min, until about tomorrow 18:37:00, and 日本語 is "
      "blocked with averyveryveryveryverylongname.example.";
  for (std::size_t columns = 2; columns < 100; ++columns) {
    const std::string lines = wrapped(text, columns, 2);
    for (std::size_t at = 0; at <= lines.size();) {
      const std::size_t end = std::min(lines.find('\n', at), lines.size());
      EXPECT_LE(displayWidth(lines.substr(at, end - at)), columns) << lines.substr(at, end - at);
      at = end + 1;
    }
  }
}

TEST(TextLayout, shortensWithAnEllipsis) {
  EXPECT_EQ(shortened("example", 7), "example");
  EXPECT_EQ(shortened("example", 4), "exa…");
  EXPECT_EQ(shortened("日本語", 4), "日…");
  EXPECT_EQ(shortened("example", 0), "");
}

TEST(TextLayout, takesTheSteeringOutOfForeignText) {
  EXPECT_EQ(printable("a\x1b[2Jb"), "a\uFFFD[2Jb");
  EXPECT_EQ(printable("a\r\nb"), "a\uFFFD\uFFFDb");
  EXPECT_EQ(printable("a\u202Eb"), "a\uFFFDb") << "turns the reading direction";
  EXPECT_EQ(printable("a\u0085b"), "a\uFFFDb");
  EXPECT_EQ(printable("a\xFF"), "a\uFFFD");
  EXPECT_EQ(printable("日本語 bücher"), "日本語 bücher");
  EXPECT_TRUE(isPrintable("bücher"));
  EXPECT_FALSE(isPrintable("a\tb"));
  EXPECT_EQ(quoted("a\x07"), "“a\uFFFD”");
}

TEST(TextLayout, usesColourOnlyWhereItIsWanted) {
  EXPECT_TRUE(wantsColour(true, nullptr, "xterm-256color"));
  EXPECT_TRUE(wantsColour(true, "", "xterm")) << "an empty NO_COLOR is none";
  EXPECT_FALSE(wantsColour(false, nullptr, "xterm"));
  EXPECT_FALSE(wantsColour(true, "1", "xterm"));
  EXPECT_FALSE(wantsColour(true, nullptr, "dumb"));
  EXPECT_FALSE(wantsColour(true, nullptr, nullptr));
  EXPECT_TRUE(canRewrite(true, "xterm"));
  EXPECT_FALSE(canRewrite(true, "dumb"));
  EXPECT_FALSE(canRewrite(false, "xterm"));

  TextStyle style;
  EXPECT_EQ(toned("good", Tone::good, style), "good");
  style.hasColour = true;
  EXPECT_EQ(toned("good", Tone::good, style), "\x1b[32mgood\x1b[0m");
}

TEST(TextLayout, counts) {
  EXPECT_EQ(counted(0, "site"), "0 sites");
  EXPECT_EQ(counted(1, "site"), "1 site");
  EXPECT_EQ(counted(2, "site"), "2 sites");
}

}  // namespace
}  // namespace stillow::client
