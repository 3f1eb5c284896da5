#pragma once

#include <cstddef>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "StillowFiltering/Storage/FileSystem.hpp"

namespace stillow::test {

/// A disk in memory that remembers what was flushed and what was not, fails on request, and can
/// show every state in which a power cut may leave it. A plain value: a copy is a disk of its own.
///
///     SimulatedFileSystem disk;
///     disk.placeFile("/state/file", "old");            // as if it had always been there
///     disk.failCall(3, std::errc::no_space_on_device);  // the fourth call from now on
///     store(disk).save(...);
///     disk.content("/state/file");
///
/// What a power cut may take away, and in any combination:
///  - of a file that was written and not flushed since: what came after the flush, all of it or its
///    second half, gone or turned into zeros;
///  - of a directory that was not flushed since: each creation, rename and removal by itself, in
///  any
///    order; a rename never by halves.
///
/// Knows no links and no permissions. For one thread.
class SimulatedFileSystem final : public filtering::FileSystem {
 public:
  /// One call that was made, in the words "write", "sync", "syncDirectory" and so on.
  struct Call {
    std::string operation;
    std::string path;
  };

  /// Only the root directory, flushed.
  SimulatedFileSystem() { nodes_[rootNode].isDirectory = true; }

  /// Puts flushed things on the disk. Missing directories are made, with mode 0755.
  void placeDirectory(const std::string& path, unsigned mode = 0755);
  void placeFile(const std::string& path, std::string content, unsigned mode = 0600);

  [[nodiscard]] bool exists(const std::string& path) const { return find(path).has_value(); }
  [[nodiscard]] std::optional<std::string> content(const std::string& path) const;
  [[nodiscard]] std::optional<unsigned> mode(const std::string& path) const;
  /// Sorted.
  [[nodiscard]] std::vector<std::string> namesIn(const std::string& directory) const;

  /// Every call since the disk was made or `forgetCalls`, failed ones too, in order.
  [[nodiscard]] const std::vector<Call>& calls() const noexcept { return calls_; }
  void forgetCalls();

  /// The call with this index in `calls` fails and changes nothing; a failed sync leaves the
  /// content unflushed, as a real one may.
  void failCall(std::size_t index, std::errc error) { failures_[index] = error; }
  /// The call with this index, if it is a write, takes only this many bytes (at least 1).
  void shortenWrite(std::size_t index, std::size_t bytes) { shortWrites_[index] = bytes; }

  /// Every disk that a power cut at this moment can leave. Everything on such a disk is flushed.
  [[nodiscard]] std::vector<SimulatedFileSystem> statesAfterPowerCut() const;

  using Work = std::function<void(SimulatedFileSystem&)>;
  /// Gets a disk and a text that says how it came about, for SCOPED_TRACE.
  using Check = std::function<void(SimulatedFileSystem& disk, const std::string& how)>;

  /// Runs `work` on a copy of `before`, and calls `check` for every state that a power cut before
  /// its first call, between any two calls and after the last one can leave. Returns the number of
  /// calls.
  static std::size_t forEachPowerCut(const SimulatedFileSystem& before, const Work& work,
                                     const Check& check);
  /// Likewise for the end of the process at each of those moments: nothing is lost, but what was
  /// not flushed stays so.
  static std::size_t forEachProcessDeath(const SimulatedFileSystem& before, const Work& work,
                                         const Check& check);
  /// Runs `work` on a fresh copy of `before` for each of its calls and each way in which that call
  /// can fail: no space, input/output error, permission denied; for a write also a short one
  /// followed by no space. `check` sees the disk afterwards. Returns the number of calls that can
  /// fail.
  static std::size_t forEachFailedCall(const SimulatedFileSystem& before, const Work& work,
                                       const Check& check);

  // FileSystem
  std::expected<std::unique_ptr<filtering::WritableFile>, std::error_code> createExclusively(
      const std::string& path, unsigned mode) override;
  std::expected<std::optional<std::string>, std::error_code> read(const std::string& path,
                                                                  std::size_t bytesMax) override;
  std::expected<void, std::error_code> rename(const std::string& from,
                                              const std::string& to) override;
  std::expected<void, std::error_code> remove(const std::string& path) override;
  std::expected<void, std::error_code> syncDirectory(const std::string& path) override;
  std::expected<void, std::error_code> createDirectory(const std::string& path,
                                                       unsigned mode) override;
  std::expected<bool, std::error_code> isDirectory(const std::string& path) override;
  std::expected<std::vector<std::string>, std::error_code> names(
      const std::string& directory) override;

 private:
  using Identity = std::size_t;
  using Entries = std::map<std::string, Identity>;
  static constexpr Identity rootNode = 0;

  /// One step that changed a directory: a name that went, a name that came, or both.
  struct Change {
    std::optional<std::string> removed;
    std::optional<std::string> added;
    Identity node;
  };
  struct Node {
    bool isDirectory = false;
    unsigned mode = 0755;
    // Of a file.
    std::string content;
    std::string flushedContent;
    bool isFlushed = true;
    // Of a directory.
    Entries entries;
    Entries flushedEntries;
    std::vector<Change> changes;  ///< since it was flushed
  };
  using Nodes = std::map<Identity, Node>;

  class File;
  using Outcome = std::expected<void, std::error_code>;

  static std::unexpected<std::error_code> failure(std::errc error) {
    return std::unexpected(std::make_error_code(error));
  }
  static std::pair<std::string, std::string> split(const std::string& path);

  /// Notes the call; its error if it was told to fail.
  Outcome begin(std::string operation, const std::string& path);
  void end();
  [[nodiscard]] std::optional<Identity> find(const std::string& path) const;
  [[nodiscard]] std::expected<Identity, std::error_code> directoryOf(const std::string& path) const;
  static void apply(Entries& entries, const Change& change);
  void change(Node& directory, Change change);
  std::expected<Identity, std::error_code> add(const std::string& path, Node node);
  /// Forgets what led here: everything is flushed, no call is remembered, none will fail.
  void settle();

  [[nodiscard]] static std::vector<Entries> entriesAfterPowerCut(const Node& directory);
  [[nodiscard]] static std::vector<std::string> contentsAfterPowerCut(const Node& file);
  static void forEachMoment(const SimulatedFileSystem& before, const Work& work,
                            const std::function<void(const SimulatedFileSystem&, std::string)>& see,
                            std::size_t& calls);
  [[nodiscard]] std::string signature() const;

  Nodes nodes_;
  Identity lastNode_ = rootNode;
  std::vector<Call> calls_;
  std::map<std::size_t, std::errc> failures_;
  std::map<std::size_t, std::size_t> shortWrites_;
  /// Where a run that is taken apart later keeps a copy after each call.
  std::vector<SimulatedFileSystem>* moments_ = nullptr;
};

}  // namespace stillow::test

#include "TestSupport/SimulatedFileSystemImplementation.hpp"
