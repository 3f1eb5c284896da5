#include "StillowFiltering/Wire/PrefixAssembly.hpp"

#include <algorithm>
#include <cstring>

namespace stillow::filtering {

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

  for (std::size_t at = std::max(start, prefixSize_); at < end; ++at) {
    if (beyondPrefix_[at]) continue;
    bytes_[at] = bytes[at - start];
    beyondPrefix_[at] = true;
  }
  highestEnd_ = std::max(highestEnd_, end);
  if (start > prefixSize_) return false;
  while (prefixSize_ < highestEnd_ && beyondPrefix_[prefixSize_]) ++prefixSize_;
  return true;
}

}  // namespace stillow::filtering
