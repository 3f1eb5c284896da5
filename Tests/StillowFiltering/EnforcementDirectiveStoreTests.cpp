#include <cstdint>
#include <expected>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "StillowFiltering/EnforcementDirectiveStore.hpp"
#include "StillowFiltering/Storage/PosixFileSystem.hpp"
#include "TestSupport/SimulatedFileSystem.hpp"
#include "TestSupport/TemporaryDirectory.hpp"

namespace stillow::filtering {
namespace {

namespace fs = std::filesystem;
using core::Date;
using core::Domain;
using core::DomainSet;
using test::SimulatedFileSystem;
using testing::ElementsAre;
using testing::HasSubstr;
using Read = std::expected<std::optional<EnforcementDirective>, EnforcementDirectiveError>;

EnforcementDirective directive(std::int64_t generation, double publishedAt) {
  return {
      .scope = core::Scope{.generation = generation,
                           .domains = DomainSet::of(
                               {*Domain::make("a.example"), *Domain::make("b.example")})},
      .validation = ValidationProbe::issued(*Domain::make("probe.example"), Date{publishedAt}, 20),
      .publishedAt = Date{publishedAt}};
}

std::string contentOf(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}
void write(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}
unsigned modeOf(const std::string& path) {
  return static_cast<unsigned>(fs::symlink_status(path).permissions());
}

class FileEnforcementDirectiveStoreTest : public testing::Test {
 protected:
  test::TemporaryDirectory directory;
  PosixFileSystem fileSystem;
  std::string stateDirectory = directory.path("Application Support/Stillow");
  std::string path = stateDirectory + "/enforcement-directive.json";
  FileEnforcementDirectiveStore store{fileSystem, path};
};

TEST_F(FileEnforcementDirectiveStoreTest, readsNoDirectiveWhereThereIsNoFileAndNoDirectory) {
  EXPECT_EQ(store.read(), Read(std::nullopt));
  fs::create_directories(stateDirectory);
  EXPECT_EQ(store.read(), Read(std::nullopt));
}

TEST_F(FileEnforcementDirectiveStoreTest, readsWhatWasPublishedLast) {
  ASSERT_TRUE(store.publish(directive(1, 10)).has_value());
  EXPECT_EQ(store.read(), Read(directive(1, 10)));
  ASSERT_TRUE(store.publish(directive(2, 20)).has_value());
  EXPECT_EQ(FileEnforcementDirectiveStore(fileSystem, path).read(), Read(directive(2, 20)));
  EXPECT_EQ(contentOf(path),
            R"({"scope":{"generation":2,"domains":["a.example","b.example"]},)"
            R"("validation":{"domain":"probe.example","expiresAt":40},"publishedAt":20})");
}

TEST_F(FileEnforcementDirectiveStoreTest, makesDirectoriesWithMode0700AndTheFileWith0600) {
  ASSERT_TRUE(store.publish(directive(1, 10)).has_value());
  EXPECT_EQ(modeOf(directory.path("Application Support")), 0700U);
  EXPECT_EQ(modeOf(stateDirectory), 0700U);
  EXPECT_EQ(modeOf(path), 0600U);
}

TEST_F(FileEnforcementDirectiveStoreTest, takesAnExistingDirectoryAsItIs) {
  fs::create_directories(stateDirectory);
  fs::permissions(stateDirectory, fs::perms{0755});
  ASSERT_TRUE(store.publish(directive(1, 10)).has_value());
  EXPECT_EQ(modeOf(stateDirectory), 0755U);
}

TEST_F(FileEnforcementDirectiveStoreTest, leavesMode0600WhateverTheOldFileHad) {
  fs::create_directories(stateDirectory);
  write(path, "{}");
  fs::permissions(path, fs::perms{0666});
  ASSERT_TRUE(store.publish(directive(1, 10)).has_value());
  EXPECT_EQ(modeOf(path), 0600U);
}

TEST_F(FileEnforcementDirectiveStoreTest, failsToReadWhatIsNoDirective) {
  fs::create_directories(stateDirectory);
  const std::string whole = R"({"publishedAt":1})";
  for (const std::string& content :
       {std::string(), whole.substr(0, whole.size() - 1), std::string("{}"), std::string("[]"),
        std::string(R"({"scope":{"generation":1,"domains":["no name"]},"publishedAt":1})")}) {
    SCOPED_TRACE(content);
    write(path, content);
    const auto read = store.read();
    ASSERT_FALSE(read.has_value());
    EXPECT_THAT(read.error().description, HasSubstr("Could not decode " + path + ": "));
  }
}

TEST_F(FileEnforcementDirectiveStoreTest, keepsTheDomainsOfAScopeThatHasNotChanged) {
  EnforcementDirective published = directive(3, 1'000);
  ASSERT_TRUE(store.publish(published));
  const Read first = store.read();
  ASSERT_TRUE(first && *first);
  for (const double publishedAt : {2'000.0, 3'000.5}) {
    published.publishedAt = Date{publishedAt};
    published.validation.reset();
    ASSERT_TRUE(store.publish(published));
    const Read next = store.read();
    ASSERT_TRUE(next && *next);
    EXPECT_EQ(**next, published);
    EXPECT_TRUE((*next)->scope->domains.isSameSetAs((*first)->scope->domains));
  }
}

// Each text is read by a store that holds a Scope and by one that has read nothing yet; both have
// to find the same.
TEST_F(FileEnforcementDirectiveStoreTest, findsWhatAFreshStoreFindsWhateverItHasReadBefore) {
  const std::string scope = R"("scope":{"generation":3,"domains":["a.example","b.example"]})";
  const std::string rest = R"("validation":{"domain":"p.example","expiresAt":7},"publishedAt":9)";
  const std::string texts[]{
      "{" + scope + "," + rest + "}",
      "{" + rest + "," + scope + "}",
      "{ " + scope + "," + rest + "}",
      "{" + scope + R"(,"publishedAt":9})",
      "{" + scope + R"(,"publishedAt":9,"scope":{"generation":4,"domains":["c.example"]}})",
      "{" + scope + R"(,"publishedAt":9,"scope":7})",
      "{" + scope + R"(,"publishedAt":9)",
      "{" + scope + R"(,"publishedAt":9}x)",
      "{" + scope + ",}",
      "{" + scope + "}",
      "{" + scope,
      "{" + scope.substr(0, scope.size() - 1) + "," + rest + "}",
      R"({"publishedAt":9})",
      R"({"scope":{"generation":3,"domains":["a.example","b.examples"]},"publishedAt":9})",
      R"({"scope":{"generation":3,"domains":["a.example"]},"publishedAt":9})",
      R"({"scope":{"generation":3,"domains":["a.example","b.example","c"]},"publishedAt":9})",
      R"({"scope":{"generation":30,"domains":["a.example","b.example"]},"publishedAt":9})",
      R"({"scope":{"generation":3,"domains":["a.example""b.example"]},"publishedAt":9})",
      R"({"scope":{"generation":3,"domains":[]},"publishedAt":9})",
  };
  for (const std::string& text : texts) {
    SCOPED_TRACE(text);
    fs::remove_all(stateDirectory);
    ASSERT_TRUE(store.publish(directive(3, 1'000)));
    ASSERT_TRUE(store.read());
    write(path, text);
    const Read found = store.read();
    EXPECT_EQ(found, FileEnforcementDirectiveStore(fileSystem, path).read());
  }
}

TEST_F(FileEnforcementDirectiveStoreTest, namesTheOffendingDomain) {
  fs::create_directories(stateDirectory);
  write(path, R"({"scope":{"generation":1,"domains":["a.example","no name"]},"publishedAt":1})");
  EXPECT_THAT(store.read().error().description,
              HasSubstr("scope.domains[1]: Not a valid domain name: no name"));
}

TEST_F(FileEnforcementDirectiveStoreTest, refusesALinkInTheFilesPlaceAndReplacesItWhenPublishing) {
  fs::create_directories(stateDirectory);
  write(directory.path("elsewhere"), R"({"publishedAt":1})");
  fs::create_symlink(directory.path("elsewhere"), path);
  const auto read = store.read();
  ASSERT_FALSE(read.has_value());
  EXPECT_THAT(read.error().description, HasSubstr("Could not read " + path));
  ASSERT_TRUE(store.publish(directive(1, 10)).has_value());
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(path)));
  EXPECT_EQ(contentOf(directory.path("elsewhere")), R"({"publishedAt":1})");
  EXPECT_EQ(store.read(), Read(directive(1, 10)));
}

TEST_F(FileEnforcementDirectiveStoreTest, reportsADirectoryInTheFilesPlaceAndAFileInTheDirectorys) {
  fs::create_directories(path);
  EXPECT_FALSE(store.read().has_value());
  EXPECT_THAT(store.publish(directive(1, 10)).error().description,
              HasSubstr("Could not replace " + path));
  EXPECT_TRUE(fs::is_empty(path));

  fs::remove_all(stateDirectory);
  write(stateDirectory, "a file");
  EXPECT_THAT(store.publish(directive(1, 10)).error().description,
              HasSubstr("Could not create the directory " + stateDirectory));
  EXPECT_EQ(contentOf(stateDirectory), "a file");
}

TEST_F(FileEnforcementDirectiveStoreTest, refusesADateThatJSONCannotHold) {
  const auto publishedAt = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(
      store.publish({{}, {}, Date{publishedAt}}),
      std::unexpected(EnforcementDirectiveError{"Unable to encode Double.nan directly in JSON."}));
  EXPECT_FALSE(fs::exists(path));
}

TEST(FileEnforcementDirectiveStore, neverLosesAPublishedDirectiveToAPowerCut) {
  const std::string path = "/Library/Application Support/Stillow/enforcement-directive.json";
  SimulatedFileSystem before;
  before.placeDirectory("/Library");
  ASSERT_TRUE(FileEnforcementDirectiveStore(before, path).publish(directive(1, 10)).has_value());
  SimulatedFileSystem::forEachPowerCut(
      before,
      [&](SimulatedFileSystem& disk) {
        ASSERT_TRUE(
            FileEnforcementDirectiveStore(disk, path).publish(directive(2, 20)).has_value());
      },
      [&](SimulatedFileSystem& disk, const std::string& how) {
        SCOPED_TRACE(how);
        const auto read = FileEnforcementDirectiveStore(disk, path).read();
        ASSERT_TRUE(read.has_value()) << read.error().description;
        ASSERT_TRUE(read->has_value());
        EXPECT_TRUE(**read == directive(1, 10) || **read == directive(2, 20));
      });
}

TEST(FileEnforcementDirectiveStore, canReadTheLargestFileThatCanBePublished) {
  // The worst name for its size: control characters are escaped to six signs each.
  const auto domain = Domain::make("\x01");
  ASSERT_TRUE(domain.has_value());
  EnforcementDirective worst{
      .scope = core::Scope{.generation = std::numeric_limits<std::int64_t>::max(),
                           .domains = DomainSet::of({*domain})},
      .validation = std::nullopt,
      .publishedAt = Date{-1.2345678901234567e-300}};
  const auto one = core::encode(worst);
  worst.scope->domains = DomainSet();
  const auto none = core::encode(worst);
  const std::size_t rest = none->size();
  EXPECT_EQ(one->size() - rest, 6U + 2U);  // and a comma for all but the first
  EXPECT_LE(
      6 * core::ScopeCapacity::nameBytesMax + 3 * core::ScopeCapacity::domainsMax + rest + 2'000,
      FileEnforcementDirectiveStore::fileBytesMax);
}

TEST(InMemoryEnforcementDirectiveStore, givesTheLastAndRemembersAll) {
  InMemoryEnforcementDirectiveStore store;
  EXPECT_EQ(store.read(), Read(std::nullopt));
  EXPECT_TRUE(store.history().empty());
  ASSERT_TRUE(store.publish(directive(1, 10)).has_value());
  ASSERT_TRUE(store.publish(directive(2, 20)).has_value());
  EXPECT_EQ(store.read(), Read(directive(2, 20)));
  EXPECT_THAT(store.history(), ElementsAre(directive(1, 10), directive(2, 20)));
}

}  // namespace
}  // namespace stillow::filtering
