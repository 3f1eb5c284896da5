#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "StillowFiltering/Wire/NameReading.hpp"

namespace stillow::filtering {

/// The first `inspectedBytesMax` bytes of a byte stream whose pieces arrive in any order, several
/// times or overlapping. The first copy of a byte wins, so what was read once stays as it was read.
///
/// Construction does not touch the buffer; the object may be copied byte by byte.
class PrefixAssembly {
 public:
  PrefixAssembly() noexcept {
  }  // NOLINT: `= default` would clear the buffer on value-initialisation.

  /// Takes the part of `bytes` that lies in the window; `offset` counts from the stream's start.
  /// True if the contiguous prefix became longer.
  bool insert(std::uint64_t offset, WireBytes bytes) noexcept;

  /// The bytes from the start up to the first gap. The view is into this object.
  [[nodiscard]] WireBytes prefix() const noexcept { return {bytes_.data(), prefixSize_}; }

  [[nodiscard]] bool isFull() const noexcept { return prefixSize_ == bytes_.size(); }

 private:
  void fill(std::size_t start, WireBytes bytes) noexcept;
  void closeGap() noexcept;

  std::array<std::uint8_t, inspectedBytesMax> bytes_;
  /// A bit for each byte beyond the prefix that came before what precedes it.
  std::array<std::uint64_t, inspectedBytesMax / 64> present_{};
  std::size_t prefixSize_ = 0;
  std::size_t highestEnd_ = 0;
};

}  // namespace stillow::filtering
