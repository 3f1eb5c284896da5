#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace stillow::core {

/// Sixteen bytes that are looked at in one step. The compilers' own vectors, so that one text
/// serves every processor: what a processor has no such step for becomes two or sixteen of them.
///
/// Comparisons give a block of 0xFF where they hold and 0 elsewhere.
struct ByteBlock {
  static constexpr std::size_t size = 16;
  using Bytes [[gnu::vector_size(size)]] = unsigned char;

  Bytes bytes;

  [[nodiscard]] static ByteBlock load(const char* from) noexcept {
    ByteBlock block;
    std::memcpy(&block.bytes, from, size);
    return block;
  }
  /// The eight bytes at each place.
  [[nodiscard]] static ByteBlock load(const char* first, const char* second) noexcept {
    ByteBlock block;
    std::memcpy(&block.bytes, first, size / 2);
    std::memcpy(reinterpret_cast<char*>(&block.bytes) + size / 2, second, size / 2);
    return block;
  }
  void store(char* to) const noexcept { std::memcpy(to, &bytes, size); }

  [[nodiscard]] ByteBlock equals(char c) const noexcept {
    return {reinterpret_cast<Bytes>(bytes == filledWith(c))};
  }
  [[nodiscard]] ByteBlock isBelow(unsigned char limit) const noexcept {
    return {reinterpret_cast<Bytes>(bytes < limit)};
  }
  [[nodiscard]] ByteBlock isAbove(unsigned char limit) const noexcept {
    return {reinterpret_cast<Bytes>(bytes > limit)};
  }
  /// From `first` to `last`, both included.
  [[nodiscard]] ByteBlock isWithin(char first, char last) const noexcept {
    const auto reach = static_cast<unsigned char>(last - first);
    return {reinterpret_cast<Bytes>(bytes - filledWith(first) <= reach)};
  }
  friend ByteBlock operator&(ByteBlock left, ByteBlock right) noexcept {
    return {left.bytes & right.bytes};
  }
  friend ByteBlock operator~(ByteBlock block) noexcept { return {~block.bytes}; }
  friend ByteBlock operator|(ByteBlock left, ByteBlock right) noexcept {
    return {left.bytes | right.bytes};
  }

  [[nodiscard]] bool holdsAnywhere() const noexcept { return (half(0) | half(1)) != 0; }
  /// The first place where a comparison holds; it holds somewhere.
  [[nodiscard]] std::size_t firstPlace() const noexcept {
    const std::uint64_t first = half(0);
    return first != 0 ? placeIn(first) : size / 2 + placeIn(half(1));
  }

 private:
  static Bytes filledWith(char c) noexcept { return Bytes{} + static_cast<unsigned char>(c); }
  [[nodiscard]] std::uint64_t half(std::size_t index) const noexcept {
    std::uint64_t word = 0;
    std::memcpy(&word, reinterpret_cast<const char*>(&bytes) + index * sizeof word, sizeof word);
    return word;
  }
  static std::size_t placeIn(std::uint64_t word) noexcept {
    const int bits = std::endian::native == std::endian::little ? std::countr_zero(word)
                                                                : std::countl_zero(word);
    return static_cast<std::size_t>(bits) / 8;
  }
};

}  // namespace stillow::core
