#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

namespace stillow::core {

/// A string that grows at its end. Unlike std::string's own append it hands out the memory first
/// and learns afterwards how much of it was used, so a writer checks once for many bytes.
class TextBuffer {
 public:
  /// Continues behind `text`.
  explicit TextBuffer(std::string text = {}) : text_(std::move(text)) { useCapacity(text_.size()); }
  TextBuffer(const TextBuffer&) = delete;
  TextBuffer& operator=(const TextBuffer&) = delete;

  /// Where the text ends, with memory for `count` more bytes behind it. Valid until the next call.
  [[nodiscard]] char* room(std::size_t count) {
    if (static_cast<std::size_t>(limit_ - end_) < count) grow(count);
    return end_;
  }
  /// The text ends there: within the room that was given out.
  void endAt(char* end) noexcept { end_ = end; }

  void append(char c) {
    char* const to = room(1);
    *to = c;
    end_ = to + 1;
  }
  void append(std::string_view text) {
    char* const to = room(text.size());
    end_ = to + text.copy(to, text.size());
  }

  [[nodiscard]] std::string take() && {
    text_.resize(static_cast<std::size_t>(end_ - text_.data()));
    return std::move(text_);
  }

 private:
  /// Out of line: hardly a call needs it, and each would save its registers for it.
  [[gnu::noinline]] void grow(std::size_t count) {
    const auto size = static_cast<std::size_t>(end_ - text_.data());
    text_.resize(size);  // so that no more than the text is copied
    text_.reserve(std::max(size + count, 2 * size));
    useCapacity(size);
  }
  /// The string has the size of its memory, which is left as it is.
  void useCapacity(std::size_t size) {
    text_.resize_and_overwrite(text_.capacity(), [](char*, std::size_t whole) { return whole; });
    end_ = text_.data() + size;
    limit_ = text_.data() + text_.size();
  }

  std::string text_;
  char* end_ = nullptr;
  char* limit_ = nullptr;
};

}  // namespace stillow::core
