#include <random>
#include <string>

#include <gtest/gtest.h>

#include "StillowCore/JSONDocument.hpp"
#include "TestSupport/BoostJSONReference.hpp"

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

/// A text that is mostly JSON, of values in no order and of strings of all lengths.
std::string randomJSON(std::mt19937_64& random, int depth) {
  const auto pick = [&](auto&... choices) {
    const std::string_view all[]{choices...};
    return std::string(all[random() % std::size(all)]);
  };
  const auto string = [&] {
    std::string text = "\"";
    for (auto left = random() % 40; left > 0; --left) {
      text += random() % 20 != 0 ? std::string(1, static_cast<char>('a' + random() % 26))
                                 : pick("\\n", "\\/", "\\u00e9", "\\ud83d\\ude00", "\\udc00", "é",
                                        "😀", "\x1f", "\xff");
    }
    return text + "\"";
  };
  const auto blank = [&] { return random() % 8 == 0 ? pick(" ", "\n", "\t\r ") : std::string(); };
  const auto kind = random() % (depth < 5 ? 8 : 6);
  if (kind < 3) return blank() + string() + blank();
  if (kind < 4) return blank() + pick("true", "false", "null", "nul", "{}", "[]", "[ ]");
  if (kind < 6)
    return pick("0", "-0", "12", "-1.50", "1e5", "1E-7", "0.0e+2", "01", "1.", "-", "+1");
  const bool isObject = kind == 6;
  std::string text(1, isObject ? '{' : '[');
  for (auto left = random() % 6; left > 0; --left) {
    if (isObject) text += blank() + string() + blank() + ":";
    text += randomJSON(random, depth + 1) + (left > 1 || random() % 40 == 0 ? "," : "");
  }
  return text + (isObject ? '}' : ']') + blank();
}

// Somebody else's parser is the plain reference; the fuzz target compares the same two.
TEST(JSONDocument, readsEveryTextAsAnotherParserDoes) {
  std::mt19937_64 random(20261121);
  int acceptedCount = 0;
  for (int i = 0; i < 10'000; ++i) {
    std::string text = randomJSON(random, 0);
    for (auto left = random() % 3; left > 0 && !text.empty(); --left) {
      const std::size_t at = random() % text.size();
      switch (random() % 4) {
        case 0:
          text.erase(at, 1);
          break;
        case 1:
          text[at] = static_cast<char>(random());
          break;
        case 2:
          text.insert(at, 1, "\"\\,:[]{}0-e."[random() % 12]);
          break;
        default:
          break;
      }
    }
    const auto theirs = testing::readWithBoost(text);
    if (theirs.hasGivenUp) continue;
    acceptedCount += theirs.events ? 1 : 0;
    ASSERT_EQ(testing::readWithDocument(text), theirs.events) << text;
  }
  // Both ways are tried often.
  EXPECT_GT(acceptedCount, 1'000);
  EXPECT_LT(acceptedCount, 9'000);
}

}  // namespace
}  // namespace stillow::core
