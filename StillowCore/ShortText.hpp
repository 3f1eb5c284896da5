#pragma once

#include <array>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <utility>

namespace stillow::core {

/// A text that is short as a rule and never changes. Up to `inPlaceMax` bytes need no memory of
/// their own, so most names lie beside one another where they are read one after the other. As
/// large as a std::string, which keeps fifteen bytes itself.
class ShortText {
 public:
  static constexpr std::size_t inPlaceMax = 24;

  ShortText() noexcept = default;
  explicit ShortText(std::string_view text) : size_(text.size()) {
    char* to = bytes_.data();
    if (!isInPlace()) {
      to = new char[size_];
      std::memcpy(bytes_.data(), &to, sizeof to);
    }
    std::memcpy(to, text.data(), text.size());
  }
  ShortText(const ShortText& other) : ShortText(other.view()) {}
  /// Leaves `other` empty.
  ShortText(ShortText&& other) noexcept
      : bytes_(other.bytes_), size_(std::exchange(other.size_, 0)) {}
  ShortText& operator=(const ShortText& other) { return *this = ShortText(other); }
  ShortText& operator=(ShortText&& other) noexcept {
    std::swap(bytes_, other.bytes_);
    std::swap(size_, other.size_);
    return *this;
  }
  ~ShortText() {
    if (!isInPlace()) delete[] elsewhere();
  }

  /// Valid until this object is moved from, assigned to or destroyed.
  [[nodiscard]] std::string_view view() const noexcept {
    return {isInPlace() ? bytes_.data() : elsewhere(), size_};
  }

 private:
  [[nodiscard]] bool isInPlace() const noexcept { return size_ <= inPlaceMax; }
  /// Where a long text is: its address stands in the place of a short one.
  [[nodiscard]] const char* elsewhere() const noexcept {
    const char* text = nullptr;
    std::memcpy(&text, bytes_.data(), sizeof text);
    return text;
  }

  alignas(const char*) std::array<char, inPlaceMax> bytes_{};
  std::size_t size_ = 0;
};

}  // namespace stillow::core
