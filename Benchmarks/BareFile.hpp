#pragma once

#include <cstddef>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace stillow::benchmarks {

/// The bare system calls of a durable replacement: create aside, write, fsync, rename, fsync the
/// directory. False if one of them fails.
inline bool replaceBarely(const std::string& directory, const std::string& path,
                          const std::string& content) {
  const std::string aside = path + ".aside";
  const int file = ::open(aside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (file < 0) return false;
  std::size_t written = 0;
  while (written < content.size()) {
    const ::ssize_t count = ::write(file, content.data() + written, content.size() - written);
    if (count <= 0) break;
    written += static_cast<std::size_t>(count);
  }
  const bool isWritten = written == content.size() && ::fsync(file) == 0;
  (void)::close(file);
  if (!isWritten || ::rename(aside.c_str(), path.c_str()) != 0) return false;
  const int parent = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (parent < 0) return false;
  const bool isFlushed = ::fsync(parent) == 0;
  (void)::close(parent);
  return isFlushed;
}

/// A file made new and written at once; nothing is flushed. False if a call fails.
inline bool writeBarely(const std::string& path, const std::string& content) {
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (file < 0) return false;
  const ::ssize_t written = ::write(file, content.data(), content.size());
  return ::close(file) == 0 && written == static_cast<::ssize_t>(content.size());
}

/// And of reading one whole. `content` keeps its memory from one call to the next.
inline bool readBarely(const std::string& path, std::string& content) {
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return false;
  struct stat found{};
  bool isRead = ::fstat(file, &found) == 0;
  if (isRead) content.resize(static_cast<std::size_t>(found.st_size));
  std::size_t length = 0;
  while (isRead && length < content.size()) {
    const ::ssize_t count = ::read(file, content.data() + length, content.size() - length);
    if (count <= 0) isRead = false;
    if (count > 0) length += static_cast<std::size_t>(count);
  }
  (void)::close(file);
  return isRead;
}

}  // namespace stillow::benchmarks
