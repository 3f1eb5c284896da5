#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "StillowFiltering/Storage/FileSystem.hpp"

namespace stillow::filtering {

/// Which step failed, on what, and the system's reason. Nobody acts on the difference: it is for
/// the log.
struct FileError {
  enum class Operation : std::uint8_t {
    createDirectory,
    create,
    write,
    sync,
    rename,
    syncDirectory,
    read
  };

  Operation operation;
  std::string path;
  std::error_code code;

  friend bool operator==(const FileError&, const FileError&) = default;
};

/// "Could not write /directory/file: No space left on device".
[[nodiscard]] std::string describe(const FileError& error);

/// A small file that is only ever replaced as a whole, and whose content, once `replace` has
/// succeeded, survives a power cut.
///
/// The new content is written aside, flushed to the medium, renamed over the old one, and the
/// directory is flushed; so a reader, and whoever comes after a crash, finds the old content or the
/// new, whole. What is written aside carries the name ".FILE.new-N". In a directory that only this
/// system writes to, any such name that exists when a replacement begins was left by a writer that
/// did not come to its end, and is removed.
///
/// One replacement at a time for a path, from whichever thread. Should two ever meet, one may fail
/// because its work was taken for such a remnant; the file is whole even then.
class DurableFile {
 public:
  static constexpr unsigned fileMode = 0600;
  static constexpr unsigned directoryMode = 0700;

  /// `path` is absolute. `fileSystem` has to outlive this.
  DurableFile(FileSystem& fileSystem, std::string path);

  [[nodiscard]] const std::string& path() const noexcept { return path_; }

  /// The content; none if there is no such file. Refuses a link in the file's place.
  [[nodiscard]] std::expected<std::optional<std::string>, FileError> read(
      std::size_t bytesMax) const;

  /// Makes `bytes` the content, with fileMode. Missing directories are made, each with
  /// directoryMode; existing ones are taken as they are.
  ///
  /// On an error the old content stays and nothing is left beside it, with one exception: when only
  /// the last step failed, the flush of the directory, the new content is in place but a power cut
  /// may still bring the old one back.
  [[nodiscard]] std::expected<void, FileError> replace(std::string_view bytes);

 private:
  static constexpr int remnantsMax = 100;

  std::expected<void, FileError> makeDirectory();
  void removeRemnants();

  FileSystem* fileSystem_;
  std::string path_;
  std::string directory_;
  /// The entries that lead to the directory are known to be on the medium. A directory that is
  /// merely there may have been made by a process that died before it could flush them.
  bool directoryIsDurable_ = false;
};

/// Makes the directory at `path`, with every missing one above it, each with exactly `mode`, and
/// flushes the entries that it made. A directory, or a link to one, that is already there is
/// accepted.
[[nodiscard]] std::expected<void, FileError> createDirectoryDurably(FileSystem& fileSystem,
                                                                    const std::string& path,
                                                                    unsigned mode);

}  // namespace stillow::filtering
