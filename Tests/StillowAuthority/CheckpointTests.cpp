#include <bit>
#include <cctype>
#include <cmath>
#include <fstream>
#include <iterator>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "AuthorityTesting.hpp"
#include "StillowAuthority/CommitmentCheckpointStore.hpp"
#include "StillowCore/Base64.hpp"
#include "StillowCore/SHA256.hpp"
#include "StillowFiltering/Storage/PosixFileSystem.hpp"
#include "TestSupport/SimulatedFileSystem.hpp"
#include "TestSupport/TemporaryDirectory.hpp"

namespace stillow::authority {
namespace {

using test::SimulatedFileSystem;
using testing::checkpoint;
using testing::commitment;
using testing::domains;
using testing::start;
using Store = FileCommitmentCheckpointStore;

constexpr std::int64_t counterMax = std::numeric_limits<std::int64_t>::max();
const std::string path = "/state/commitment-checkpoint.json";

CommitmentCheckpoint activeCheckpoint(std::int64_t sequence = 1) {
  return checkpoint(AuthorityState::active{commitment()}, sequence);
}
std::string sealed(const CommitmentCheckpoint& value) { return *Store::seal(value); }
/// A file around any payload, with the right checksum.
std::string sealedPayload(const std::string& payload, std::int64_t version = 1) {
  return *core::encode(
      Store::Envelope{version, core::hexadecimal(core::sha256(payload)), core::Data{payload}});
}
std::string fixture(const std::string& name) {
  std::ifstream file(std::string(STILLOW_FIXTURES) + "/checkpoints/" + name, std::ios::binary);
  EXPECT_TRUE(file) << name;
  return {std::istreambuf_iterator<char>(file), {}};
}

bool isChecksumMismatch(const CheckpointError& error) {
  const auto* const fault = std::get_if<DurableStateError>(&error);
  return fault != nullptr && core::is<DurableStateError::checksumMismatch>(*fault);
}
bool isCorruptData(const CheckpointError& error) {
  return std::holds_alternative<core::DecodingError>(error);
}

TEST(SHA256, hashesAsThePublishedExamplesSay) {
  const auto digest = [](std::string_view text) { return core::hexadecimal(core::sha256(text)); };
  EXPECT_EQ(digest(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(digest("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(digest("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  EXPECT_EQ(digest(std::string(1'000'000, 'a')),
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

// The bytes of a released format are for good: what is written changes only with the version, and
// what was written is read.
TEST(FileCommitmentCheckpointStore, writesAndReadsTheReleasedFormatByteForByte) {
  core::Commitment running{
      .activatedAt = {816'458'820.25},
      .scope = {.generation = 3,
                .domains = domains({"a.example", "b.example", "xn--bcher-kva.example"})},
      .remainingDuration = 3'540.5,
      .health = core::CommitmentHealth::degraded};
  const struct {
    const char* name;
    CommitmentCheckpoint value;
  } rows[]{
      {"v1-active.json", {AuthorityState::active{running}, {816'458'880.25}, 42}},
      {"v1-expired.json", {AuthorityState::expired{{816'458'820}}, {816'458'820}, 7}},
      {"v1-idle.json", {AuthorityState::idle{}, {816'458'820}, 1}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(sealed(row.value), fixture(row.name));
    EXPECT_EQ(Store::open(fixture(row.name)).value(), row.value);
  }
}

TEST(FileCommitmentCheckpointStore, loadsNothingWhereThereIsNoFile) {
  SimulatedFileSystem disk;
  Store store(disk, path);
  const auto loaded = store.load();
  ASSERT_TRUE(loaded.has_value());
  EXPECT_FALSE(loaded->has_value());
}

TEST(FileCommitmentCheckpointStore, loadsWhatItSaved) {
  SimulatedFileSystem disk;
  Store store(disk, path);
  ASSERT_TRUE(store.save(activeCheckpoint(5)).has_value());
  EXPECT_EQ(store.load().value(), activeCheckpoint(5));
  EXPECT_EQ(Store(disk, path).load().value(), activeCheckpoint(5));
}

TEST(FileCommitmentCheckpointStore, handsOnWhyAFileCannotBeRead) {
  SimulatedFileSystem disk;
  disk.placeFile(path, sealed(activeCheckpoint()));
  disk.failCall(0, std::errc::io_error);
  Store store(disk, path);
  const auto loaded = store.load();
  ASSERT_FALSE(loaded.has_value());
  EXPECT_EQ(std::get<filtering::FileError>(loaded.error()),
            (filtering::FileError{filtering::FileError::Operation::read, path,
                                  std::make_error_code(std::errc::io_error)}));
  EXPECT_EQ(describe(loaded.error()), "Could not read " + path + ": Input/output error");
}

TEST(FileCommitmentCheckpointStore, refusesAnotherSchemaVersionAndNamesIt) {
  const auto refused = Store::open(*Store::seal(activeCheckpoint(), 2));
  ASSERT_FALSE(refused.has_value());
  EXPECT_EQ(refused.error(),
            CheckpointError(DurableStateError(DurableStateError::unsupportedSchemaVersion{2})));
  EXPECT_EQ(describe(refused.error()), "schema version 2 is not supported");
  // The version is looked at before the checksum: another version may compute it in another way.
  EXPECT_EQ(Store::open(R"({"schemaVersion":0,"checksum":"","payload":""})").error(),
            CheckpointError(DurableStateError(DurableStateError::unsupportedSchemaVersion{0})));
}

TEST(FileCommitmentCheckpointStore, noticesEveryCharacterOfThePayloadThatChanged) {
  const std::string good = sealed(activeCheckpoint());
  const std::size_t first = good.find("\"payload\":\"") + 11;
  const std::size_t last = good.find('"', first) - 1;
  std::size_t noticed = 0;
  for (std::size_t at = first; at <= last; ++at) {
    std::string bad = good;
    if (bad[at] == '=') continue;
    bad[at] = bad[at] == 'A' ? 'B' : 'A';
    const auto opened = Store::open(bad);
    if (opened.has_value()) {
      // The bits of the last digit that padding makes meaningless.
      EXPECT_GE(at + 3, last) << at;
      EXPECT_EQ(*opened, activeCheckpoint());
      continue;
    }
    EXPECT_TRUE(isChecksumMismatch(opened.error())) << at << ": " << describe(opened.error());
    ++noticed;
  }
  EXPECT_GE(noticed + 3, last - first);
}

TEST(FileCommitmentCheckpointStore, comparesTheChecksumExactly) {
  const std::string good = sealed(activeCheckpoint());
  const std::size_t first = good.find("\"checksum\":\"") + 12;
  std::string upperCase = good;
  bool hasLetter = false;
  for (std::size_t at = first; at < first + 64; ++at) {
    hasLetter = hasLetter || std::isalpha(upperCase[at]) != 0;
    upperCase[at] = static_cast<char>(std::toupper(upperCase[at]));
  }
  ASSERT_TRUE(hasLetter);
  const std::string checksum = good.substr(first, 64);
  for (const std::string& bad :
       {upperCase, std::string(good).replace(first, 64, checksum.substr(0, 63)),
        std::string(good).replace(first, 64, " " + checksum),
        std::string(good).replace(first, 64, "")}) {
    const auto opened = Store::open(bad);
    ASSERT_FALSE(opened.has_value()) << bad;
    EXPECT_TRUE(isChecksumMismatch(opened.error())) << bad;
  }
  EXPECT_EQ(describe(Store::open(upperCase).error()), "the checksum does not match the payload");
}

TEST(FileCommitmentCheckpointStore, readsKeysInAnyOrderAndPassesOverUnknownOnes) {
  const std::string payload =
      R"({ "sequence": 3, "later": [1, {}], "writtenAt": 816458820, "state": {"idle": {}} })";
  const std::string file = "\n{\"payload\": \"" + core::json::base64Encoded(payload) +
                           "\", \"note\": null, \"checksum\": \"" +
                           core::hexadecimal(core::sha256(payload)) + "\", \"schemaVersion\": 1}\n";
  EXPECT_EQ(Store::open(file).value(), checkpoint(AuthorityState::idle{}, 3));
}

TEST(FileCommitmentCheckpointStore, refusesWhatIsNoCheckpoint) {
  const char* const files[]{"",
                            " ",
                            "{}",
                            "[]",
                            "null",
                            "not JSON",
                            "{\"schemaVersion\":1}",
                            R"({"schemaVersion":"1","checksum":"","payload":""})",
                            R"({"schemaVersion":1.5,"checksum":"","payload":""})",
                            R"({"schemaVersion":1,"checksum":"","payload":"A"})",
                            R"({"schemaVersion":1,"checksum":null,"payload":""})"};
  for (const char* const file : files) {
    const auto opened = Store::open(file);
    ASSERT_FALSE(opened.has_value()) << file;
    EXPECT_TRUE(isCorruptData(opened.error())) << file;
  }
  const char* const payloads[]{
      "",
      "{}",
      "7",
      R"({"state":{"idle":{}},"writtenAt":1})",
      R"({"state":{"resting":{}},"writtenAt":1,"sequence":1})",
      R"({"state":{"idle":{},"expired":{"endedAt":1}},"writtenAt":1,"sequence":1})",
      R"({"state":{"expired":{}},"writtenAt":1,"sequence":1})",
      R"({"state":{"active":{"_0":{}}},"writtenAt":1,"sequence":1})",
      R"({"state":{"idle":{}},"writtenAt":"1","sequence":1})",
      R"({"state":{"idle":{}},"writtenAt":1,"sequence":1e19})"};
  for (const char* const payload : payloads) {
    const auto opened = Store::open(sealedPayload(payload));
    ASSERT_FALSE(opened.has_value()) << payload;
    EXPECT_TRUE(isCorruptData(opened.error())) << payload;
  }
}

TEST(FileCommitmentCheckpointStore, refusesAFileThatWasCutAnywhere) {
  const std::string good = sealed(activeCheckpoint());
  for (std::size_t length = 0; length < good.size(); ++length) {
    EXPECT_FALSE(Store::open(std::string_view(good).substr(0, length)).has_value()) << length;
  }
}

// The next change would have to stop the process, and again after each restart.
TEST(FileCommitmentCheckpointStore, refusesCountersThatStandAtTheirMaximum) {
  const auto withGeneration = [](std::int64_t generation) {
    auto running = commitment();
    running.scope.generation = generation;
    return checkpoint(AuthorityState::active{running});
  };
  EXPECT_FALSE(Store::open(sealed(activeCheckpoint(counterMax))).has_value());
  EXPECT_FALSE(Store::open(sealed(checkpoint(AuthorityState::idle{}, counterMax))).has_value());
  EXPECT_TRUE(Store::open(sealed(activeCheckpoint(counterMax - 1))).has_value());
  const auto refused = Store::open(sealed(withGeneration(counterMax)));
  ASSERT_FALSE(refused.has_value());
  EXPECT_EQ(describe(refused.error()), "A counter stands at its maximum.");
  EXPECT_TRUE(Store::open(sealed(withGeneration(counterMax - 1))).has_value());
}

TEST(FileCommitmentCheckpointStore, keepsTheOldFileWhereAStateHasNoJSONForm) {
  SimulatedFileSystem disk;
  Store store(disk, path);
  ASSERT_TRUE(store.save(activeCheckpoint()).has_value());
  const auto before = disk.content(path);
  const auto saved = store.save(checkpoint(AuthorityState::expired{core::Date{std::nan("")}}));
  ASSERT_FALSE(saved.has_value());
  EXPECT_EQ(describe(saved.error()), "Unable to encode Double.nan directly in JSON.");
  EXPECT_EQ(disk.content(path), before);
}

TEST(FileCommitmentCheckpointStore, keepsFilesAndDirectoriesToTheirOwner) {
  const test::TemporaryDirectory directory;
  filtering::PosixFileSystem fileSystem;
  const auto mode = [](const std::string& at) {
    struct stat found{};
    EXPECT_EQ(::stat(at.c_str(), &found), 0) << at;
    return found.st_mode & 07777U;
  };
  const mode_t mask = ::umask(0);
  Store made(fileSystem, directory.path("outer/state/checkpoint.json"));
  EXPECT_TRUE(made.save(activeCheckpoint()).has_value());
  (void)::umask(077);
  ASSERT_EQ(::mkdir(directory.path("open").c_str(), 0777), 0);
  ASSERT_EQ(::chmod(directory.path("open").c_str(), 0755), 0);
  Store existing(fileSystem, directory.path("open/checkpoint.json"));
  EXPECT_TRUE(existing.save(activeCheckpoint()).has_value());
  (void)::umask(mask);
  EXPECT_EQ(mode(directory.path("outer")), 0700U);
  EXPECT_EQ(mode(directory.path("outer/state")), 0700U);
  EXPECT_EQ(mode(directory.path("outer/state/checkpoint.json")), 0600U);
  EXPECT_EQ(mode(directory.path("open")), 0755U) << "what exists is taken as it is";
  EXPECT_EQ(mode(directory.path("open/checkpoint.json")), 0600U);
  EXPECT_EQ(existing.load().value(), activeCheckpoint());
}

// ---- copies

const std::string copyPath = "/state/copy.json";

TEST(FileCommitmentCheckpointStore, copiesTheVeryBytesOfASoundFile) {
  SimulatedFileSystem disk;
  // As this system would not write it, so that encoding anew would show.
  const std::string payload = R"({"sequence":3,"writtenAt":816458820.0,"state":{"idle":{}}})";
  disk.placeFile(path, " " + sealedPayload(payload));
  Store source(disk, path);
  Store copy(disk, copyPath);
  ASSERT_TRUE(copy.saveCopy(source).has_value());
  EXPECT_EQ(disk.content(copyPath), disk.content(path));
  EXPECT_EQ(copy.load().value(), checkpoint(AuthorityState::idle{}, 3));
}

TEST(FileCommitmentCheckpointStore, copiesNothingWhereThereIsNothing) {
  SimulatedFileSystem disk;
  disk.placeFile(copyPath, "old");
  Store source(disk, path);
  Store copy(disk, copyPath);
  EXPECT_TRUE(copy.saveCopy(source).has_value());
  EXPECT_EQ(disk.content(copyPath), "old");
}

TEST(FileCommitmentCheckpointStore, copiesNoFileThatWouldNotLoad) {
  const std::string good = sealed(activeCheckpoint());
  for (const std::string& bad :
       {std::string("{"), good.substr(0, good.size() - 1), *Store::seal(activeCheckpoint(), 2),
        sealedPayload("{}"), sealed(activeCheckpoint(counterMax))}) {
    for (const bool sourceKnewAGoodOne : {false, true}) {
      SimulatedFileSystem disk;
      Store source(disk, path);
      Store copy(disk, copyPath);
      if (sourceKnewAGoodOne) {
        ASSERT_TRUE(source.save(activeCheckpoint()).has_value());
        ASSERT_TRUE(source.load().has_value());
      }
      // Whatever this process remembers, it is the file that counts.
      disk.placeFile(path, bad);
      disk.placeFile(copyPath, "old");
      EXPECT_FALSE(copy.saveCopy(source).has_value()) << bad;
      EXPECT_EQ(disk.content(copyPath), "old") << bad;
    }
  }
}

TEST(FileCommitmentCheckpointStore, copiesBetweenStoresOfAnyKind) {
  SimulatedFileSystem disk;
  InMemoryCommitmentCheckpointStore memory(activeCheckpoint(6));
  Store file(disk, path);
  ASSERT_TRUE(file.saveCopy(memory).has_value());
  EXPECT_EQ(file.load().value(), activeCheckpoint(6));
  InMemoryCommitmentCheckpointStore other;
  ASSERT_TRUE(other.saveCopy(file).has_value());
  EXPECT_EQ(other.load().value(), activeCheckpoint(6));
  disk.placeFile(path, "{");
  EXPECT_FALSE(other.saveCopy(file).has_value());
  EXPECT_EQ(other.load().value(), activeCheckpoint(6));
  Store next(disk, copyPath, 2);
  disk.placeFile(path, sealed(activeCheckpoint(7)));
  ASSERT_TRUE(next.saveCopy(file).has_value()) << "another version means encoding anew";
  EXPECT_EQ(next.load().value(), activeCheckpoint(7));
}

TEST(InMemoryCommitmentCheckpointStore, holdsWhatWasSavedLast) {
  InMemoryCommitmentCheckpointStore store;
  EXPECT_FALSE(store.load().value().has_value());
  ASSERT_TRUE(store.save(activeCheckpoint(2)).has_value());
  EXPECT_EQ(store.load().value(), activeCheckpoint(2));
}

// ---- properties

CommitmentCheckpoint randomCheckpoint(std::mt19937_64& random) {
  const auto number = [&] {
    // Any double that JSON has a form for: all magnitudes, both signs.
    while (true) {
      const double value = std::bit_cast<double>(random());
      if (std::isfinite(value) && (value == 0 || std::fpclassify(value) == FP_NORMAL)) return value;
    }
  };
  const auto counter = [&] { return static_cast<std::int64_t>(random() >> (random() % 63)) / 2; };
  AuthorityState state = AuthorityState::idle{};
  switch (random() % 4) {
    case 0:
      break;
    case 1:
      state = AuthorityState::expired{core::Date{number()}};
      break;
    default: {
      std::vector<core::Domain> names;
      for (std::uint64_t i = random() % 20; i > 0; --i) {
        std::string name;
        for (std::uint64_t j = 1 + random() % 20; j > 0; --j) {
          static constexpr std::string_view letters[]{"a",    "z", "0", "-",  "_",  "\x01",
                                                      "\x7F", "é", "ß", "中", "😀", "e\u0301"};
          name += letters[random() % std::size(letters)];
        }
        if (auto made = core::Domain::make(name + ".example")) names.push_back(*made);
      }
      state = AuthorityState::active{core::Commitment{
          .activatedAt = {number()},
          .scope = {.generation = counter(), .domains = core::DomainSet::of(std::move(names))},
          .remainingDuration = number(),
          .health = random() % 2 == 0 ? core::CommitmentHealth::healthy
                                      : core::CommitmentHealth::degraded}};
    }
  }
  return {.state = std::move(state), .writtenAt = {number()}, .sequence = counter()};
}

TEST(CommitmentCheckpoint, isTheSameAfterEncodingAndDecodingWhateverItHolds) {
  std::mt19937_64 random(1);
  for (int i = 0; i < 3'000; ++i) {
    const CommitmentCheckpoint value = randomCheckpoint(random);
    const auto encoded = core::encode(value);
    ASSERT_TRUE(encoded.has_value());
    ASSERT_EQ(core::decode<CommitmentCheckpoint>(*encoded), value) << *encoded;
    const auto state = core::encode(value.state);
    ASSERT_EQ(core::decode<AuthorityState>(*state), value.state) << *state;
    const std::string file = sealed(value);
    const auto opened = Store::open(file);
    ASSERT_TRUE(opened.has_value()) << file;
    ASSERT_EQ(*opened, value) << file;
    ASSERT_EQ(sealed(*opened), file);
    ASSERT_EQ(std::hash<CommitmentCheckpoint>{}(*opened), std::hash<CommitmentCheckpoint>{}(value));
  }
}

TEST(CommitmentCheckpoint, encodesAnEnvelopeAsItWasDecoded) {
  std::mt19937_64 random(2);
  for (int i = 0; i < 500; ++i) {
    std::string bytes;
    for (std::uint64_t j = random() % 100; j > 0; --j) bytes += static_cast<char>(random());
    const Store::Envelope envelope{static_cast<std::int64_t>(random()), "checksum",
                                   core::Data{bytes}};
    ASSERT_EQ(core::decode<Store::Envelope>(*core::encode(envelope)), envelope);
  }
}

}  // namespace
}  // namespace stillow::authority
