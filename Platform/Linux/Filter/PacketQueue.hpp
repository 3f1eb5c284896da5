#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <memory>
#include <span>
#include <string>
#include <system_error>

#include "StillowFiltering/Wire/HostName.hpp"

namespace stillow::platform {

/// Why a queue could not be bound. Each asks for something else from whoever runs the program.
enum class PacketQueueFailure : std::uint8_t {
  kernelWithoutQueue,    ///< load or build nfnetlink_queue
  notPermitted,          ///< run as root, with CAP_NET_ADMIN
  heldByAnotherProgram,  ///< stop that program
  systemError,           ///< see the code
};

struct PacketQueueError {
  PacketQueueFailure failure = PacketQueueFailure::systemError;
  std::error_code code;
  std::string message;  ///< one line, for the log
};

/// A packet that waits for a verdict. Every one that was received has to be answered, or its sender
/// waits for ever: the kernel has no time-out.
struct QueuedPacket {
  std::uint32_t id = 0;
  std::uint32_t mark = 0;        ///< of the packet, others' bits included
  filtering::WireBytes payload;  ///< from the IP header on, perhaps cut at `copyBytes`
};

/// One of the kernel's packet queues, over netlink.
///
/// Bound with this process's id as netlink port, so that the daemon can see who it is. A queue that
/// is full or whose socket is full lets packets pass unseen and counts them; that is never an error
/// here. Packets come as they would on the wire, never several datagrams glued into one.
///
/// For one thread. When the object goes, the kernel discards the packets that were not answered.
class PacketQueue {
 public:
  /// Bytes of each packet that are copied: what a reader looks at, and headers.
  static constexpr std::size_t copyBytes = 4096 + 512;
  /// Packets that wait in the kernel before further ones pass unseen. More than the receive buffer
  /// holds of the smallest, so that the buffer is what is full first: only that is reported.
  static constexpr std::uint32_t lengthMax = 16'384;
  /// Memory for packets on their way to us; holds 3,600 full-size ones.
  static constexpr int receiveBufferBytes = 4 << 20;
  /// Packets taken, and answers sent, with one system call.
  static constexpr std::size_t batchMax = 32;

  [[nodiscard]] static std::expected<PacketQueue, PacketQueueError> bind(std::uint16_t number);

  PacketQueue(PacketQueue&&) noexcept;
  PacketQueue& operator=(PacketQueue&&) noexcept;
  ~PacketQueue();

  /// Readable when packets wait. Belongs to this object.
  [[nodiscard]] int descriptor() const noexcept;

  /// Takes up to `batchMax` packets without waiting. They are valid until the next call. Empty when
  /// none waits. An error means that the queue is lost.
  [[nodiscard]] std::expected<std::span<const QueuedPacket>, std::error_code> receive();

  /// Sends the packet on with `mark`, which replaces its whole mark. It enters the table in which
  /// it was queued once more, from the start, so that no rule behind ours is skipped. Sent with the
  /// next `flush`, or earlier.
  [[nodiscard]] std::error_code answer(const QueuedPacket& packet, std::uint32_t mark);
  [[nodiscard]] std::error_code flush();

  /// How often the kernel reported that packets passed because the socket was full.
  [[nodiscard]] std::uint64_t overrunCount() const noexcept;

 private:
  struct Impl;
  explicit PacketQueue(std::unique_ptr<Impl> impl) noexcept;

  std::unique_ptr<Impl> impl_;
};

}  // namespace stillow::platform
