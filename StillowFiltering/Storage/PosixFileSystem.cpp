#include "StillowFiltering/Storage/PosixFileSystem.hpp"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "StillowCore/FileDescriptor.hpp"

namespace stillow::filtering {

namespace {

std::unexpected<std::error_code> lastError() {
  return std::unexpected(std::error_code(errno, std::generic_category()));
}
std::unexpected<std::error_code> failure(std::errc code) {
  return std::unexpected(std::make_error_code(code));
}

using Outcome = std::expected<void, std::error_code>;
Outcome outcome(int result) {
  if (result != 0) return lastError();
  return {};
}

struct DirectoryCloser {
  void operator()(DIR* directory) const noexcept { (void)::closedir(directory); }
};

}  // namespace

class PosixFileSystem::File final : public WritableFile {
 public:
  File(PosixFileSystem& fileSystem, core::FileDescriptor descriptor)
      : fileSystem_(fileSystem), descriptor_(std::move(descriptor)) {}

  std::expected<std::size_t, std::error_code> write(std::string_view bytes) override {
    const ::ssize_t written = ::write(descriptor_.get(), bytes.data(), bytes.size());
    if (written < 0) return lastError();
    if (written == 0) return failure(std::errc::io_error);
    return static_cast<std::size_t>(written);
  }

  Outcome sync() override { return outcome(fileSystem_.flushToDisk(descriptor_.get())); }

 private:
  PosixFileSystem& fileSystem_;
  core::FileDescriptor descriptor_;
};

std::expected<std::unique_ptr<WritableFile>, std::error_code> PosixFileSystem::createExclusively(
    const std::string& path, unsigned mode) {
  core::FileDescriptor descriptor(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, static_cast<::mode_t>(mode)));
  if (!descriptor) return lastError();
  // The mask may only have taken bits away so far.
  if (::fchmod(descriptor.get(), static_cast<::mode_t>(mode)) != 0) {
    const auto error = lastError();
    (void)::unlink(path.c_str());  // as far as the caller is concerned it was never there
    return error;
  }
  return std::make_unique<File>(*this, std::move(descriptor));
}

std::expected<std::optional<std::string>, std::error_code> PosixFileSystem::read(
    const std::string& path, std::size_t bytesMax) {
  // Not blocking, because what is at the path may be a pipe that nobody writes to.
  const core::FileDescriptor descriptor(
      ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!descriptor) {
    if (errno == ENOENT || errno == ENOTDIR) return std::nullopt;
    return lastError();
  }
  struct ::stat status{};
  if (::fstat(descriptor.get(), &status) != 0) return lastError();
  if (S_ISDIR(status.st_mode)) return failure(std::errc::is_a_directory);
  if (!S_ISREG(status.st_mode)) return failure(std::errc::invalid_argument);
  if (status.st_size > 0 && static_cast<std::size_t>(status.st_size) > bytesMax) {
    return failure(std::errc::file_too_large);
  }

  // One byte more than the file had, so that its end is seen without another turn.
  std::string content(static_cast<std::size_t>(std::max<::off_t>(status.st_size, 0)) + 1, '\0');
  std::size_t size = 0;
  for (;;) {
    const ::ssize_t count = ::read(descriptor.get(), content.data() + size, content.size() - size);
    if (count < 0) return lastError();
    if (count == 0) break;
    size += static_cast<std::size_t>(count);
    if (size > bytesMax) return failure(std::errc::file_too_large);
    if (size == content.size()) content.resize(2 * size);
  }
  content.resize(size);
  return content;
}

Outcome PosixFileSystem::rename(const std::string& from, const std::string& to) {
  return outcome(::rename(from.c_str(), to.c_str()));
}

Outcome PosixFileSystem::remove(const std::string& path) { return outcome(::unlink(path.c_str())); }

Outcome PosixFileSystem::syncDirectory(const std::string& path) {
  const core::FileDescriptor descriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!descriptor) return lastError();
  return outcome(flushToDisk(descriptor.get()));
}

Outcome PosixFileSystem::createDirectory(const std::string& path, unsigned mode) {
  if (::mkdir(path.c_str(), static_cast<::mode_t>(mode)) != 0) return lastError();
  return outcome(::chmod(path.c_str(), static_cast<::mode_t>(mode)));
}

std::expected<bool, std::error_code> PosixFileSystem::isDirectory(const std::string& path) {
  struct ::stat status{};
  if (::stat(path.c_str(), &status) == 0) return S_ISDIR(status.st_mode);
  if (errno == ENOENT || errno == ENOTDIR) return false;
  return lastError();
}

std::expected<std::vector<std::string>, std::error_code> PosixFileSystem::names(
    const std::string& directory) {
  const std::unique_ptr<DIR, DirectoryCloser> stream(::opendir(directory.c_str()));
  if (!stream) return lastError();
  std::vector<std::string> names;
  for (;;) {
    errno = 0;
    const ::dirent* const entry = ::readdir(stream.get());
    if (entry == nullptr) break;
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  if (errno != 0) return lastError();
  return names;
}

int PosixFileSystem::flushToDisk(int descriptor) { return ::fsync(descriptor); }

}  // namespace stillow::filtering
