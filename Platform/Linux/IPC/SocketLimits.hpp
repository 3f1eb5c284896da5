#pragma once

#include <chrono>
#include <cstddef>

namespace stillow::platform {

/// What clients together and each of them may take of the daemon. Whoever goes over a limit loses
/// the connection that did, and nobody else notices; a user who takes all that one user may take is
/// in the way of nobody but that user. docs/protocol.md has the memory that this was measured to
/// come to.
struct SocketLimits {
  /// A request for 1,000,000 sites, each in a Group of its own: 67 bytes for each of them.
  std::size_t lineBytesMax = std::size_t{64} << 20U;

  /// Keys and values of one line. A million sites in one Group each are six million; a decoded
  /// document takes 32 bytes for each, so a line cannot cost more than 256 MiB while it is decoded.
  std::size_t lineValuesMax = std::size_t{8} << 20U;

  /// Lines beyond this many bytes are read, and the request in them is worked on, for one client of
  /// a user and for two in all at a time; the others wait. A few hundred sites stay below it.
  std::size_t smallLineBytesMax = std::size_t{32} << 10U;
  std::size_t bigLinesMax = 2;
  std::size_t bigLinesPerUserMax = 1;

  /// How long such a line may take to arrive, so that nobody keeps that place: 64 MiB over a local
  /// socket take a fraction of a second.
  std::chrono::nanoseconds bigLineTimeMax = std::chrono::seconds(10);

  /// Calls of one connection whose answers have not begun to be written. More than any program
  /// waits for; a script that sends calls without reading is stopped here.
  std::size_t callsInFlightPerConnectionMax = 1'024;
  /// Calls of one user, those of connections that are gone among them: one takes about 4 KiB while
  /// it runs, apart from its request, and cannot be taken back.
  std::size_t callsInFlightPerUserMax = 4'096;
  /// Calls of all users: one person may have thousands of user ids.
  std::size_t callsInFlightMax = 16'384;

  /// Calls that the daemon works on together. The others wait for those of their own user, so that
  /// a user with thousands of them is in everybody else's way with a few only. A validation, which
  /// may take 20 s, keeps its place as long: no program asks for more than one or two at a time.
  std::size_t callsAtWorkMax = 256;
  std::size_t callsAtWorkPerUserMax = 16;

  /// Requests in small lines that have not been answered, of one user and of all. Decoded, which
  /// they are while they wait for their turn, they take up to 32 times as much. Requests in long
  /// lines keep the line's place instead.
  std::size_t requestBytesPerUserMax = std::size_t{1} << 20U;
  std::size_t requestBytesMax = std::size_t{4} << 20U;

  /// Together these fit into 2,048 descriptors, with the two that each peer's check takes.
  std::size_t connectionsMax = 512;
  std::size_t connectionsPerUserMax = 128;

  /// Lines that are being read and text that waits to be written, over all connections: two big
  /// lines take half. The other half holds five versions of a status with a million domains. Past
  /// it the connection that keeps the most text waiting is lost.
  std::size_t bufferedBytesMax = std::size_t{256} << 20U;

  /// Peers that are looked at together, each on a thread of its own: a stranger can make one look
  /// take long by being a big program. One user's strangers keep two threads at most.
  std::size_t peerChecksMax = 4;
  std::size_t peerChecksPerUserMax = 2;
  /// From the connection to the verdict, waiting included; a client's shortest deadline is 2 s.
  std::chrono::nanoseconds peerCheckTimeMax = std::chrono::seconds(5);

  /// Pause after the system had no descriptor or memory for a connection.
  std::chrono::nanoseconds acceptPause = std::chrono::milliseconds(100);

  /// Connections that the system keeps for us to accept.
  int backlog = 128;

  /// Lines that are logged of refused and lost connections in `logWindow`; more are counted.
  std::size_t logLinesMax = 20;
  std::chrono::nanoseconds logWindow = std::chrono::seconds(10);
};

}  // namespace stillow::platform
