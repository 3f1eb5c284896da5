#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "StillowCore/PublicSuffixList.hpp"
#include "StillowCore/ResourceBundle.hpp"
#include "TestSupport/TemporaryDirectory.hpp"

namespace stillow::core {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::string_view smallList = "com\nuk\nco.uk\n*.ck\n!www.ck\n";

TEST(PublicSuffixList, filesEachRuleUnderItsKind) {
  const PublicSuffixList list(
      "// a comment\n\n  com  \nCo.UK and a remark\n*.ck\n!www.ck\n//com.ck\n\tnet\n* .x\n");
  EXPECT_THAT(list.exactRules(), ElementsAre("*", "co.uk", "com", "net"));
  EXPECT_THAT(list.wildcardParents(), ElementsAre("ck"));
  EXPECT_THAT(list.exceptionRules(), ElementsAre("www.ck"));
}

TEST(PublicSuffixList, readsLinesWhateverEndsThem) {
  const PublicSuffixList list("a\r\nb\rc\u0085d\u2028e\u2029f");
  EXPECT_THAT(list.exactRules(), ElementsAre("a", "b", "c", "d", "e", "f"));
}

TEST(PublicSuffixList, addsTheASCIIFormOfRulesBeyondASCII) {
  const PublicSuffixList list("公司.cn\n*.Ελ\n!ü.ελ\na\u00A0b\nü\uE000\n");
  EXPECT_THAT(list.exactRules(), ElementsAre("a\u00A0b", "xn--55qx5d.cn", "ü\uE000", "公司.cn"));
  EXPECT_THAT(list.wildcardParents(), ElementsAre("xn--qxam", "ελ"));
  EXPECT_THAT(list.exceptionRules(), ElementsAre("xn--tda.xn--qxam", "ü.ελ"));
  EXPECT_EQ(list.registrableDomain("x.y.xn--55qx5d.cn"), "y.xn--55qx5d.cn");
  EXPECT_EQ(list.registrableDomain("x.y.公司.cn"), "y.公司.cn");
}

TEST(PublicSuffixList, isEmptyForAnEmptyText) {
  const PublicSuffixList list("");
  EXPECT_THAT(list.exactRules(), IsEmpty());
  EXPECT_EQ(list.publicSuffix("a.b"), "b");
  EXPECT_EQ(list.registrableDomain("a.b"), "a.b");
}

TEST(PublicSuffixList, letsAnExceptionBeatItsWildcard) {
  const PublicSuffixList list(smallList);
  EXPECT_EQ(list.publicSuffix("a.b.ck"), "b.ck");
  EXPECT_EQ(list.registrableDomain("a.b.ck"), "a.b.ck");
  EXPECT_EQ(list.publicSuffix("www.ck"), "ck");
  EXPECT_EQ(list.registrableDomain("www.ck"), "www.ck");
  EXPECT_EQ(list.publicSuffix("x.www.ck"), "ck");
  EXPECT_EQ(list.registrableDomain("x.www.ck"), "www.ck");
  EXPECT_EQ(list.publicSuffix("ck"), "ck");
  EXPECT_EQ(list.registrableDomain("b.ck"), std::nullopt);
}

TEST(PublicSuffixList, takesAnUnknownLastLabelForASuffix) {
  const PublicSuffixList list(smallList);
  EXPECT_EQ(list.publicSuffix("foo.internalzz"), "internalzz");
  EXPECT_EQ(list.registrableDomain("foo.internalzz"), "foo.internalzz");
  EXPECT_EQ(list.registrableDomain("bar.foo.internalzz"), "foo.internalzz");
}

TEST(PublicSuffixList, prefersTheLongestRule) {
  const PublicSuffixList list(smallList);
  EXPECT_EQ(list.publicSuffix("a.b.co.uk"), "co.uk");
  EXPECT_EQ(list.publicSuffix("a.b.uk"), "uk");
  EXPECT_EQ(list.registrableDomain("co.uk"), std::nullopt);
  EXPECT_EQ(list.registrableDomain("uk"), std::nullopt);
  // A rule counts even where none of its parents is one.
  EXPECT_EQ(PublicSuffixList("a.b.c.d\n").publicSuffix("x.a.b.c.d"), "a.b.c.d");
  EXPECT_EQ(PublicSuffixList("a.b.c.d\n").publicSuffix("x.b.c.d"), "d");
  // At one length the exception comes first, then the plain rule.
  EXPECT_EQ(PublicSuffixList("!a.b\na.b\n").publicSuffix("x.a.b"), "b");
  EXPECT_EQ(PublicSuffixList("*.b\n*.a.b\n").publicSuffix("y.x.a.b"), "x.a.b");
}

TEST(PublicSuffixList, comparesHostsAsTheyStand) {
  const PublicSuffixList list(smallList);
  EXPECT_EQ(list.publicSuffix("a.CO.UK"), "UK");
  EXPECT_EQ(PublicSuffixList("caf\u00E9.x\n").publicSuffix("a.cafe\u0301.x"), "cafe\u0301.x");
}

TEST(PublicSuffixList, dropsEmptyLabels) {
  const PublicSuffixList list(smallList);
  EXPECT_EQ(list.publicSuffix(""), "");
  EXPECT_EQ(list.publicSuffix("."), ".");
  EXPECT_EQ(list.publicSuffix("com."), "com.");
  EXPECT_EQ(list.registrableDomain("com."), std::nullopt);
  EXPECT_EQ(list.publicSuffix("co..uk"), "co.uk");
  EXPECT_EQ(list.registrableDomain("co..uk"), std::nullopt);
  EXPECT_EQ(list.registrableDomain("a..co.uk."), "a.co.uk");
  EXPECT_EQ(list.registrableDomain(".a.com"), "a.com");
  EXPECT_EQ(list.publicSuffix("..com"), "..com");
}

TEST(PublicSuffixList, followsTheLetterForAnExceptionOfOneLabel) {
  const PublicSuffixList list("!com\n");
  EXPECT_EQ(list.publicSuffix("a.com"), "");
  EXPECT_EQ(list.registrableDomain("a.com"), "com");
  EXPECT_EQ(list.publicSuffix("com"), "com");
}

TEST(PublicSuffixList, splitsWithoutCopyingWhereItCan) {
  const PublicSuffixList list(smallList);
  const std::string_view host = "mail.example.co.uk";
  const auto split = list.split(host);
  ASSERT_TRUE(split);
  EXPECT_EQ(split->publicSuffix.data(), host.data() + 13);
  EXPECT_EQ(split->registrableDomain, "example.co.uk");
  EXPECT_EQ(split->registrableDomain.data(), host.data() + 5);
  EXPECT_TRUE(list.split("co.uk")->registrableDomain.empty());
  EXPECT_FALSE(list.split(""));
  EXPECT_FALSE(list.split("co..uk"));
  EXPECT_FALSE(list.split("ü.com"));
}

TEST(PublicSuffixList, isBundledWithTheProduct) {
  const PublicSuffixList& list = PublicSuffixList::fromResource();
  EXPECT_GT(list.exactRules().size(), 9'000U);
  EXPECT_TRUE(list.wildcardParents().contains("ck"));
  EXPECT_TRUE(list.exceptionRules().contains("www.ck"));
  EXPECT_TRUE(list.exactRules().contains("公司.cn"));
  EXPECT_TRUE(list.exactRules().contains("xn--55qx5d.cn"));
  EXPECT_EQ(list.registrableDomain("www.example.co.uk"), "example.co.uk");
  EXPECT_EQ(list.registrableDomain("a.b.kobe.jp"), "a.b.kobe.jp");
  EXPECT_EQ(list.registrableDomain("www.city.kobe.jp"), "city.kobe.jp");
  EXPECT_EQ(&PublicSuffixList::fromResource(), &list) << "read once per process";
}

class ResourceBundleFiles : public ::testing::Test {
 protected:
  ResourceBundleFiles() { std::filesystem::create_directories(root_ / "bin"); }

  std::filesystem::path makeBundle(const std::filesystem::path& parent) {
    const auto directory = root_ / parent / "StillowCore_StillowCore.bundle";
    std::filesystem::create_directories(directory);
    return directory;
  }
  [[nodiscard]] ResourceBundle bundle() const {
    return ResourceBundle::named("StillowCore_StillowCore", root_ / "bin");
  }
  static void write(const std::filesystem::path& path, std::string_view bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
  }

  test::TemporaryDirectory directory_;
  std::filesystem::path root_ = directory_.path();
};

using ResourceBundleDeathTest = ResourceBundleFiles;

TEST_F(ResourceBundleFiles, areReadFromBesideTheExecutable) {
  write(makeBundle("bin") / "public_suffix_list.dat", "com\n");
  EXPECT_EQ(bundle().contents("public_suffix_list", "dat"), "com\n");
  EXPECT_EQ(bundle().contents("another", "dat"), std::nullopt);
  EXPECT_THAT(PublicSuffixList::fromResource(bundle()).exactRules(), ElementsAre("com"));
}

TEST_F(ResourceBundleFiles, areReadFromTheShareDirectoryOfAnInstallation) {
  write(makeBundle("share/stillow") / "public_suffix_list.dat", "net\n");
  EXPECT_EQ(bundle().contents("public_suffix_list", "dat"), "net\n");
  write(makeBundle("bin") / "public_suffix_list.dat", "com\n");
  EXPECT_EQ(bundle().contents("public_suffix_list", "dat"), "com\n") << "the nearer one wins";
}

TEST_F(ResourceBundleFiles, areReadFromTheResourcesOfAnApplication) {
  std::filesystem::create_directories(root_ / "Contents" / "MacOS");
  write(makeBundle("Contents/Resources") / "public_suffix_list.dat", "org\n");
  const auto inApplication =
      ResourceBundle::named("StillowCore_StillowCore", root_ / "Contents" / "MacOS");
  EXPECT_EQ(inApplication.contents("public_suffix_list", "dat"), "org\n");
}

TEST_F(ResourceBundleFiles, areReadWholeHoweverLongTheyAre) {
  const auto path = makeBundle("bin") / "long.dat";
  constexpr std::size_t megabyte = 1 << 20;
  std::string bytes;
  for (std::size_t at = 0; at <= megabyte; ++at) bytes += static_cast<char>(at % 251);
  for (const std::size_t size : {megabyte / 4 - 1, megabyte / 4, megabyte / 4 + 1, megabyte + 1}) {
    write(path, std::string_view(bytes).substr(0, size));
    const auto contents = bundle().contents("long", "dat");
    ASSERT_TRUE(contents && *contents == bytes.substr(0, size)) << size;
  }
}

TEST_F(ResourceBundleFiles, mayBeEmptyButNoDirectories) {
  const auto directory = makeBundle("bin");
  write(directory / "empty.dat", "");
  std::filesystem::create_directory(directory / "folder.dat");
  EXPECT_EQ(bundle().contents("empty", "dat"), "");
  EXPECT_EQ(bundle().contents("folder", "dat"), std::nullopt);
}

TEST_F(ResourceBundleDeathTest, aMissingBundleStopsTheProcess) {
  EXPECT_DEATH((void)bundle(), "Fatal error: unable to find bundle named StillowCore_StillowCore ");
  makeBundle("Resources");
  EXPECT_DEATH((void)bundle(), "unable to find bundle") << "only an application's are looked at";
  write(root_ / "bin" / "StillowCore_StillowCore.bundle", "a file is no bundle");
  EXPECT_DEATH((void)bundle(), "Fatal error: unable to find bundle named StillowCore_StillowCore ");
}

TEST_F(ResourceBundleDeathTest, aMissingOrUnreadableListStopsTheProcess) {
  constexpr auto message =
      "Fatal error: StillowCore is missing its bundled public_suffix_list\\.dat resource ";
  const auto directory = makeBundle("bin");
  EXPECT_DEATH((void)PublicSuffixList::fromResource(bundle()), message);
  write(directory / "public_suffix_list.dat", "com\n\xFF\n");
  EXPECT_DEATH((void)PublicSuffixList::fromResource(bundle()), message) << "no UTF-8";
}

}  // namespace
}  // namespace stillow::core
