#include "StillowFiltering/Wire/PrefixAssembly.hpp"

#include <algorithm>
#include <bit>
#include <cstring>

namespace stillow::filtering {
namespace {
constexpr std::size_t wordBits = 64;
}

bool PrefixAssembly::insert(std::uint64_t offset, WireBytes bytes) noexcept {
  if (bytes.empty() || offset >= bytes_.size()) return false;
  const auto start = static_cast<std::size_t>(offset);
  const std::size_t end = start + std::min(bytes.size(), bytes_.size() - start);
  if (end <= prefixSize_) return false;

  const bool hasGap = highestEnd_ > prefixSize_;
  if (start <= prefixSize_ && !hasGap) {  // Nearly always: the next piece in order.
    std::memcpy(&bytes_[prefixSize_], &bytes[prefixSize_ - start], end - prefixSize_);
    prefixSize_ = highestEnd_ = end;
    return true;
  }

  const std::size_t from = std::max(start, prefixSize_);
  fill(from, bytes.subspan(from - start, end - from));
  highestEnd_ = std::max(highestEnd_, end);
  if (start > prefixSize_) return false;
  closeGap();
  return true;
}

void PrefixAssembly::fill(std::size_t start, WireBytes bytes) noexcept {
  // By the words of the bitmap: most hold nothing yet and take their bytes in one copy.
  while (!bytes.empty()) {
    const std::size_t bit = start % wordBits;
    const std::size_t count = std::min(bytes.size(), wordBits - bit);
    const std::uint64_t wanted = (~std::uint64_t{0} >> (wordBits - count)) << bit;
    std::uint64_t& present = present_[start / wordBits];
    std::uint64_t missing = wanted & ~present;
    if (missing == wanted) {
      std::memcpy(&bytes_[start], bytes.data(), count);
    } else {
      for (; missing != 0; missing &= missing - 1) {
        const auto offset = static_cast<std::size_t>(std::countr_zero(missing)) - bit;
        bytes_[start + offset] = bytes[offset];
      }
    }
    present |= wanted;
    start += count;
    bytes = bytes.subspan(count);
  }
}

void PrefixAssembly::closeGap() noexcept {
  while (prefixSize_ < highestEnd_) {
    const std::size_t bit = prefixSize_ % wordBits;
    const auto run =
        static_cast<std::size_t>(std::countr_one(present_[prefixSize_ / wordBits] >> bit));
    prefixSize_ += run;
    if (run < wordBits - bit) return;
  }
}

}  // namespace stillow::filtering
