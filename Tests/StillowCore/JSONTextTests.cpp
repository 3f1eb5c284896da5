#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>

#include "StillowCore/Base64.hpp"
#include "StillowCore/JSONText.hpp"
#include "StillowCore/TextBuffer.hpp"

namespace stillow::core::json {
namespace {

std::string encodedDouble(double value) {
  TextBuffer text;
  EXPECT_TRUE(appendDouble(text, value));
  return std::move(text).take();
}

std::string encodedString(std::string_view value) {
  std::string text;
  appendString(text, value);
  return text;
}

/// One character after the other.
std::string plainlyEncodedString(std::string_view value) {
  static const std::string_view signs = "\"\\/\b\t\n\f\r";
  static const std::string_view letters = "\"\\/btnfr";
  std::string text = "\"";
  for (const char c : value) {
    if (const std::size_t at = signs.find(c); at != std::string_view::npos) {
      text += {'\\', letters[at]};
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
      text += escape;
    } else {
      text += c;
    }
  }
  return text + '"';
}

/// Six bits after the other.
std::string plainlyEncodedBase64(std::string_view bytes) {
  static const std::string_view alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  std::uint32_t held = 0;
  int bits = 0;
  for (const char c : bytes) {
    held = held << 8 | static_cast<unsigned char>(c);
    for (bits += 8; bits >= 6; bits -= 6) text += alphabet[held >> (bits - 6) & 63];
  }
  if (bits > 0) text += alphabet[held << (6 - bits) & 63];
  while (text.size() % 4 != 0) text += '=';
  return text;
}

/// The fewest digits as the standard library finds them; for numbers that are written without an
/// exponent.
std::string plainlyEncodedDouble(double value) {
  char text[400];
  return {text, std::to_chars(text, text + sizeof text, value, std::chars_format::fixed).ptr};
}

/// Mostly plain characters, so that whole blocks of them come as well.
std::string randomText(std::mt19937_64& random, std::size_t length) {
  const bool isPlain = random() % 2 == 0;
  std::string text;
  while (text.size() < length) {
    text += isPlain || random() % 16 != 0 ? static_cast<char>('a' + random() % 26)
                                          : static_cast<char>(random() % 256);
  }
  return text;
}

TEST(JSONText, writesNumbersWithTheFewestDigitsAndNoEmptyFraction) {
  struct Row {
    double value;
    const char* text;
  };
  const Row rows[]{{0.0, "0"},
                   {-0.0, "-0"},
                   {1.0, "1"},
                   {0.1, "0.1"},
                   {86400.5, "86400.5"},
                   {753451200.0, "753451200"},
                   {753451200.123, "753451200.123"},
                   {123456789.123456789, "123456789.12345679"},
                   {9007199254740992.0, "9007199254740992"},
                   {9007199254740994.0, "9.007199254740994e+15"},
                   {1e15, "1000000000000000"},
                   {1e16, "1e+16"},
                   {1e21, "1e+21"},
                   {0.0001, "0.0001"},
                   {1e-5, "1e-05"},
                   {5e-324, "5e-324"}};
  for (const Row& row : rows) EXPECT_EQ(encodedDouble(row.value), row.text);
}

TEST(JSONText, describesADoubleWithAFractionOrAnExponent) {
  struct Row {
    double value;
    const char* text;
  };
  const Row rows[]{{0.0, "0.0"},
                   {-0.0, "-0.0"},
                   {5, "5.0"},
                   {30, "30.0"},
                   {2.5, "2.5"},
                   {90000, "90000.0"},
                   {86400.5, "86400.5"},
                   {1e15, "1000000000000000.0"},
                   {1.0 / 3, "0.3333333333333333"},
                   {9007199254740992.0, "9007199254740992.0"},
                   {9007199254740994.0, "9.007199254740994e+15"},
                   {1e16, "1e+16"},
                   {1e100, "1e+100"},
                   {0.0001, "0.0001"},
                   {1e-5, "1e-05"},
                   {0.00009999, "9.999e-05"},
                   {std::numeric_limits<double>::infinity(), "inf"},
                   {-std::numeric_limits<double>::infinity(), "-inf"},
                   {std::numeric_limits<double>::quiet_NaN(), "nan"}};
  for (const Row& row : rows) EXPECT_EQ(description(row.value), row.text);
}

TEST(JSONText, readsBackEveryFiniteDoubleItWrites) {
  std::mt19937_64 random(20260101);
  for (int i = 0; i < 200'000; ++i) {
    const std::uint64_t bits = random();
    double value = 0;
    std::memcpy(&value, &bits, sizeof value);
    if (!std::isfinite(value)) continue;
    const auto read = parseDouble(encodedDouble(value));
    ASSERT_TRUE(read.has_value()) << bits;
    ASSERT_EQ(std::signbit(*read), std::signbit(value)) << bits;
    ASSERT_EQ(*read, value) << bits;
  }
}

TEST(JSONText, writesEachDoubleAsTheStandardLibraryDoes) {
  std::mt19937_64 random(20261121);
  for (int i = 0; i < 100'000; ++i) {
    // Every exponent from 2^-2 to 2^53; a third with few digits, as people write them, a third with
    // few bits, among them the powers of two.
    double value = std::ldexp(1 + static_cast<double>(random() >> 12) * 0x1p-52,
                              static_cast<int>(random() % 56) - 2);
    if (i % 3 == 1) value = std::round(value * 1'000) / 1'000;
    if (i % 3 == 2) {
      auto bits = std::bit_cast<std::uint64_t>(value);
      bits &= ~std::uint64_t{0} << random() % 53;
      value = std::bit_cast<double>(bits);
    }
    if (value < 0.0001 || value > 9'007'199'254'740'992.0) continue;
    ASSERT_EQ(encodedDouble(value), plainlyEncodedDouble(value));
    ASSERT_EQ(encodedDouble(-value), plainlyEncodedDouble(-value));
  }
}

TEST(JSONText, refusesWhatHasNoNumberForm) {
  TextBuffer text;
  EXPECT_FALSE(appendDouble(text, std::numeric_limits<double>::quiet_NaN()));
  EXPECT_FALSE(appendDouble(text, std::numeric_limits<double>::infinity()));
  EXPECT_TRUE(std::move(text).take().empty());
}

TEST(JSONText, escapesQuotesBackslashesSlashesAndControlCharactersOnly) {
  EXPECT_EQ(encodedString("\"\\/"), R"("\"\\\/")");
  EXPECT_EQ(encodedString("\b\t\n\f\r"), R"("\b\t\n\f\r")");
  EXPECT_EQ(encodedString(std::string_view("\0\x01\x0b\x1f", 4)), R"("\u0000\u0001\u000b\u001f")");
  EXPECT_EQ(encodedString("\x7f\u0080\u2028\u2029é😀<>&'"), "\"\x7f\u0080\u2028\u2029é😀<>&'\"");
  EXPECT_EQ(encodedString("plain, then / and plain"), R"("plain, then \/ and plain")");
}

TEST(JSONText, writesEachTextAsOneCharacterAfterTheOther) {
  std::mt19937_64 random(5);
  for (int i = 0; i < 20'000; ++i) {
    const std::string value = randomText(random, random() % 100);
    ASSERT_EQ(encodedString(value), plainlyEncodedString(value));
  }
  // Each sign in each place of a text of each length.
  for (std::size_t length = 1; length <= 40; ++length) {
    for (std::size_t at = 0; at < length; ++at) {
      for (const char c : {'"', '\\', '/', '\0', '\x1f', '\x20', '\x7f', '\x80', '\xff'}) {
        std::string value(length, 'x');
        value[at] = c;
        ASSERT_EQ(encodedString(value), plainlyEncodedString(value));
      }
    }
  }
}

TEST(JSONText, writesBase64AsAString) {
  std::mt19937_64 random(6);
  for (int i = 0; i < 300; ++i) {
    std::string bytes = randomText(random, random() % 10'000);
    if (i % 2 == 0) {
      for (char& byte : bytes) byte = static_cast<char>(random());
    }
    TextBuffer text;
    appendBase64(text, bytes);
    ASSERT_EQ(std::move(text).take(), plainlyEncodedString(plainlyEncodedBase64(bytes)));
  }
}

TEST(TextBuffer, continuesATextAndGrows) {
  TextBuffer buffer("a text that is longer than what fits into a string without memory of its own");
  std::string expected =
      "a text that is longer than what fits into a string without memory of its own";
  for (int i = 0; i < 10'000; ++i) {
    buffer.append('/');
    buffer.append(std::to_string(i));
    buffer.append("");
    expected += "/" + std::to_string(i);
  }
  EXPECT_EQ(std::move(buffer).take(), expected);
}

TEST(TextBuffer, isEmptyAtFirst) { EXPECT_EQ(TextBuffer().take(), ""); }

TEST(JSONText, readsIntegersInEveryWholeForm) {
  struct Row {
    const char* text;
    std::int64_t value;
  };
  const Row rows[]{{"1.0", 1},
                   {"1e2", 100},
                   {"1E+2", 100},
                   {"100e-2", 1},
                   {"-0", 0},
                   {"-0.0", 0},
                   {"1.0000000000000001", 1},
                   {"9223372036854775807", INT64_MAX},
                   {"-9223372036854775808", INT64_MIN},
                   {"1e18", 1'000'000'000'000'000'000},
                   {"9007199254740993.0", 9'007'199'254'740'993},
                   {"9007199254740993.5", 9'007'199'254'740'993},
                   {"-9007199254740993.0", -9'007'199'254'740'993},
                   {"900719925474099300e-2", 9'007'199'254'740'993}};
  for (const Row& row : rows) EXPECT_EQ(parseInteger(row.text), row.value) << row.text;
}

TEST(JSONText, refusesNumbersThatAreNoInteger) {
  for (const char* const text :
       {"1.5", "9223372036854775808", "1e19", "9223372036854775807.0", "-9223372036854775808.0",
        "1e400", "-9223372036854775809", "1e-1"}) {
    EXPECT_FALSE(parseInteger(text).has_value()) << text;
  }
}

TEST(JSONText, readsDoublesAndRefusesWhatIsOutOfTheirRange) {
  EXPECT_EQ(parseDouble("1"), 1.0);
  EXPECT_EQ(parseDouble("9007199254740993"), 9007199254740992.0);
  EXPECT_EQ(parseDouble("3e-324"), 5e-324);
  EXPECT_TRUE(std::signbit(*parseDouble("-0")));
  EXPECT_EQ(parseDouble("0e-400"), 0.0);
  EXPECT_EQ(parseDouble("0.0e1"), 0.0);
  for (const char* const text : {"1e400", "-1e400", "1e-400", "2e-324"}) {
    EXPECT_FALSE(parseDouble(text).has_value()) << text;
  }
}

TEST(JSONText, encodesBase64WithPadding) {
  EXPECT_EQ(base64Encoded("\xFB\xFF\xFE\x3E\x3F"), "+//+Pj8=");
  EXPECT_EQ(base64Encoded("\x01"), "AQ==");
  EXPECT_EQ(base64Encoded(""), "");
  EXPECT_EQ(base64Encoded("\x01\x02\x03"), "AQID");
}

TEST(JSONText, decodesBase64Strictly) {
  EXPECT_EQ(base64Decoded("AQID"), "\x01\x02\x03");
  EXPECT_EQ(base64Decoded("AQI="), "\x01\x02");
  EXPECT_EQ(base64Decoded("AQ=="), "\x01");
  EXPECT_EQ(base64Decoded(""), "");
  EXPECT_EQ(base64Decoded("AR=="), "\x01");
  EXPECT_EQ(base64Decoded("AQJ="), "\x01\x02");
  EXPECT_EQ(base64Decoded("AQID===="), "\x01\x02\x03");
  for (const char* const text :
       {"AQI", "AQ", "AQ=", "A", "===", "=AQI", " AQID", "AQID\n", "AQ ID", "-_-_",
        "AQID=", "AQI==", "AQ===", "AQ=D", "A===", "====", "AQ==AQ=="}) {
    const auto decoded = base64Decoded(text);
    ASSERT_FALSE(decoded.has_value()) << text;
    EXPECT_EQ(decoded.error(), "Encountered Data is not valid Base64.");
  }
}

TEST(JSONText, decodesTheBase64ItEncodes) {
  std::mt19937 random(7);
  for (std::size_t length = 0; length < 300; ++length) {
    std::string bytes(length, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    EXPECT_EQ(base64Encoded(bytes), plainlyEncodedBase64(bytes));
    EXPECT_EQ(base64Decoded(base64Encoded(bytes)), bytes);
  }
}

TEST(JSONText, prettyPrintsWithSortedKeysAndOpenEmptyContainers) {
  EXPECT_EQ(prettyPrinted(R"({"validation":{"passed":{}},"validatedAt":753451200.5,)"
                          R"("filterConfigurationIsEnabled":true})"),
            "{\n  \"filterConfigurationIsEnabled\" : true,\n  \"validatedAt\" : 753451200.5,\n  "
            "\"validation\" : {\n    \"passed\" : {\n\n    }\n  }\n}");
  EXPECT_EQ(prettyPrinted(R"({"a":[],"d":[[]],"e":[1,2]})"),
            "{\n  \"a\" : [\n\n  ],\n  \"d\" : [\n    [\n\n    ]\n  ],\n  \"e\" : [\n    1,\n    "
            "2\n  ]\n}");
  EXPECT_EQ(prettyPrinted("{}"), "{\n\n}");
  EXPECT_EQ(prettyPrinted(R"({"é":1,"z":"a\/b","a9":1,"a10":1,"_":null,"A":false})"),
            "{\n  \"A\" : false,\n  \"_\" : null,\n  \"a10\" : 1,\n  \"a9\" : 1,\n  "
            "\"z\" : \"a\\/b\",\n  \"é\" : 1\n}");
}

}  // namespace
}  // namespace stillow::core::json
