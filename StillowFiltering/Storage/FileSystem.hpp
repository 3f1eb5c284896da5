#pragma once

#include <cstddef>
#include <expected>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace stillow::filtering {

/// A file that is being written. Destroying it closes it.
class WritableFile {
 public:
  virtual ~WritableFile() = default;

  /// Appends a first part of `bytes`, which is not empty, and says how long that part is: at
  /// least 1.
  virtual std::expected<std::size_t, std::error_code> write(std::string_view bytes) = 0;
  /// Brings everything written so far to the medium itself. After an error nobody knows what is
  /// there, and asking again proves nothing: the file has to be given up.
  virtual std::expected<void, std::error_code> sync() = 0;
};

/// What the durable stores want from an operating system, one call for each step whose order
/// matters.
///
/// Paths are absolute. Errors are the system's own numbers; an interrupted call may report
/// std::errc::interrupted and is then repeated by the caller. Every call may come from any thread.
class FileSystem {
 public:
  virtual ~FileSystem() = default;

  /// A new, empty file with exactly `mode`, whatever the process's mask. Anything at `path`, a link
  /// too, is std::errc::file_exists.
  virtual std::expected<std::unique_ptr<WritableFile>, std::error_code> createExclusively(
      const std::string& path, unsigned mode) = 0;
  /// The whole content of the regular file at `path`; none if there is nothing. A link in the last
  /// place is not followed: too_many_symbolic_link_levels. More than `bytesMax`: file_too_large.
  virtual std::expected<std::optional<std::string>, std::error_code> read(const std::string& path,
                                                                          std::size_t bytesMax) = 0;
  /// Puts `from` in the place of `to` in one step. A link at `to` is itself replaced.
  virtual std::expected<void, std::error_code> rename(const std::string& from,
                                                      const std::string& to) = 0;
  virtual std::expected<void, std::error_code> remove(const std::string& path) = 0;
  /// Brings the directory's entries, not the files behind them, to the medium.
  virtual std::expected<void, std::error_code> syncDirectory(const std::string& path) = 0;
  /// A new directory with exactly `mode`. Anything at `path` is std::errc::file_exists.
  virtual std::expected<void, std::error_code> createDirectory(const std::string& path,
                                                               unsigned mode) = 0;
  /// Whether a directory, or a link to one, is at `path`.
  virtual std::expected<bool, std::error_code> isDirectory(const std::string& path) = 0;
  /// The bare names in a directory, without "." and "..", in no order.
  virtual std::expected<std::vector<std::string>, std::error_code> names(
      const std::string& directory) = 0;
};

}  // namespace stillow::filtering
