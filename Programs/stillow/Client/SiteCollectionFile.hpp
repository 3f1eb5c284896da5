#pragma once

#include <cstddef>
#include <expected>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "StillowClient/SiteCollection.hpp"
#include "StillowFiltering/Storage/FileSystem.hpp"

namespace stillow::client {

/// The user's own file with the collection: sites and groups survive a power cut in the middle of a
/// change, and a file that cannot be read is never written over. Only its owner may read it.
class SiteCollectionFile {
 public:
  static constexpr std::string_view fileName = "collection.json";
  /// More than the daemon takes into a Scope, with the ids of some groups for each.
  static constexpr std::size_t bytesMax = 512U << 20;

  /// Holds off other programs that edit the collection until the result is let go. Null where that
  /// is not possible: an edit goes on without it.
  using Lock = std::function<std::shared_ptr<void>(const std::string& directory)>;

  /// `directory` is absolute. `fileSystem` has to outlive this.
  SiteCollectionFile(filtering::FileSystem& fileSystem, std::string directory, Lock lock = {});

  [[nodiscard]] const std::string& path() const noexcept { return path_; }

  /// An empty collection if there is no file. Errors are sentences that name it.
  [[nodiscard]] std::expected<SiteCollection, std::string> read() const;

  /// Reads, lets `change` edit, and writes what came out. `change` gives a sentence to have nothing
  /// written.
  using Change = std::function<std::expected<void, std::string>(SiteCollection&)>;
  struct EditError {
    std::string sentence;
    bool isRefusal = false;  ///< `change` said no, rather than the file
    friend bool operator==(const EditError&, const EditError&) = default;
  };
  [[nodiscard]] std::expected<SiteCollection, EditError> edit(const Change& change);

 private:
  filtering::FileSystem& fileSystem_;
  std::string directory_;
  std::string path_;
  Lock lock_;
};

/// XDG_CONFIG_HOME/stillow, else HOME/.config/stillow; a relative XDG_CONFIG_HOME does not count.
/// Any may be null or empty, as getenv gives them; `fallbackHome` is the password database's. The
/// error is one sentence.
[[nodiscard]] std::expected<std::string, std::string> collectionDirectory(
    const char* xdgConfigHome, const char* home, std::string_view fallbackHome);

/// A Lock by flock(2) on the directory itself, so that no lock file is left behind.
[[nodiscard]] std::shared_ptr<void> lockDirectory(const std::string& directory);

}  // namespace stillow::client
