#include <filesystem>

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "PeerTestPKI.hpp"
#include "PlatformLinuxPeer/CodeSignature.hpp"
#include "PlatformLinuxPeer/CodeSigningAnchor.hpp"
#include "PlatformLinuxPeer/CodeStatement.hpp"

namespace stillow::platform::test {
namespace {

const std::string digits = "00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff";
const std::string statementText =
    "stillow code statement 1\nidentifier com.larchmoor.Stillow\nsize 4096\nsha256 " + digits +
    "\n";

TEST(CodeStatement, readsItsOneText) {
  const auto statement = CodeStatement::parse(statementText);
  ASSERT_TRUE(statement.has_value());
  EXPECT_EQ(statement->identifier, "com.larchmoor.Stillow");
  EXPECT_EQ(statement->size, 4096U);
  EXPECT_EQ(statement->sha256[1], 0x11);
  EXPECT_EQ(statement->sha256[31], 0xff);
  EXPECT_EQ(statement->text(), statementText);
}

TEST(CodeStatement, readsTheLargestSizeAndTheLongestIdentifier) {
  CodeStatement statement{std::string(255, 'a'), UINT64_MAX, {}};
  EXPECT_EQ(CodeStatement::parse(statement.text()), statement);
  statement.identifier += 'a';
  EXPECT_EQ(CodeStatement::parse(statement.text()), std::nullopt);
}

TEST(CodeStatement, refusesEveryOtherSpelling) {
  const std::string title = "stillow code statement 1\n";
  const std::string identifier = "identifier com.larchmoor.Stillow\n";
  const std::string size = "size 4096\n";
  const std::string sha256 = "sha256 " + digits + "\n";
  const std::string texts[]{
      "",
      title,
      title + identifier + size,
      statementText.substr(0, statementText.size() - 1),
      statementText + "\n",
      statementText + statementText,
      " " + statementText,
      "stillow code statement 2\n" + identifier + size + sha256,
      "stillow code statement 10\n" + identifier + size + sha256,
      title + size + identifier + sha256,
      title + "identifier \n" + size + sha256,
      title + "identifier a b\n" + size + sha256,
      title + "identifier a\"b\n" + size + sha256,
      title + "identifier \xc3\xa9\n" + size + sha256,
      title + std::string("identifier a\0b\n", 15) + size + sha256,
      title + "identifier  a\n" + size + sha256,
      title + "identifier a\r\n" + size + sha256,
      title + identifier + "size \n" + sha256,
      title + identifier + "size 04096\n" + sha256,
      title + identifier + "size -1\n" + sha256,
      title + identifier + "size +1\n" + sha256,
      title + identifier + "size 0x10\n" + sha256,
      title + identifier + "size 4096 \n" + sha256,
      title + identifier + "size 18446744073709551616\n" + sha256,
      title + identifier + size + "sha256 \n",
      title + identifier + size + "sha256 " + digits.substr(1) + "\n",
      title + identifier + size + "sha256 0" + digits + "\n",
      title + identifier + size + "sha256 " + digits.substr(1) + "g\n",
      title + identifier + size + "sha256 " + digits.substr(1) + "A\n",
      title + identifier + size + "sha1 " + digits + "\n",
  };
  for (const auto& text : texts) {
    SCOPED_TRACE(text);
    EXPECT_EQ(CodeStatement::parse(text), std::nullopt);
  }
}

class CodeSignature : public testing::Test {
 protected:
  [[nodiscard]] CodeSigningAnchor anchorOf(const KeyPair& pair) const {
    const auto path = directory / "anchor.pem";
    writeFile(path, pair.pem());
    return CodeSigningAnchor::load(path, ::geteuid()).value();
  }
  void expectRefusal(const std::string& signature, const std::string& reason) const {
    const auto verified = verifyCodeSignature(signature, anchor);
    ASSERT_FALSE(verified.has_value());
    EXPECT_NE(verified.error().find(reason), std::string::npos) << verified.error();
  }

  ScratchDirectory directory;
  KeyPair authority = makeAuthority();
  CodeSigningAnchor anchor = anchorOf(authority);
};

TEST_F(CodeSignature, yieldsTheStatementAndTheTeamOfTheSigner) {
  const auto verified = verifyCodeSignature(sign(statementText, makeSigner(authority)), anchor);
  ASSERT_TRUE(verified.has_value()) << verified.error();
  EXPECT_EQ(verified->statement.text(), statementText);
  EXPECT_EQ(verified->leafOrganizationalUnit, "TEAM");
}

TEST_F(CodeSignature, followsAChainOfCertificatesThatComeWithIt) {
  const auto middle = makeKeyPair({.commonName = "Middle", .isAuthority = true}, &authority);
  const auto signer = makeSigner(middle);
  EXPECT_TRUE(verifyCodeSignature(
                  sign(statementText, {.signers = {&signer}, .intermediates = {&middle}}), anchor)
                  .has_value());
  expectRefusal(sign(statementText, signer), "unable to get");
}

// The lengths of chains are bounded, so that nobody can make the verification long.
TEST_F(CodeSignature, refusesAChainThatIsTooLong) {
  for (const std::size_t count : {4U, 5U}) {
    std::vector<KeyPair> middles;
    middles.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
      middles.push_back(
          makeKeyPair({.commonName = "Middle " + std::to_string(i), .isAuthority = true},
                      i == 0 ? &authority : &middles[i - 1]));
    }
    const auto signer = makeSigner(middles.back());
    SignatureTraits traits{.signers = {&signer}};
    for (const auto& middle : middles) traits.intermediates.push_back(&middle);
    EXPECT_EQ(verifyCodeSignature(sign(statementText, traits), anchor).has_value(), count == 4);
  }
}

TEST_F(CodeSignature, refusesAStrangersAuthority) {
  const auto stranger = makeAuthority("Stranger");
  const auto signer = makeSigner(stranger);
  expectRefusal(sign(statementText, signer), "does not hold");
  expectRefusal(sign(statementText, {.signers = {&signer}, .intermediates = {&stranger}}),
                "does not hold");
}

TEST_F(CodeSignature, refusesAnAuthorityThatOnlyHasTheAnchorsName) {
  const auto impostor = makeAuthority();
  const auto signer = makeSigner(impostor);
  expectRefusal(sign(statementText, {.signers = {&signer}, .intermediates = {&impostor}}),
                "does not hold");
}

TEST_F(CodeSignature, doesNotTrustWhatTheSystemTrusts) {
  const auto stranger = makeAuthority("Stranger");
  const auto file = directory / "system.pem";
  writeFile(file, stranger.pem());
  ASSERT_EQ(::setenv("SSL_CERT_FILE", file.c_str(), 1), 0);
  expectRefusal(sign(statementText, makeSigner(stranger)), "does not hold");
  ASSERT_EQ(::unsetenv("SSL_CERT_FILE"), 0);
}

TEST_F(CodeSignature, refusesACertificateIssuedBySomebodyWhoMayOnlySign) {
  const auto signer = makeSigner(authority);
  const auto below = makeKeyPair({.organizationalUnits = {"TEAM"}}, &signer);
  expectRefusal(sign(statementText, {.signers = {&below}, .intermediates = {&signer}}),
                "does not hold");
}

TEST_F(CodeSignature, refusesACertificateThatIsNotForSigningCode) {
  const auto server =
      makeKeyPair({.organizationalUnits = {"TEAM"}, .isForSigningCode = false}, &authority);
  expectRefusal(sign(statementText, server), "not for signing code");
}

TEST_F(CodeSignature, refusesAWeakKey) {
  const auto weak = makeKeyPair({.organizationalUnits = {"TEAM"}, .isWeak = true}, &authority);
  expectRefusal(sign(statementText, weak), "key too weak");
}

TEST_F(CodeSignature, refusesACertificateThatDoesNotNameOneTeam) {
  for (const auto& units : {std::vector<std::string>{}, {"TEAM", "OTHER"}, {"TEAM", "TEAM"}}) {
    const auto signer = makeKeyPair({.organizationalUnits = units}, &authority);
    expectRefusal(sign(statementText, signer), "exactly one team");
  }
}

// A user's clock may be wrong and an installed program grows old; the maker's certificate has to
// have been good on the day it was used and no longer.
TEST_F(CodeSignature, judgesValidityByTheTimeOfSigning) {
  const auto signer = makeKeyPair(
      {.organizationalUnits = {"TEAM"}, .notBefore = 1'000'000'000, .notAfter = 1'100'000'000},
      &authority);
  const auto old = makeKeyPair({.commonName = "Old anchor",
                                .isAuthority = true,
                                .notBefore = 900'000'000,
                                .notAfter = 1'200'000'000});
  const auto anchorThatExpired = anchorOf(old);
  const auto signerOfOld = makeKeyPair(
      {.organizationalUnits = {"TEAM"}, .notBefore = 1'000'000'000, .notAfter = 1'100'000'000},
      &old);
  struct Row {
    const char* when;
    std::time_t madeAt;
    bool isAccepted;
  };
  const Row rows[]{
      {"before the certificate began", 999'999'999, false},
      {"in its first second", 1'000'000'000, true},
      {"before it ended", 1'099'999'999, true},
      {"after it ended", 1'100'000'001, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.when);
    const auto made = sign(statementText, {.signers = {&signerOfOld}, .madeAt = row.madeAt});
    EXPECT_EQ(verifyCodeSignature(made, anchorThatExpired).has_value(), row.isAccepted);
  }
  // The anchor has to have been valid as well, which the fixture's one was not yet.
  expectRefusal(sign(statementText, {.signers = {&signer}, .madeAt = 1'050'000'000}),
                "not yet valid");
}

TEST_F(CodeSignature, refusesWhatDoesNotSayWhenItWasMade) {
  const auto signer = makeSigner(authority);
  expectRefusal(sign(statementText, {.signers = {&signer}, .madeAt = std::nullopt}),
                "does not say when");
}

TEST_F(CodeSignature, refusesMessagesOfAnotherShape) {
  const auto signer = makeSigner(authority);
  const auto second = makeSigner(authority);
  const auto good = sign(statementText, signer);
  expectRefusal("", "is not a CMS signature");
  expectRefusal("not DER", "is not a CMS signature");
  expectRefusal(good + '\0', "is not a CMS signature");
  expectRefusal(good.substr(0, good.size() - 1), "is not a CMS signature");
  expectRefusal(sign(statementText, {.signers = {&signer}, .isDetached = true}),
                "holds no statement");
  expectRefusal(sign(statementText, {.signers = {&signer, &second}}), "exactly one signer");
  expectRefusal(sign("", signer), "something else than a code statement");
  expectRefusal(sign("hello", signer), "something else than a code statement");
  expectRefusal(sign(statementText + "more", signer), "something else than a code statement");
}

// Some bytes of the envelope are not covered by the signature; none of them may change what is
// read.
TEST_F(CodeSignature, noDamagedByteYieldsAnotherStatement) {
  const auto good = sign(statementText, makeSigner(authority));
  std::size_t refused = 0;
  for (std::size_t i = 0; i < good.size(); ++i) {
    auto damaged = good;
    damaged[i] = static_cast<char>(damaged[i] ^ 1);
    const auto verified = verifyCodeSignature(damaged, anchor);
    if (!verified) {
      ++refused;
      continue;
    }
    EXPECT_EQ(verified->statement.text(), statementText) << "byte " << i;
    EXPECT_EQ(verified->leafOrganizationalUnit, "TEAM") << "byte " << i;
  }
  const auto statementAt = good.find(statementText);
  ASSERT_NE(statementAt, std::string::npos);
  EXPECT_GT(refused, good.size() / 2);
}

class CodeSigningAnchorFile : public testing::Test {
 protected:
  [[nodiscard]] std::string errorOf(uid_t owner = ::geteuid()) const {
    const auto anchor = CodeSigningAnchor::load(path, owner);
    return anchor ? "" : anchor.error();
  }

  ScratchDirectory directory;
  std::string path = directory / "anchor.pem";
};

TEST_F(CodeSigningAnchorFile, isReadWhenOnlyItsOwnerCanWriteIt) {
  writeFile(path, makeAuthority().pem());
  EXPECT_EQ(errorOf(), "");
}

TEST_F(CodeSigningAnchorFile, isRefusedWhenOthersCanWriteIt) {
  writeFile(path, makeAuthority().pem());
  for (const mode_t mode : {0664U, 0646U, 0666U}) {
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
    EXPECT_NE(errorOf().find("can be written by others"), std::string::npos);
  }
}

TEST_F(CodeSigningAnchorFile, isRefusedWhenItBelongsToSomebodyElse) {
  writeFile(path, makeAuthority().pem());
  constexpr uid_t somebody = 12345;
  ASSERT_EQ(::chown(path.c_str(), somebody, static_cast<gid_t>(-1)), 0) << "this takes root";
  EXPECT_NE(errorOf(0).find("belongs to somebody else"), std::string::npos);
  // Whoever owns the executable could replace that instead.
  EXPECT_EQ(errorOf(somebody), "");
}

TEST_F(CodeSigningAnchorFile, isRefusedWhenItIsNoCertificateOfItsOwn) {
  EXPECT_NE(errorOf().find("cannot be read"), std::string::npos);
  for (const auto& content :
       {std::string(), std::string("no certificate"), std::string(70'000, ' ')}) {
    writeFile(path, content);
    EXPECT_NE(errorOf(), "");
  }
  writeFile(directory / "real.pem", makeAuthority().pem());
  ASSERT_EQ(::unlink(path.c_str()), 0);
  ASSERT_EQ(::symlink("real.pem", path.c_str()), 0);
  EXPECT_NE(errorOf().find("cannot be read"), std::string::npos);
}

TEST_F(CodeSigningAnchorFile, isTheInstalledOneBeforeTheBuildTreesOwn) {
  std::filesystem::create_directories(directory / "bin");
  const auto executable = directory / "bin/StillowDaemon";
  const auto load = [&] { return CodeSigningAnchor::installedFor(executable, ::geteuid()); };
  EXPECT_FALSE(load().has_value());
  writeFile(directory / "bin/anchor.pem", makeAuthority().pem());
  EXPECT_TRUE(load().has_value());
  // An installed one that is damaged does not lead to the other.
  std::filesystem::create_directories(directory / "share/stillow");
  writeFile(directory / "share/stillow/anchor.pem", "damaged");
  EXPECT_FALSE(load().has_value());
  writeFile(directory / "share/stillow/anchor.pem", makeAuthority().pem());
  ASSERT_EQ(::unlink((directory / "bin/anchor.pem").c_str()), 0);
  EXPECT_TRUE(load().has_value());
}

TEST(CodeSigningAnchor, ofABuildTreeLiesBesideItsExecutables) {
  const auto anchor = CodeSigningAnchor::installed();
  EXPECT_TRUE(anchor.has_value()) << anchor.error();
}

}  // namespace
}  // namespace stillow::platform::test
