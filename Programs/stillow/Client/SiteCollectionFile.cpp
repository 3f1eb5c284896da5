#include "StillowClient/SiteCollectionFile.hpp"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "StillowClient/TextLayout.hpp"
#include "StillowCore/Coding.hpp"
#include "StillowCore/FileDescriptor.hpp"
#include "StillowFiltering/Storage/DurableFile.hpp"

namespace stillow::client {

SiteCollectionFile::SiteCollectionFile(filtering::FileSystem& fileSystem, std::string directory,
                                       Lock lock)
    : fileSystem_(fileSystem),
      directory_(std::move(directory)),
      path_(directory_ + "/" + std::string(fileName)),
      lock_(std::move(lock)) {}

std::expected<SiteCollection, std::string> SiteCollectionFile::read() const {
  const filtering::DurableFile file(fileSystem_, path_);
  const auto bytes = file.read(bytesMax);
  if (!bytes) {
    return std::unexpected("Your sites could not be read, and were left as they are. " +
                           filtering::describe(bytes.error()) + ".");
  }
  if (!*bytes) return SiteCollection{};
  auto collection = SiteCollection::decoded(**bytes);
  if (!collection) {
    return std::unexpected("Your sites in " + printable(path_) +
                           " could not be read, and were left as they are: " + collection.error() +
                           " Mend the file or move it away, then try again.");
  }
  return collection;
}

std::expected<SiteCollection, SiteCollectionFile::EditError> SiteCollectionFile::edit(
    const Change& change) {
  const auto notSaved = [](const filtering::FileError& error) {
    return std::unexpected(EditError{"Nothing was changed: your sites could not be saved. " +
                                     filtering::describe(error) + "."});
  };
  if (const auto made = filtering::createDirectoryDurably(fileSystem_, directory_,
                                                          filtering::DurableFile::directoryMode);
      !made) {
    return notSaved(made.error());
  }
  const std::shared_ptr<void> held = lock_ ? lock_(directory_) : nullptr;
  auto collection = read();
  if (!collection) return std::unexpected(EditError{std::move(collection.error())});
  const SiteCollection before = *collection;
  if (auto changed = change(*collection); !changed) {
    return std::unexpected(EditError{std::move(changed.error()), true});
  }
  if (*collection == before) return std::move(*collection);
  // Strings and whole numbers always have a JSON form.
  const std::string json = core::encode(*collection).value_or("") + "\n";
  filtering::DurableFile file(fileSystem_, path_);
  if (const auto saved = file.replace(json); !saved) return notSaved(saved.error());
  return std::move(*collection);
}

std::expected<std::string, std::string> collectionDirectory(const char* xdgConfigHome,
                                                            const char* home,
                                                            std::string_view fallbackHome) {
  const auto isAbsolute = [](const char* path) { return path != nullptr && *path == '/'; };
  if (isAbsolute(xdgConfigHome)) return std::string(xdgConfigHome) + "/stillow";
  if (isAbsolute(home)) return std::string(home) + "/.config/stillow";
  if (fallbackHome.starts_with('/')) return std::string(fallbackHome) + "/.config/stillow";
  return std::unexpected(
      "There is no place for your sites: neither XDG_CONFIG_HOME nor HOME names a directory.");
}

std::shared_ptr<void> lockDirectory(const std::string& directory) {
  core::FileDescriptor opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!opened) return nullptr;
  int outcome = 0;
  do {
    outcome = ::flock(opened.get(), LOCK_EX);
  } while (outcome != 0 && errno == EINTR);
  if (outcome != 0) return nullptr;
  return std::make_shared<core::FileDescriptor>(std::move(opened));
}

}  // namespace stillow::client
