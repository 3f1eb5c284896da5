#include "StillowFiltering/Storage/DurableFile.hpp"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "StillowCore/Invariant.hpp"

namespace stillow::filtering {

namespace {

using Operation = FileError::Operation;

/// A signal handler that interrupts again and again is no reason to stay in a loop for good.
constexpr int interruptionsMax = 100;

std::unexpected<FileError> failure(Operation operation, std::string path, std::error_code code) {
  return std::unexpected(FileError{operation, std::move(path), code});
}

template <class Call>
auto uninterrupted(Call call) {
  auto result = call();
  for (int i = 0; i < interruptionsMax && !result && result.error() == std::errc::interrupted;
       ++i) {
    result = call();
  }
  return result;
}

/// "/a/b" for "/a/b/c", "/" for "/a".
std::string parentDirectory(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  return path.substr(0, std::max<std::size_t>(slash, 1));
}
std::string fileName(const std::string& path) { return path.substr(path.find_last_of('/') + 1); }

std::string remnantPrefix(const std::string& path) { return "." + fileName(path) + ".new-"; }

bool isRemnant(std::string_view name, std::string_view prefix) {
  if (!name.starts_with(prefix)) return false;
  name.remove_prefix(prefix.size());
  return !name.empty() && std::ranges::all_of(name, [](char c) { return c >= '0' && c <= '9'; });
}

std::string nextNumber() {
  static std::atomic<std::uint64_t> last{0};
  return std::to_string(++last);
}

std::expected<void, FileError> syncDirectory(FileSystem& fileSystem, const std::string& path) {
  const auto synced = uninterrupted([&] { return fileSystem.syncDirectory(path); });
  if (!synced) return failure(Operation::syncDirectory, path, synced.error());
  return {};
}

/// Flushes the entries that lead to `directory`, from the root down.
std::expected<void, FileError> syncAncestors(FileSystem& fileSystem, const std::string& directory) {
  if (directory == "/") return {};
  const std::string parent = parentDirectory(directory);
  if (auto synced = syncAncestors(fileSystem, parent); !synced) return synced;
  auto synced = syncDirectory(fileSystem, parent);
  if (synced || synced.error().code == std::errc::permission_denied ||
      synced.error().code == std::errc::operation_not_permitted) {
    // Into a directory that we may not even open somebody else put the entry.
    return {};
  }
  return synced;
}

/// What is written aside, removed again unless it took the place of the file.
class FileAside {
 public:
  FileAside(FileSystem& fileSystem, std::string path, std::unique_ptr<WritableFile> file)
      : fileSystem_(fileSystem), path_(std::move(path)), file_(std::move(file)) {}
  FileAside(const FileAside&) = delete;
  FileAside& operator=(const FileAside&) = delete;
  ~FileAside() {
    if (path_.empty()) return;
    file_.reset();
    (void)fileSystem_.remove(path_);  // the next replacement removes what this one could not
  }

  std::expected<void, FileError> write(std::string_view bytes) {
    while (!bytes.empty()) {
      const auto written = uninterrupted([&] { return file_->write(bytes); });
      if (!written) return failure(Operation::write, path_, written.error());
      bytes.remove_prefix(*written);
    }
    const auto synced = uninterrupted([&] { return file_->sync(); });
    if (!synced) return failure(Operation::sync, path_, synced.error());
    file_.reset();
    return {};
  }

  std::expected<void, FileError> takePlaceOf(const std::string& path) {
    const auto renamed = uninterrupted([&] { return fileSystem_.rename(path_, path); });
    if (!renamed) return failure(Operation::rename, path, renamed.error());
    path_.clear();
    return {};
  }

 private:
  FileSystem& fileSystem_;
  std::string path_;  ///< empty once it took the file's place
  std::unique_ptr<WritableFile> file_;
};

std::string_view phrase(Operation operation) {
  switch (operation) {
    case Operation::createDirectory:
      return "create the directory";
    case Operation::create:
      return "create";
    case Operation::write:
      return "write";
    case Operation::sync:
      return "flush";
    case Operation::rename:
      return "replace";
    case Operation::syncDirectory:
      return "flush the directory";
    case Operation::read:
      return "read";
  }
  return "use";
}

}  // namespace

std::string describe(const FileError& error) {
  return "Could not " + std::string(phrase(error.operation)) + " " + error.path + ": " +
         error.code.message();
}

std::expected<void, FileError> createDirectoryDurably(FileSystem& fileSystem,
                                                      const std::string& path, unsigned mode) {
  const auto isThere = uninterrupted([&] { return fileSystem.isDirectory(path); });
  if (!isThere) return failure(Operation::createDirectory, path, isThere.error());
  if (*isThere) return {};
  const std::string parent = parentDirectory(path);
  if (parent == path) {
    return failure(Operation::createDirectory, path,
                   std::make_error_code(std::errc::not_a_directory));
  }
  if (auto made = createDirectoryDurably(fileSystem, parent, mode); !made) return made;
  const auto made = uninterrupted([&] { return fileSystem.createDirectory(path, mode); });
  if (!made) {
    // Somebody else may have been quicker.
    const auto isThereNow = fileSystem.isDirectory(path);
    const bool isAccepted = made.error() == std::errc::file_exists && isThereNow && *isThereNow;
    if (!isAccepted) return failure(Operation::createDirectory, path, made.error());
  }
  return syncDirectory(fileSystem, parent);
}

DurableFile::DurableFile(FileSystem& fileSystem, std::string path)
    : fileSystem_(&fileSystem), path_(std::move(path)), directory_(parentDirectory(path_)) {
  core::require(path_.size() > 1 && path_.front() == '/' && path_.back() != '/',
                "a durable file needs an absolute path");
}

std::expected<std::optional<std::string>, FileError> DurableFile::read(std::size_t bytesMax) const {
  auto content = uninterrupted([&] { return fileSystem_->read(path_, bytesMax); });
  if (!content) return failure(Operation::read, path_, content.error());
  return std::move(*content);
}

std::expected<void, FileError> DurableFile::replace(std::string_view bytes) {
  if (auto made = makeDirectory(); !made) return made;
  removeRemnants();

  std::string pathAside;
  const auto create = [&] {
    pathAside = directory_ == "/" ? "/" : directory_ + "/";
    pathAside += remnantPrefix(path_) + nextNumber();
    return fileSystem_->createExclusively(pathAside, fileMode);
  };
  auto created = uninterrupted(create);
  // A remnant that could not be removed may have the number.
  for (int i = 0; i < remnantsMax && !created && created.error() == std::errc::file_exists; ++i) {
    created = uninterrupted(create);
  }
  if (!created) return failure(Operation::create, pathAside, created.error());

  FileAside aside(*fileSystem_, std::move(pathAside), std::move(*created));
  if (auto written = aside.write(bytes); !written) return written;
  if (auto replaced = aside.takePlaceOf(path_); !replaced) return replaced;
  return syncDirectory(*fileSystem_, directory_);
}

std::expected<void, FileError> DurableFile::makeDirectory() {
  auto made = createDirectoryDurably(*fileSystem_, directory_, directoryMode);
  if (made && !directoryIsDurable_) made = syncAncestors(*fileSystem_, directory_);
  directoryIsDurable_ = made.has_value();
  return made;
}

void DurableFile::removeRemnants() {
  const auto names = fileSystem_->names(directory_);
  if (!names) return;  // whatever is wrong, writing beside them will tell
  const std::string prefix = remnantPrefix(path_);
  for (const std::string& name : *names) {
    if (!isRemnant(name, prefix)) continue;
    // One that stays costs space only, and the next replacement tries again.
    (void)fileSystem_->remove(directory_ == "/" ? "/" + name : directory_ + "/" + name);
  }
}

}  // namespace stillow::filtering
