#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "PlatformLinuxIPC/JSONScanner.hpp"
#include "StillowCore/JSONDocument.hpp"

namespace stillow::platform {
namespace {

using Kind = JSONScanner::Kind;
using Failure = JSONScanner::Failure;

constexpr std::size_t anyNumber = 1'000'000;

bool isJSON(std::string_view text) {
  JSONScanner scanner(text, anyNumber);
  return scanner.value() && scanner.atEnd();
}

std::string nested(std::size_t depth, std::string_view open, std::string_view close,
                   std::string_view core = {}) {
  std::string text;
  for (std::size_t level = 0; level < depth; ++level) text += open;
  text += core;
  for (std::size_t level = 0; level < depth; ++level) text += close;
  return text;
}

TEST(JSONScanner, acceptsWhatIsJSON) {
  const std::string_view texts[]{"null",
                                 "true",
                                 "false",
                                 "0",
                                 "-0",
                                 "10",
                                 "-1.25e+10",
                                 "1E-7",
                                 "0.0",
                                 "\"\"",
                                 "{}",
                                 "[]",
                                 " \t\r\n{ } ",
                                 "[1,2,3]",
                                 R"({"a":{"b":[null,true,"x",{"c":1}]},"d":[]})",
                                 R"("\"\\\/\b\f\n\r\t")",
                                 R"("\u0000\u00e9\uD83D\uDE00\ud83d\ude00")",
                                 "\"\x7f\"",
                                 "\"\u00e9\u20ac\U0001f600\"",
                                 "\"\xed\x9f\xbf\xee\x80\x80\xf4\x8f\xbf\xbf\"",
                                 R"([[],{},[{}],[[]]])",
                                 R"({"a":1,"a":2})"};
  for (const auto text : texts) EXPECT_TRUE(isJSON(text)) << text;
}

TEST(JSONScanner, refusesWhatIsNot) {
  const std::string_view texts[]{
      "", " ", "nul", "nulll", "True", "NaN", "Infinity", "-", "+1", "01", "-01", "1.", ".5", "1e",
      "1e+", "0x1", "--1", "1 2", "{", "}", "[", "]", "[1", "[1,", "[1,]", "[,]", "[1 2]", "{]",
      "[}", R"({"a"})", R"({"a":})", R"({"a":1,})", R"({,})", R"({a:1})", R"({1:1})", R"({"a" 1})",
      R"({"a":1 "b":2})", "'a'", "\"a", "\"a\nb\"", "\"\x01\"", R"("\x41")", R"("\u12")",
      R"("\u12g4")", R"("\ud83d")", R"("\ude00")", R"("\ud83dx")", R"("\ud83d\u0041")",
      R"("\ud83d\ud83d")", "\"\\", "// c\n1", "/* c */1", "\xef\xbb\xbf{}",
      // Overlong, a surrogate, past the end, cut off, a lone continuation.
      "\"\xc0\xaf\"", "\"\xe0\x80\xaf\"", "\"\xf0\x80\x80\xaf\"", "\"\xed\xa0\x80\"",
      "\"\xf4\x90\x80\x80\"", "\"\xf5\x80\x80\x80\"", "\"\xe2\x82\"", "\"\x80\"", "\"\xff\""};
  for (const auto text : texts) EXPECT_FALSE(isJSON(text)) << text;
  EXPECT_FALSE(isJSON(std::string_view("1\0", 2)));
  EXPECT_FALSE(isJSON(std::string_view("\"\0\"", 3)));
}

TEST(JSONScanner, goesAsDeepAsADocument) {
  constexpr std::size_t most = core::JSONDocument::nestingMax;
  EXPECT_TRUE(isJSON(nested(most, "[", "]")));
  EXPECT_FALSE(isJSON(nested(most + 1, "[", "]")));
  EXPECT_TRUE(isJSON(nested(most, R"({"a":)", "}", "1")));
  EXPECT_FALSE(isJSON(nested(most + 1, R"({"a":)", "}", "1")));
  EXPECT_FALSE(isJSON(nested(1'000'000, "[", "]")));
  // What is entered counts as well.
  const std::string text = "[" + nested(most, "[", "]") + "]";
  JSONScanner scanner(text, anyNumber);
  ASSERT_TRUE(scanner.enter('['));
  ASSERT_TRUE(scanner.next(']'));
  EXPECT_FALSE(scanner.value());
}

TEST(JSONScanner, givesMembersAsTheyStandInTheText) {
  constexpr std::string_view text = R"( { "a" : [ 1 , 2 ] ,"\u0062":"x\"y", "c":-1e5 } )";
  JSONScanner scanner(text, anyNumber);
  ASSERT_EQ(scanner.peek(), Kind::object);
  ASSERT_TRUE(scanner.enter('{'));
  struct Row {
    std::string_view key;
    Kind kind;
    std::string_view value;
  };
  for (const Row& row :
       {Row{"\"a\"", Kind::array, "[ 1 , 2 ]"}, Row{R"("\u0062")", Kind::string, R"("x\"y")"},
        Row{"\"c\"", Kind::number, "-1e5"}}) {
    ASSERT_TRUE(scanner.next('}'));
    const auto key = scanner.key();
    ASSERT_TRUE(key);
    EXPECT_EQ(key->text, row.key);
    const auto value = scanner.value();
    ASSERT_TRUE(value);
    EXPECT_EQ(value->kind, row.kind);
    EXPECT_EQ(value->text, row.value);
  }
  EXPECT_FALSE(scanner.next('}'));
  EXPECT_TRUE(scanner.atEnd());
}

TEST(JSONScanner, countsKeysAndValuesAtAnyDepth) {
  constexpr std::string_view text = R"({"a":[1,2],"b":{"c":null}})";  // 1 + 1+3 + 1+1+2
  JSONScanner enough(text, 9);
  EXPECT_TRUE(enough.value());
  for (std::size_t tooFew = 0; tooFew < 9; ++tooFew) {
    JSONScanner scanner(text, tooFew);
    EXPECT_FALSE(scanner.value());
    EXPECT_EQ(scanner.failure(), Failure::tooManyValues) << tooFew;
  }
}

TEST(JSONScanner, staysFailed) {
  JSONScanner scanner("[1,x]", anyNumber);
  EXPECT_FALSE(scanner.value());
  EXPECT_EQ(scanner.failure(), Failure::malformed);
  EXPECT_FALSE(scanner.value());
  EXPECT_FALSE(scanner.enter('['));
  EXPECT_FALSE(scanner.next(']'));
  EXPECT_FALSE(scanner.key());
  EXPECT_FALSE(scanner.atEnd());
}

/// A text that is JSON or nearly so.
std::string mutated(std::mt19937_64& random) {
  static const std::vector<std::string> seeds{
      R"({"jsonrpc":"2.0","id":1,"method":"status"})",
      R"([{"a":[1,-2.5e3,true,null]},"\u00e9\ud83d\ude00",{}])",
      R"({"domain":"b\u00fccher.example","groups":[]})", "[[[]]]",
      "\"\xe2\x82\xac\xf0\x9f\x98\x80\""};
  static const std::string alphabet("{}[]\":,\\ut0e+-.19 \n\xe2\x80\xed\xf4", 23);
  std::string text = seeds[random() % seeds.size()];
  for (std::uint64_t edits = random() % 4; edits > 0 && !text.empty(); --edits) {
    const std::size_t at = random() % text.size();
    switch (random() % 3) {
      case 0:
        text.erase(at, 1 + random() % 3);
        break;
      case 1:
        text.insert(at, 1, alphabet[random() % alphabet.size()]);
        break;
      default:
        text[at] = alphabet[random() % alphabet.size()];
        break;
    }
  }
  return text;
}

// What passes here is decoded there, so they must agree on what is JSON.
TEST(JSONScanner, agreesWithTheDocumentOnMutatedTexts) {
  std::mt19937_64 random(7);
  int accepted = 0;
  for (int round = 0; round < 100'000; ++round) {
    const std::string text = mutated(random);
    const bool isAccepted = isJSON(text);
    accepted += isAccepted ? 1 : 0;
    ASSERT_EQ(isAccepted, core::JSONDocument::parse(text).has_value()) << text;
  }
  EXPECT_GT(accepted, 10'000);
  EXPECT_LT(accepted, 90'000);
}

}  // namespace
}  // namespace stillow::platform
