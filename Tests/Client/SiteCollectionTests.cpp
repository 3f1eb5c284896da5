#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "ClientTesting.hpp"
#include "StillowClient/SiteCollection.hpp"
#include "StillowClient/SiteCollectionFile.hpp"
#include "StillowFiltering/Storage/PosixFileSystem.hpp"
#include "TestSupport/SimulatedFileSystem.hpp"
#include "TestSupport/TemporaryDirectory.hpp"

namespace stillow::client {
namespace {

using core::Group;
using test::domain;
using test::SimulatedFileSystem;

core::UUID uuid(std::uint8_t number) {
  core::UUID id;
  id.bytes.fill(number);
  return id;
}

core::GroupIDSet ids(std::initializer_list<std::uint8_t> numbers) {
  core::GroupIDSet set;
  for (const std::uint8_t number : numbers) set.insert(Group::ID{uuid(number)});
  return set;
}

SiteCollection sample() {
  SiteCollection collection;
  collection.groups = {{Group::ID{uuid(1)}, "work"}, {Group::ID{uuid(2)}, "日本語"}};
  collection.add({domain("b.com"), domain("a.com")}, ids({1}));
  collection.add({domain("c.com")}, {});
  return collection;
}

TEST(SiteCollection, keepsEachSiteOnceInAllItsGroups) {
  SiteCollection collection = sample();
  EXPECT_EQ(collection.add({domain("a.com"), domain("d.com"), domain("a.com")}, ids({2})),
            (SiteCollection::Change{.added = 1, .changed = 1}));
  ASSERT_EQ(collection.websites.size(), 4U);
  EXPECT_EQ(collection.websites[0].domain.name(), "a.com");
  EXPECT_EQ(collection.groupNames(collection.websites[0]),
            (std::vector<std::string>{"work", "日本語"}));
  EXPECT_EQ(collection.websites[3].domain.name(), "d.com");
  EXPECT_EQ(collection.add({domain("d.com")}, ids({2})), SiteCollection::Change{});
}

TEST(SiteCollection, removesSitesAndGroups) {
  SiteCollection collection = sample();
  const std::vector gone{domain("b.com"), domain("z.com")};
  EXPECT_EQ(collection.remove(gone), 1U);
  EXPECT_EQ(collection.websiteOf(domain("b.com")), nullptr);
  const std::vector taken{domain("a.com"), domain("c.com")};
  EXPECT_EQ(collection.removeFromGroup(taken, Group::ID{uuid(1)}), 1U);
  EXPECT_TRUE(collection.websitesIn(Group::ID{uuid(1)}).empty());
  collection.add({domain("a.com")}, ids({2}));
  collection.removeGroup(Group::ID{uuid(2)});
  EXPECT_EQ(collection.groups.size(), 1U);
  EXPECT_TRUE(collection.websiteOf(domain("a.com"))->groups.empty());
}

TEST(SiteCollection, findsGroupsUnderCanonicalEquivalence) {
  SiteCollection collection;
  collection.groups = {{Group::ID{uuid(1)}, "caf\u00E9"}};
  EXPECT_NE(collection.groupNamed("cafe\u0301"), nullptr);
  EXPECT_EQ(collection.groupNamed("cafe"), nullptr);
  EXPECT_EQ(understandGroup(collection, "wrok").error(),
            "“wrok” is none of your groups; see them with: stillow groups list");
}

TEST(SiteCollection, takesNamesThatCanBeShown) {
  EXPECT_EQ(understandGroupName("  news at work "), "news at work");
  EXPECT_EQ(understandGroupName("cafe\u0301"), "caf\u00E9");
  EXPECT_TRUE(understandGroupName(std::string(100, 'x')).has_value());
  for (const std::string name : {"", "  ", "a\nb", "a\x1b", "a\u202Eb"}) {
    EXPECT_FALSE(understandGroupName(name).has_value()) << name;
  }
  EXPECT_TRUE(
      understandGroupName(std::string(101, 'x')).error().contains("at most 100 characters"));
}

TEST(SiteCollection, readsWhatItWrote) {
  const std::string json = core::encode(sample()).value();
  EXPECT_EQ(SiteCollection::decoded(json).value(), sample());
  EXPECT_TRUE(json.starts_with(R"({"version":1,"groups":[{"id":"01010101-0101-0101-0101-)"))
      << json;
  EXPECT_TRUE(json.contains(R"({"domain":"c.com","groups":[]})")) << json;
}

TEST(SiteCollection, unitesWhatWasWrittenTwiceByHand) {
  const auto read = SiteCollection::decoded(
      R"({"version":1,"groups":[],"websites":[
          {"domain":"b.com","groups":["01010101-0101-0101-0101-010101010101"]},
          {"domain":"A.com","groups":[]},
          {"domain":"b.com","groups":["02020202-0202-0202-0202-020202020202"]}]})");
  ASSERT_TRUE(read.has_value()) << read.error();
  ASSERT_EQ(read->websites.size(), 2U);
  EXPECT_EQ(read->websites[0].domain.name(), "a.com");
  EXPECT_EQ(read->websites[1].groups.size(), 2U);
}

TEST(SiteCollection, saysWhatIsWrongWithAFile) {
  struct Row {
    const char* json;
    const char* words;
  };
  const Row rows[]{
      {"", "it is damaged: "},
      {R"({"version":1,"groups":[)", "it is damaged: "},
      {R"({"groups":[],"websites":[]})", "it is damaged: "},
      {R"({"version":2,"groups":{},"sites":[]})", "it has the form 2, and this program knows 1."},
      {R"({"version":1,"groups":[],"websites":[{"domain":"a b","groups":[]}]})",
       "websites[0].domain"},
      {R"({"version":1,"groups":[{"id":"01010101-0101-0101-0101-010101010101","name":"a"},
          {"id":"02020202-0202-0202-0202-020202020202","name":"a"}],"websites":[]})",
       "two groups are the same, “a”"}};
  for (const Row& row : rows) {
    const auto read = SiteCollection::decoded(row.json);
    ASSERT_FALSE(read.has_value()) << row.json;
    EXPECT_TRUE(read.error().contains(row.words)) << read.error();
  }
}

struct SiteCollectionFileTest : testing::Test {
  static constexpr const char* directory = "/home/me/.config/stillow";
  static constexpr const char* path = "/home/me/.config/stillow/collection.json";

  static std::expected<SiteCollection, SiteCollectionFile::EditError> add(SimulatedFileSystem& disk,
                                                                          const std::string& name) {
    return SiteCollectionFile(disk, directory).edit([&](SiteCollection& collection) {
      collection.add({domain(name)}, {});
      return std::expected<void, std::string>();
    });
  }
  static SimulatedFileSystem diskWith(const char* content) {
    SimulatedFileSystem disk;
    disk.placeDirectory(directory, 0700);
    if (content != nullptr) disk.placeFile(path, content);
    return disk;
  }
};

TEST_F(SiteCollectionFileTest, isEmptyWhereThereIsNone) {
  SimulatedFileSystem disk;
  EXPECT_EQ(SiteCollectionFile(disk, directory).read().value(), SiteCollection{});
  EXPECT_FALSE(disk.exists("/home")) << "reading makes nothing";
}

TEST_F(SiteCollectionFileTest, isItsOwnersAlone) {
  SimulatedFileSystem disk;
  disk.placeDirectory("/home/me");
  ASSERT_TRUE(add(disk, "a.com").has_value());
  EXPECT_EQ(disk.mode(path), 0600U);
  EXPECT_EQ(disk.mode(directory), 0700U);
  EXPECT_EQ(disk.mode("/home/me"), 0755U);
}

TEST_F(SiteCollectionFileTest, isTheOldOneOrTheNewOneAfterAPowerCut) {
  SimulatedFileSystem disk = diskWith(nullptr);
  ASSERT_TRUE(add(disk, "a.com").has_value());
  const std::string before = *disk.content(path);
  std::string after;
  const auto work = [&](SimulatedFileSystem& edited) { (void)add(edited, "b.com"); };
  SimulatedFileSystem done = disk;
  work(done);
  after = *done.content(path);
  const auto check = [&](SimulatedFileSystem& seen, const std::string& how) {
    SCOPED_TRACE(how);
    const auto content = seen.content(path);
    ASSERT_TRUE(content.has_value());
    EXPECT_TRUE(*content == before || *content == after) << *content;
  };
  EXPECT_GT(SimulatedFileSystem::forEachPowerCut(disk, work, check), 4U);
  EXPECT_GT(SimulatedFileSystem::forEachFailedCall(disk, work, check), 4U);
}

TEST_F(SiteCollectionFileTest, isNeverWrittenOverWhenItCannotBeRead) {
  for (const char* const content :
       {"", "{", R"({"version":2})", R"({"version":1,"groups":[],"websites":[{}]})"}) {
    SimulatedFileSystem disk = diskWith(content);
    const auto edited = add(disk, "a.com");
    ASSERT_FALSE(edited.has_value());
    EXPECT_FALSE(edited.error().isRefusal);
    EXPECT_TRUE(edited.error().sentence.starts_with("Your sites in " + std::string(path) +
                                                    " could not be read, and were left as"))
        << edited.error().sentence;
    EXPECT_EQ(disk.content(path), content);
  }
}

TEST_F(SiteCollectionFileTest, namesTheFileAndTheReason) {
  SimulatedFileSystem disk = diskWith("{}");
  disk.forgetCalls();
  disk.failCall(0, std::errc::permission_denied);
  EXPECT_EQ(SiteCollectionFile(disk, directory).read().error(),
            "Your sites could not be read, and were left as they are. Could not read " +
                std::string(path) + ": Permission denied.");
}

TEST_F(SiteCollectionFileTest, isNotWrittenForARefusalOrForNothing) {
  SimulatedFileSystem disk = diskWith(nullptr);
  ASSERT_TRUE(add(disk, "a.com").has_value());
  disk.forgetCalls();
  ASSERT_TRUE(add(disk, "a.com").has_value());
  const auto refused = SiteCollectionFile(disk, directory).edit([](SiteCollection& collection) {
    collection.websites.clear();
    return std::expected<void, std::string>(std::unexpected("no"));
  });
  EXPECT_EQ(refused.error(), (SiteCollectionFile::EditError{"no", true}));
  for (const auto& call : disk.calls()) EXPECT_NE(call.operation, "write");
  EXPECT_EQ(SiteCollectionFile(disk, directory).read()->websites.size(), 1U);
}

TEST_F(SiteCollectionFileTest, holdsTheLockForTheWholeEdit) {
  SimulatedFileSystem disk = diskWith(nullptr);
  std::vector<std::string> events;
  SiteCollectionFile file(disk, directory, [&](const std::string& locked) {
    EXPECT_EQ(locked, directory);
    events.emplace_back("lock");
    return std::shared_ptr<void>(&events, [&](void*) { events.emplace_back("unlock"); });
  });
  ASSERT_TRUE(file.edit([&](SiteCollection& collection) {
                    events.emplace_back("edit");
                    collection.add({domain("a.com")}, {});
                    return std::expected<void, std::string>();
                  })
                  .has_value());
  EXPECT_EQ(events, (std::vector<std::string>{"lock", "edit", "unlock"}));
  EXPECT_TRUE(disk.exists(path));
}

TEST(SiteCollectionFile, refusesALinkInTheFilesPlace) {
  const test::TemporaryDirectory directory;
  const std::string place = directory.path("collection.json");
  ASSERT_EQ(::symlink("/etc/hostname", place.c_str()), 0);
  filtering::PosixFileSystem disk;
  const auto read = SiteCollectionFile(disk, directory.path()).read();
  ASSERT_FALSE(read.has_value());
  EXPECT_TRUE(read.error().contains("symbolic links")) << read.error();
}

TEST(CollectionDirectory, followsTheEnvironment) {
  EXPECT_EQ(collectionDirectory("/config", "/home/me", "/root"), "/config/stillow");
  EXPECT_EQ(collectionDirectory(nullptr, "/home/me", "/root"), "/home/me/.config/stillow");
  EXPECT_EQ(collectionDirectory("", "/home/me", "/root"), "/home/me/.config/stillow");
  EXPECT_EQ(collectionDirectory("relative", "/home/me", "/root"), "/home/me/.config/stillow");
  EXPECT_EQ(collectionDirectory(nullptr, nullptr, "/root"), "/root/.config/stillow");
  EXPECT_EQ(collectionDirectory(nullptr, "", ""),
            std::unexpected("There is no place for your sites: neither XDG_CONFIG_HOME nor HOME "
                            "names a directory."));
}

}  // namespace
}  // namespace stillow::client
