#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "StillowFiltering/Wire/NameReading.hpp"
#include "StillowFiltering/Wire/PrefixAssembly.hpp"

namespace stillow::filtering {

/// Reads the name from the beginning of a TCP stream: a TLS ClientHello or an HTTP/1 request, told
/// apart by their first byte. `prefix` is everything from the stream's start up to the first gap.
///
/// Copies and keeps nothing, so it is also the way to try a flow's first segment where it lies
/// before a `FlowNameReader` is spent on the flow. Any thread.
[[nodiscard]] NameReading readStreamName(WireBytes prefix) noexcept;

/// One TCP segment in the direction from the client to the server.
struct TCPSegment {
  std::uint32_t sequence = 0;
  /// A SYN takes one sequence number; with TCP Fast Open it carries payload too.
  bool isSYN = false;
  WireBytes payload;
};

/// Reads the name of one TCP flow from its segments, in whatever order and with whatever overlap
/// they come. About 5 KiB, trivially copyable, cheap to construct: a bounded flow table takes one
/// from a pool only for a flow whose first segment did not settle it.
///
/// The stream begins after the first SYN that is taken, or else with the first payload that is.
/// Bytes before that beginning are not looked at. Not safe for use from two threads at once.
class FlowNameReader {
 public:
  /// Payload offered for a flow, repeats included, after which it is given up: a gap that never
  /// closes (a segment that passed while the queue was full) must not keep a flow visiting us for
  /// ever. Far above what a client sends before it waits, so repeats do not use it up.
  static constexpr std::size_t offeredBytesMax = 65'536;

  FlowNameReader() noexcept {
  }  // NOLINT: `= default` would clear the buffer on value-initialisation.

  /// What is known once this segment is there too. After `found` or `none` the flow is decided and
  /// the reader has nothing more to say.
  [[nodiscard]] NameReading take(const TCPSegment& segment) noexcept;

  /// Bytes that were looked at: those up to the first gap; once `take` has answered `none` the
  /// whole bound, because no name can follow. Never more than `inspectedBytesMax`.
  [[nodiscard]] std::size_t inspectedByteCount() const noexcept {
    return isGivenUp_ ? inspectedBytesMax : assembly_.prefix().size();
  }

 private:
  [[nodiscard]] NameReading giveUp() noexcept;

  std::optional<std::uint32_t> base_;
  std::size_t offeredBytes_ = 0;
  bool isGivenUp_ = false;
  PrefixAssembly assembly_;
};

}  // namespace stillow::filtering
