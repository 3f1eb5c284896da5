#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "PlatformLinuxFilter/FlowKey.hpp"

namespace stillow::platform {

/// The names of the flows that were released, so that those can be cut which a grown Scope blocks.
///
/// A ring of bytes, taken at construction; the system gives it its pages as they are used. A new
/// record overwrites the oldest ones. Nobody tells us when a flow ends, so most records are about
/// flows that are gone; cutting one of those does nothing, as long as its key was not used again,
/// and a flow that used it again is in a newer record, which is why nameless flows are recorded
/// too. With names of ordinary length 4 MiB hold about 60,000 flows. Not synchronised.
class ReleasedFlows {
 public:
  static constexpr std::size_t memoryBytesDefault = 4U << 20U;

  explicit ReleasedFlows(std::size_t memoryBytes = memoryBytesDefault);

  /// Remembers that the flow was released as going to `name`, which is empty for a nameless flow.
  /// Names above 255 bytes are remembered as none. Allocates nothing.
  void record(const FlowKey& flow, std::string_view name) noexcept;

  using Visitor = std::function<void(const FlowKey&, std::string_view name)>;
  /// Calls `visitor` with the latest record of each flow that has a name, newest first. The name is
  /// valid during the call. Allocates; not for the packet path.
  void visit(const Visitor& visitor) const;

  /// Records held, superseded ones included.
  [[nodiscard]] std::size_t count() const noexcept { return count_; }

 private:
  [[nodiscard]] std::size_t wrapped(std::size_t position) const noexcept {
    return position < size_ ? position : position - size_;
  }
  void copyIn(std::size_t position, const void* data, std::size_t size) noexcept;
  void copyOut(std::size_t position, void* data, std::size_t size) const noexcept;
  void forgetOldest() noexcept;

  std::size_t size_;
  std::unique_ptr<std::uint8_t[]> bytes_;
  std::size_t begin_ = 0;
  std::size_t used_ = 0;
  std::size_t count_ = 0;
};

}  // namespace stillow::platform
