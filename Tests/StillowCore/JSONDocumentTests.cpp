#include <string>

#include <gtest/gtest.h>

#include "StillowCore/JSONDocument.hpp"

namespace stillow::core {
namespace {

bool parses(std::string_view text) { return JSONDocument::parse(text).has_value(); }

TEST(JSONDocument, acceptsAnyValueAtTheTopAndBlanksAroundIt) {
  for (const char* const text : {"86400", "\"x\"", "null", " \t\r\n{} \n", "[[]]", "true"}) {
    EXPECT_TRUE(parses(text)) << text;
  }
}

TEST(JSONDocument, refusesWhatIsNotStrictJSON) {
  for (const char* const text : {"",
                                 "  ",
                                 "{\"a\":1,}",
                                 "[\"a\",]",
                                 "{,}",
                                 "[,]",
                                 "{\"a\":1,,}",
                                 "{\"a\":1} x",
                                 "{\"a\":1}{}",
                                 "// c\n1",
                                 "'a'",
                                 "{a:1}",
                                 "NaN",
                                 "Infinity",
                                 "True",
                                 "\"\\ud83d\"",
                                 "\"\\ude00\"",
                                 "\"\\ud83dx\"",
                                 "\"\\x41\"",
                                 "\"\\u12\"",
                                 "\"\x01\"",
                                 "01",
                                 "+1",
                                 ".5",
                                 "1.",
                                 "1.e2",
                                 "1e",
                                 "0x1",
                                 "-",
                                 "--1",
                                 "{\"a\":1,\"b\":1-2+e}",
                                 "{\"a\":1,\"b\":tru}",
                                 "\"\xff\"",
                                 "\"\xed\xa0\x80\"",
                                 "\v1",
                                 "\xEF\xBB\xBF{}",
                                 "[1 2]",
                                 "{\"a\" 1}"}) {
    EXPECT_FALSE(parses(text)) << text;
  }
}

TEST(JSONDocument, boundsNesting) {
  const auto nested = [](std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_TRUE(parses(nested(JSONDocument::nestingMax)));
  EXPECT_FALSE(parses(nested(JSONDocument::nestingMax + 1)));
  EXPECT_FALSE(parses(std::string(1'000'000, '[')));
}

TEST(JSONDocument, keepsDuplicatesNumbersAndUnescapedText) {
  const std::string text = R"({"a":1.50,"a":2,"\u0062":"\ud83d\ude00\u0000x"})";
  const auto document = JSONDocument::parse(text);
  ASSERT_TRUE(document.has_value());
  const auto& root = document->node(JSONDocument::root());
  EXPECT_EQ(root.kind, JSONDocument::Kind::object);
  EXPECT_EQ(root.count, 3U);
  EXPECT_EQ(document->node(1).text, "a");
  EXPECT_EQ(document->node(2).text, "1.50");
  EXPECT_EQ(document->node(4).text, "2");
  EXPECT_EQ(document->node(5).text, "b");
  EXPECT_EQ(document->node(6).text, std::string_view("😀\0x", 6));
  EXPECT_EQ(root.end, 7U);
}

TEST(JSONDocument, survivesAMove) {
  std::string text = R"(["short\n", "unescaped and long enough for the heap"])";
  auto parsed = JSONDocument::parse(text);
  ASSERT_TRUE(parsed.has_value());
  const JSONDocument moved = std::move(*parsed);
  EXPECT_EQ(moved.node(1).text, "short\n");
  EXPECT_EQ(moved.node(2).text, "unescaped and long enough for the heap");
}

}  // namespace
}  // namespace stillow::core
