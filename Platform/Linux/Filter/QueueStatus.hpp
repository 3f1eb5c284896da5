#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace stillow::platform {

/// What the kernel says about one packet queue. The figures belong to the network namespace of the
/// process that reads them.
struct QueueStatus {
  /// Netlink port of whoever is bound. stillow-filter binds with its own process id as the port; of
  /// another program it is the process id only if it was that program's first netlink socket.
  std::uint32_t portID = 0;
  std::uint32_t waiting = 0;  ///< packets without a verdict, those being judged included
  /// Packets discarded because the queue, or its holder's socket, was full. Those that pass instead
  /// (a queue bound to fail open, as ours) are not in it.
  std::uint32_t droppedQueueFull = 0;
  std::uint32_t droppedSocketFull = 0;
  std::uint32_t lastPacketID = 0;  ///< number of the last packet queued; wraps

  /// The line of queue `number` in `text`, which is the content of "nfnetlink_queue". None when
  /// nobody is bound, or when the line is no such line.
  [[nodiscard]] static std::optional<QueueStatus> parse(std::string_view text,
                                                        std::uint16_t number) noexcept;

  /// Reads it from the kernel. None: nobody is bound. `no_such_file_or_directory` as error: this
  /// kernel has no packet queue (or its module is not loaded yet, which binding does).
  [[nodiscard]] static std::expected<std::optional<QueueStatus>, std::error_code> read(
      std::uint16_t number);

  friend bool operator==(const QueueStatus&, const QueueStatus&) = default;
};

/// Who holds a queue, for an error line: "NAME (process PID)" when `portID` is a process's, else
/// "an unknown program (netlink port PORT)". A guess about strangers, since a port need not be a
/// process id; never a reason to trust anybody.
[[nodiscard]] std::string queueHolderDescription(std::uint32_t portID);

}  // namespace stillow::platform
