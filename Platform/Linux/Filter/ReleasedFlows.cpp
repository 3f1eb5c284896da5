#include "PlatformLinuxFilter/ReleasedFlows.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <type_traits>
#include <unordered_set>
#include <vector>

#include "StillowCore/Invariant.hpp"

namespace stillow::platform {

namespace {

constexpr std::size_t nameBytesMax = 255;

/// What stands before each name in the ring.
struct RecordHead {
  FlowKey flow;
  std::uint8_t nameBytes = 0;
};
static_assert(std::is_trivially_copyable_v<RecordHead>);

}  // namespace

ReleasedFlows::ReleasedFlows(std::size_t memoryBytes)
    : size_(memoryBytes), bytes_(std::make_unique_for_overwrite<std::uint8_t[]>(memoryBytes)) {
  core::require(memoryBytes >= sizeof(RecordHead) + nameBytesMax,
                "the memory of released flows holds not even one");
}

void ReleasedFlows::record(const FlowKey& flow, std::string_view name) noexcept {
  if (name.size() > nameBytesMax) name = {};
  const RecordHead head{flow, static_cast<std::uint8_t>(name.size())};
  const std::size_t size = sizeof(head) + name.size();
  while (size_ - used_ < size) forgetOldest();
  const std::size_t end = wrapped(begin_ + used_);
  copyIn(end, &head, sizeof(head));
  copyIn(wrapped(end + sizeof(head)), name.data(), name.size());
  used_ += size;
  ++count_;
}

void ReleasedFlows::visit(const Visitor& visitor) const {
  // The ring can only be walked from the oldest record on.
  std::vector<std::size_t> positions;
  positions.reserve(count_);
  std::size_t position = begin_;
  for (std::size_t index = 0; index < count_; ++index) {
    positions.push_back(position);
    RecordHead head;
    copyOut(position, &head, sizeof(head));
    position = wrapped(position + sizeof(head) + head.nameBytes);
  }
  std::unordered_set<FlowKey, FlowKeyHash> seen(count_);
  std::for_each(positions.rbegin(), positions.rend(), [&](std::size_t start) {
    RecordHead head;
    copyOut(start, &head, sizeof(head));
    if (!seen.insert(head.flow).second || head.nameBytes == 0) return;
    std::array<char, nameBytesMax> name{};
    copyOut(wrapped(start + sizeof(head)), name.data(), head.nameBytes);
    visitor(head.flow, {name.data(), head.nameBytes});
  });
}

void ReleasedFlows::copyIn(std::size_t position, const void* data, std::size_t size) noexcept {
  const std::size_t first = std::min(size, size_ - position);
  const auto* const source = static_cast<const std::uint8_t*>(data);
  if (first > 0) std::memcpy(bytes_.get() + position, source, first);
  if (size > first) std::memcpy(bytes_.get(), source + first, size - first);
}

void ReleasedFlows::copyOut(std::size_t position, void* data, std::size_t size) const noexcept {
  const std::size_t first = std::min(size, size_ - position);
  auto* const target = static_cast<std::uint8_t*>(data);
  if (first > 0) std::memcpy(target, bytes_.get() + position, first);
  if (size > first) std::memcpy(target + first, bytes_.get(), size - first);
}

void ReleasedFlows::forgetOldest() noexcept {
  RecordHead head;
  copyOut(begin_, &head, sizeof(head));
  const std::size_t size = sizeof(head) + head.nameBytes;
  begin_ = wrapped(begin_ + size);
  used_ -= size;
  --count_;
}

}  // namespace stillow::platform
