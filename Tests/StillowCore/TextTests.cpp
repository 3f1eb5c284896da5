#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unicode/uchar.h>
#include <unicode/ustring.h>
#include <unicode/uversion.h>

#include "StillowCore/Text.hpp"

namespace stillow::core::text {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

std::string utf8(char32_t codePoint) {
  std::string bytes;
  appendUTF8(bytes, codePoint);
  return bytes;
}

constexpr bool isSurrogate(char32_t codePoint) {
  return codePoint >= 0xD800 && codePoint <= 0xDFFF;
}

template <class Predicate>
std::vector<char32_t> allCodePoints(Predicate isMember) {
  std::vector<char32_t> members;
  for (char32_t codePoint = 0; codePoint <= 0x10FFFF; ++codePoint) {
    if (!isSurrogate(codePoint) && isMember(codePoint)) members.push_back(codePoint);
  }
  return members;
}

/// Major version of the ICU that this process runs with; its data decide what newer letters become.
int icuVersion() {
  UVersionInfo version;
  u_getVersion(version);
  return version[0];
}

TEST(TextUTF8, readsBackEveryCodePointFromEitherSide) {
  for (char32_t codePoint = 0; codePoint <= 0x10FFFF; ++codePoint) {
    if (isSurrogate(codePoint)) continue;
    const std::string bytes = "x" + utf8(codePoint) + "x";
    const auto next = codePointAt(bytes, 1);
    const auto before = codePointBefore(bytes, bytes.size() - 1);
    ASSERT_EQ(next.value, codePoint);
    ASSERT_EQ(next.length, bytes.size() - 2);
    ASSERT_EQ(before.value, codePoint);
    ASSERT_EQ(before.length, next.length);
    ASSERT_TRUE(isValidUTF8(bytes)) << static_cast<std::uint32_t>(codePoint);
  }
}

TEST(TextUTF8, refusesWhatIsNotWellFormed) {
  for (const std::string_view text :
       {"\x80", "\xBF", "\xC0\x80", "\xC1\xBF", "\xC3", "\xC3(", "\xE0\x80\x80", "\xE0\x9F\xBF",
        "\xE2\x82", "\xE2(\xA1", "\xED\xA0\x80", "\xED\xBF\xBF", "\xF0\x80\x80\x80",
        "\xF0\x8F\xBF\xBF", "\xF0\x9F\x98", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFE",
        "\xFF"}) {
    EXPECT_FALSE(isValidUTF8(text)) << testing::PrintToString(text);
    // Behind eight bytes of ASCII too, which are skipped at once.
    EXPECT_FALSE(isValidUTF8("abcdefgh" + std::string(text)));
    const auto first = codePointAt(text, 0);
    EXPECT_EQ(first.value, U'\uFFFD');
    EXPECT_EQ(first.length, 1U);
    EXPECT_FALSE(codePointBefore(text, text.size()).isWellFormed && text.size() > 1 &&
                 text.back() != '(');
  }
  EXPECT_TRUE(isValidUTF8(""));
}

TEST(TextASCII, isFoundAtEveryPlaceOfALongerText) {
  for (std::size_t size = 0; size < 40; ++size) {
    std::string text(size, 'a');
    EXPECT_TRUE(isASCII(text));
    for (std::size_t at = 0; at < size; ++at) {
      text[at] = '\x80';
      EXPECT_FALSE(isASCII(text)) << size << " " << at;
      text[at] = 'a';
    }
  }
  static_assert(isASCII("ASCII while compiling, longer than a word"));
  static_assert(!isASCII("no ASCII while compiling \u00E9"));
}

TEST(TextWhitespace, blanksAreTrimmedIncludingTheZeroWidthSpace) {
  const std::vector<char32_t> blanks{0x09,   0x20,   0xA0,   0x1680, 0x2000, 0x2001, 0x2002,
                                     0x2003, 0x2004, 0x2005, 0x2006, 0x2007, 0x2008, 0x2009,
                                     0x200A, 0x200B, 0x202F, 0x205F, 0x3000};
  EXPECT_THAT(allCodePoints([](char32_t c) { return trimmingWhitespace(utf8(c)).empty(); }),
              ElementsAreArray(blanks));

  std::vector<char32_t> blanksAndNewlines = blanks;
  blanksAndNewlines.insert(blanksAndNewlines.end(), {0x0A, 0x0B, 0x0C, 0x0D, 0x85, 0x2028, 0x2029});
  std::ranges::sort(blanksAndNewlines);
  EXPECT_THAT(
      allCodePoints([](char32_t c) { return trimmingWhitespaceAndNewlines(utf8(c)).empty(); }),
      ElementsAreArray(blanksAndNewlines));
}

TEST(TextWhitespace, isACharacterPropertyWithoutTheZeroWidthSpace) {
  EXPECT_THAT(
      allCodePoints([](char32_t c) { return c >= 0x80 && platform::isWhitespace(c); }),
      ElementsAre(0x85, 0xA0, 0x1680, 0x2000, 0x2001, 0x2002, 0x2003, 0x2004, 0x2005, 0x2006,
                  0x2007, 0x2008, 0x2009, 0x200A, 0x2028, 0x2029, 0x202F, 0x205F, 0x3000));
}

TEST(TextWhitespace, isTrimmedByCodePointsAtBothEndsOnly) {
  EXPECT_EQ(trimmingWhitespace(" \u0301a"), "\u0301a");
  EXPECT_EQ(trimmingWhitespaceAndNewlines("\u200B \r\n a b\u200Bc \u2029\u3000"), "a b\u200Bc");
  EXPECT_EQ(trimmingWhitespace("\na\n"), "\na\n");
  EXPECT_EQ(trimmingWhitespaceAndNewlines("\t\n "), "");
  EXPECT_EQ(trimmingWhitespaceAndNewlines(""), "");
  EXPECT_EQ(trimmingWhitespace(" \xFF \x80 "), "\xFF \x80");
}

TEST(TextLines, endWhereThePlatformEndsThem) {
  EXPECT_THAT(lines(""), IsEmpty());
  EXPECT_THAT(lines("a\r\r\nb"), ElementsAre("a", "", "b"));
  EXPECT_THAT(lines("a\n"), ElementsAre("a"));
  EXPECT_THAT(lines("a\n\rb"), ElementsAre("a", "", "b"));
  EXPECT_THAT(lines("\n\n"), ElementsAre("", ""));
  EXPECT_THAT(lines("a\u000Bb"), ElementsAre("a\u000Bb"));
  EXPECT_THAT(lines("a\r\nb"), ElementsAre("a", "b"));
  EXPECT_THAT(lines("\uFEFFa\nb"), ElementsAre("\uFEFFa", "b"));

  EXPECT_THAT(allCodePoints([](char32_t c) { return lines("a" + utf8(c) + "b").size() == 2; }),
              ElementsAre(0x0A, 0x0D, 0x85, 0x2028, 0x2029));
}

TEST(TextLines, canBeTakenOneByOne) {
  std::string_view text = "a\r\n\nb";
  EXPECT_EQ(takeLine(text), "a");
  EXPECT_EQ(text, "\nb");
  EXPECT_EQ(takeLine(text), "");
  EXPECT_EQ(takeLine(text), "b");
  EXPECT_EQ(text, "");
  EXPECT_EQ(takeLine(text), "") << "an empty text has one for whoever asks";
}

TEST(TextLowercase, mapsEachCodePointAlone) {
  EXPECT_EQ(lowercased("MiXeD-1"), "mixed-1");
  EXPECT_EQ(lowercased("\u0130"), "i\u0307");
  EXPECT_EQ(lowercased("ΒΌΛΟΣ"), "βόλοσ");
  EXPECT_EQ(lowercased("ẞ"), "ß");
  EXPECT_EQ(lowercased("\u212A"), "k");
  EXPECT_EQ(lowercased("Ⅷ"), "ⅷ");
  EXPECT_EQ(lowercased("E\u0301"), "e\u0301") << "nothing is normalised";
  EXPECT_EQ(lowercased("A\xFFZ\u00C9"), "a\uFFFDz\u00E9");
}

TEST(TextLowercase, isUnicodesFullMappingForEveryCodePoint) {
  for (char32_t codePoint = 0; codePoint <= 0x10FFFF; ++codePoint) {
    if (isSurrogate(codePoint)) continue;
    UChar source[2];
    int32_t sourceLength = 0;
    U16_APPEND_UNSAFE(source, sourceLength, static_cast<UChar32>(codePoint));
    UChar mapped[8];
    UErrorCode status = U_ZERO_ERROR;
    const int32_t mappedLength = u_strToLower(mapped, 8, source, sourceLength, "", &status);
    char expected[32];
    int32_t expectedLength = 0;
    u_strToUTF8(expected, sizeof expected, &expectedLength, mapped, mappedLength, &status);
    ASSERT_TRUE(U_SUCCESS(status));
    ASSERT_EQ(lowercased(utf8(codePoint)),
              std::string_view(expected, static_cast<std::size_t>(expectedLength)));
  }
}

TEST(TextEquality, isCanonicalEquivalence) {
  EXPECT_TRUE(areCanonicallyEqual("\u00E9", "e\u0301"));
  EXPECT_TRUE(areCanonicallyEqual("\u212A", "K"));
  EXPECT_TRUE(areCanonicallyEqual("\u037E", ";"));
  EXPECT_FALSE(areCanonicallyEqual("a", "A"));
  EXPECT_FALSE(areCanonicallyEqual("ﬁ", "fi"));
  EXPECT_FALSE(areCanonicallyEqual("１", "1"));
  EXPECT_EQ(canonicallyComposed("e\u0301."), "\u00E9.");
  EXPECT_EQ(canonicallyComposed("plain"), "plain");
}

TEST(TextCharacters, areGraphemeClusters) {
  EXPECT_EQ(find("a.\u0301b", "."), std::string_view::npos);
  EXPECT_EQ(find("a.\u0301b.c", "."), 5U);
  EXPECT_EQ(find("http://\u0338x", "://"), std::string_view::npos);
  EXPECT_EQ(find("http://x", "://"), 4U);
  for (const std::string_view mark : {"\u0301", "\u200C", "\u200D", "\uFE0F"}) {
    EXPECT_FALSE(isWholeCharacter("," + std::string(mark), 0));
    EXPECT_TRUE(isWholeCharacter(std::string(mark) + ",", mark.size()));
    EXPECT_FALSE(hasSuffix("a." + std::string(mark), '.'));
    EXPECT_FALSE(hasPrefix("//" + std::string(mark), "//"));
  }
  EXPECT_TRUE(isWholeCharacter("é,é", 2));
  // A sign joins a prepended mark on its left as well.
  EXPECT_FALSE(isWholeCharacter("\u0600.a", 2));
  EXPECT_FALSE(hasSuffix("\u0600.", '.'));

  EXPECT_FALSE(isCharacterBoundary("\r\n", 1)) << "CR LF is one character";
  EXPECT_TRUE(isCharacterBoundary("\n\r", 1));
  EXPECT_TRUE(isCharacterBoundary("ab", 1));
  EXPECT_TRUE(isCharacterBoundary("a\xFF", 1)) << "what is no UTF-8 joins nothing";
}

TEST(TextCharacters, areFoundFromEitherEnd) {
  EXPECT_EQ(find("a.b.c", "."), 1U);
  EXPECT_EQ(find("a.b.c", ".", 2), 3U);
  EXPECT_EQ(find("a.b.c", ".", 4), std::string_view::npos);
  EXPECT_EQ(find("a.\u0301b.c.d", '.'), 5U);
  EXPECT_EQ(find("a.\u0301b.c.d", '.', 6), 7U);
  EXPECT_EQ(find("a.\u0301b", '.'), std::string_view::npos);
  EXPECT_EQ(find("a.b", '.', 9), std::string_view::npos);
  EXPECT_EQ(findLast("a@b@c", '@'), 3U);
  EXPECT_EQ(findLast("@ab@\u0301", '@'), 0U);
  EXPECT_EQ(findLast("@\u0301", '@'), std::string_view::npos);
  EXPECT_EQ(findLast("", '@'), std::string_view::npos);
  EXPECT_TRUE(hasSuffix("a.", '.'));
  EXPECT_FALSE(hasSuffix("", '.'));
  EXPECT_TRUE(hasPrefix("//", "//"));
}

// MARK: hosts

struct HostRow {
  std::string host;
  std::optional<std::string> ascii;
};

void expectHosts(const std::vector<HostRow>& rows) {
  for (const auto& row : rows) {
    EXPECT_EQ(asciiHost(row.host), row.ascii) << row.host;
  }
}

constexpr auto none = std::nullopt;

TEST(TextASCIIHost, leavesASCIIAsItIs) {
  expectHosts({
      {"Example.COM", "Example.COM"},
      {"a..b", "a..b"},
      {"foo-.example", "foo-.example"},
      {"xn--a.example", "xn--a.example"},
      {"!$&'()*+,-.;=_~", "!$&'()*+,-.;=_~"},
      {"a%2Fb", "a%2Fb"},
      {"a%2", none},
      {"a%2g", none},
      {"%", none},
      {"", none},
  });
  for (const char c : std::string_view{" `{|}^\"<>\\/?#@:[]\x7F\x01\0", 20}) {
    EXPECT_EQ(asciiHost(std::string("a") + c + "b"), none) << static_cast<int>(c);
  }
}

TEST(TextASCIIHost, convertsAsAURLDoes) {
  expectHosts({
      {"bücher.example", "xn--bcher-kva.example"},
      {"BÜCHER.Example", "xn--bcher-kva.example"},
      {"faß.de", "xn--fa-hia.de"},
      {"中国", "xn--fiqs8s"},
      {"中国.", "xn--fiqs8s."},
      {"xn--fiqs8s.中国", "xn--fiqs8s.xn--fiqs8s"},
      {"xn--a.ü.example", none},
      {"☃.net", "xn--n3h.net"},
      {"😀.example", "xn--e28h.example"},
      {"Ⅷ.example", "viii.example"},
      {"ﬁ.example", "fi.example"},
      {"ｅｘａｍｐｌｅ.com", "example.com"},
      {"example。com", "example.com"},
      {"１９２.168.0.1", "192.168.0.1"},
      {"İ.example", "xn--i-9bb.example"},
      {"ΒΌΛΟΣ.com", "xn--nxasmq6b.com"},
      {"βόλος.com", "xn--nxasmm1c.com"},
      {"e\u0301.example", "xn--9ca.example"},
      {"公司.cn", "xn--55qx5d.cn"},
      {std::string(55, 'a') + "ü", "xn--" + std::string(55, 'a') + "-8yf"},
      {std::string(56, 'a') + "ü", none},
      {"a\u200Db.example", none},
      {"a\u200Cb.example", none},
      {"क्\u200Dष.example", "xn--11b2ezcw70k.example"},
      {"אב.example", "xn--4dbc.example"},
      {"aא.example", none},
      {"1א.example", none},
      {"السعودية", "xn--mgberp4a5d4ar"},
      {"ü..example", none},
      {".ü.example", none},
      {"-ü.example", none},
      {"ü-.example", none},
      {"foo-.ü.example", none},
      {"ab--cd.ü.example", none},
      {"a_ü.example", "xn--a_-yka.example"},
      {"ü~.example", "xn--~-dha.example"},
      {"ü$.example", "xn--$-dha.example"},
      {"ü`.example", none},
      {"ü{.example", none},
      {"ü\u007F.example", none},
      {"ä\u00ADb.example", "xn--b-zfa.example"},
      {"ü\u200B.example", "xn--tda.example"},
      {"\u200B", none},
      {"\u00AD", none},
      {"\u0301a.example", none},
      {"ü\uE000.example", none},
      {"℀.example", none},
      {"a／b.example", none},
  });
}

// UTS #46 began to keep the capital sharp s apart with the data of ICU 74.
TEST(TextASCIIHost, mapsTheCapitalSharpSAsTheLinkedDataSay) {
  expectHosts({{"FAẞ.de", icuVersion() >= 74 ? "xn--fa-hia.de" : "fass.de"}});
}

TEST(TextASCIIHost, refusesWhatIsTooLongOrNoUTF8) {
  const auto nameOf = [](std::size_t length) {
    std::string name = "xn--tda";  // ü
    while (name.size() < length) {
      name += "." + std::string(std::min<std::size_t>(63, length - name.size() - 1), 'a');
    }
    return name;
  };
  const auto withUmlaut = [&](std::size_t length) { return "ü" + nameOf(length).substr(7); };
  EXPECT_EQ(asciiHost(withUmlaut(253)), nameOf(253));
  EXPECT_EQ(asciiHost(withUmlaut(253) + "."), nameOf(253) + ".");
  EXPECT_EQ(asciiHost(withUmlaut(254)), none);

  // What the mapping drops still counts towards the 2048 code units.
  const auto withSoftHyphens = [](std::size_t units) {
    std::string host = "ü";
    for (std::size_t i = 1; i < units; ++i) host += "\u00AD";
    return host;
  };
  EXPECT_EQ(asciiHost(withSoftHyphens(2048)), "xn--tda");
  EXPECT_EQ(asciiHost(withSoftHyphens(2049)), none);

  EXPECT_EQ(asciiHost("ü\xFF.example"), none);
  EXPECT_EQ(asciiHost("ü%41.example"), none) << "percent-encoding stands in ASCII hosts only";
}

}  // namespace
}  // namespace stillow::core::text
