#pragma once

#include <utility>

#include <unistd.h>

namespace stillow::core {

/// Owns one descriptor and closes it.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  /// Takes `descriptor` over; a negative one is none.
  explicit FileDescriptor(int descriptor) noexcept : descriptor_(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept
      : descriptor_(std::exchange(other.descriptor_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  ~FileDescriptor() {
    // A file that is written is flushed before, or given up: an error here says nothing new.
    if (descriptor_ >= 0) (void)::close(descriptor_);
  }

  [[nodiscard]] int get() const noexcept { return descriptor_; }
  /// Gives the descriptor to the caller, who closes it from now on.
  [[nodiscard]] int release() noexcept { return std::exchange(descriptor_, -1); }
  [[nodiscard]] explicit operator bool() const noexcept { return descriptor_ >= 0; }

 private:
  int descriptor_ = -1;
};

}  // namespace stillow::core
