#include <limits>

#include <gtest/gtest.h>

#include "PlatformLinuxPeer/FileDigestCache.hpp"
#include "PlatformLinuxPeer/LogText.hpp"

namespace stillow::platform {
namespace {

core::SHA256Digest digestNumber(unsigned char number) {
  core::SHA256Digest digest{};
  digest[0] = number;
  return digest;
}

TEST(FileDigestCache, findsTheDigestOfExactlyThatVersion) {
  FileDigestCache cache;
  const FileVersion version{1, 2, 3, 4, 5};
  cache.store(version, digestNumber(7));
  EXPECT_EQ(cache.find(version), digestNumber(7));
  for (const FileVersion other :
       {FileVersion{9, 2, 3, 4, 5}, FileVersion{1, 9, 3, 4, 5}, FileVersion{1, 2, 9, 4, 5},
        FileVersion{1, 2, 3, 9, 5}, FileVersion{1, 2, 3, 4, 9}}) {
    EXPECT_EQ(cache.find(other), std::nullopt);
  }
}

TEST(FileDigestCache, forgetsWhatWasNotUsedForLongest) {
  FileDigestCache cache;
  const auto version = [](std::size_t number) { return FileVersion{1, number, 0, 0, 0}; };
  for (std::size_t i = 0; i < FileDigestCache::entriesMax; ++i) cache.store(version(i), {});
  ASSERT_TRUE(cache.find(version(0)).has_value());
  cache.store(version(1), digestNumber(1));
  cache.store(version(1000), {});
  EXPECT_TRUE(cache.find(version(0)).has_value());
  EXPECT_EQ(cache.find(version(1)), digestNumber(1));
  EXPECT_FALSE(cache.find(version(2)).has_value());
  EXPECT_TRUE(cache.find(version(3)).has_value());
  EXPECT_TRUE(cache.find(version(1000)).has_value());
}

TEST(FileVersion, isSettledOnceAFurtherChangeMustShow) {
  const FileVersion version{.changedSeconds = 1'000'000'000};
  const auto at = [&](double seconds) {
    return version.isSettled(core::Date::fromUnixSeconds(seconds));
  };
  EXPECT_FALSE(at(1'000'000'000));
  EXPECT_FALSE(at(1'000'000'003));
  EXPECT_TRUE(at(1'000'000'003.5));
  EXPECT_TRUE(at(2'000'000'000));
  EXPECT_FALSE(at(999'999'999)) << "a clock that was set back";
  EXPECT_FALSE(at(std::numeric_limits<double>::quiet_NaN()));
}

// A stranger names his own files, and the name ends up in a log of one line per event.
TEST(LogText, quotesNamesSoThatTheyStayOneShortLine) {
  EXPECT_EQ(quotedForLog("/usr/bin/stillow"), "\"/usr/bin/stillow\"");
  EXPECT_EQ(quotedForLog("a\nb\x1b[31m\"\\"), "\"a\\x0ab\\x1b[31m\\x22\\x5c\"");
  EXPECT_EQ(quotedForLog("\xc3\xa9\x7f"), "\"\\xc3\\xa9\\x7f\"");
  EXPECT_EQ(quotedForLog(std::string(256, 'x')), "\"" + std::string(256, 'x') + "\"");
  EXPECT_EQ(quotedForLog(std::string(257, 'x')), "\"" + std::string(256, 'x') + "...\"");
}

}  // namespace
}  // namespace stillow::platform
