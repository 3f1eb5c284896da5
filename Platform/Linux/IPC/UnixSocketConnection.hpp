#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <boost/asio/local/stream_protocol.hpp>
#include <sys/types.h>

#include "PlatformLinuxIPC/ByteBudget.hpp"
#include "PlatformLinuxIPC/ConnectionLedger.hpp"
#include "PlatformLinuxIPC/FairGate.hpp"
#include "PlatformLinuxIPC/OutgoingQueue.hpp"
#include "PlatformLinuxIPC/RefusalLog.hpp"
#include "PlatformLinuxIPC/SocketLimits.hpp"
#include "StillowConcurrency/BlockingExecutor.hpp"
#include "StillowConcurrency/Cancellation.hpp"
#include "StillowConcurrency/Sleeper.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowIPC/CodeSigningRequirement.hpp"
#include "StillowIPC/DaemonConnection.hpp"
#include "StillowIPC/PeerIdentifying.hpp"

namespace stillow::platform {

/// What the connections of one listener share.
struct SocketServer {
  SocketLimits limits;
  concurrency::Executor executor;
  std::shared_ptr<concurrency::BlockingExecutor> blocking;
  std::shared_ptr<concurrency::Sleeper> sleeper;
  std::weak_ptr<ipc::DaemonListenerDelegate> delegate;
  std::shared_ptr<ByteBudget> budget;
  std::shared_ptr<ConnectionLedger> ledger;
  std::shared_ptr<RefusalLog> log;
  FairGate bigLines;
  FairGate peerChecks;
  FairGate callsAtWork;
};

/// The daemon's end of one client's connection. Everything but the public operations runs on a
/// strand of its own, so no member needs a lock.
///
/// Nothing is read before the peer has been found to satisfy the requirement; what it sent waits in
/// the kernel until then. A loop reads lines and hands calls on. A text is written at once, as far
/// as the client has room for it; while it has none, a second loop writes what waits. So the
/// connection may end inside whatever gives it a text. A client that ends its side gets the answers
/// that it asked for, then the connection ends.
class UnixSocketConnection final : public ipc::ServedConnection,
                                   public std::enable_shared_from_this<UnixSocketConnection> {
 public:
  using Socket = boost::asio::local::stream_protocol::socket;

  /// `socket` belongs to a strand of its own. `place` is kept until the connection ends.
  UnixSocketConnection(std::shared_ptr<const SocketServer> server, Socket socket,
                       ipc::PeerProcess peer, std::shared_ptr<ConnectionLedger::Entry> place);
  ~UnixSocketConnection() override;
  UnixSocketConnection(const UnixSocketConnection&) = delete;
  UnixSocketConnection& operator=(const UnixSocketConnection&) = delete;

  [[nodiscard]] ipc::ConnectionID identity() const noexcept override { return id_; }
  void push(ipc::SharedBytes status) override;

  /// Once: checks `peer` against `requirement`, then serves. Without a requirement nobody is looked
  /// at and `peer` may be null.
  void begin(std::optional<ipc::CodeSigningRequirement> requirement,
             std::shared_ptr<ipc::ConnectedPeer> peer);
  /// Ends the connection, soon.
  void stop();
  /// Instead of `begin`: closes a connection that the delegate did not accept and hears no more of.
  /// Whether the delegate keeps it makes no difference.
  void discard();

 private:
  using Self = std::shared_ptr<UnixSocketConnection>;
  struct Batch;
  struct PendingCall;
  struct Line;
  struct LineRoom;
  struct Verdict;
  struct Writing;

  static concurrency::Task<void> run(Self self,
                                     std::optional<ipc::CodeSigningRequirement> requirement,
                                     std::shared_ptr<ipc::ConnectedPeer> peer);
  static concurrency::Task<Verdict> check(std::shared_ptr<const SocketServer> server,
                                          ipc::CodeSigningRequirement requirement,
                                          std::shared_ptr<ipc::ConnectedPeer> peer, uid_t user,
                                          concurrency::Cancellation givenUp);
  static concurrency::Task<void> readLines(Self self);
  static concurrency::Task<void> makeRoom(Self self);
  static concurrency::Task<void> limitArrival(std::weak_ptr<UnixSocketConnection> weak,
                                              std::shared_ptr<const SocketServer> server,
                                              concurrency::Cancellation hasArrived);
  static concurrency::Task<void> endWithPeer(Self self);
  static concurrency::Task<void> writeLines(Self self, Writing writing);

  void handleLine();
  void handle(const rpc::Request& request, ipc::SharedBytes params,
              const std::shared_ptr<LineRoom>& room, const std::shared_ptr<Batch>& batch);
  void call(const rpc::Call& call, ipc::SharedBytes params, std::shared_ptr<LineRoom> room,
            const std::shared_ptr<Batch>& batch);
  static concurrency::Task<void> beginInTurn(Self self, std::shared_ptr<PendingCall> call);
  void begin(PendingCall call);
  void answer(const std::string& id, ipc::DaemonReply reply, const std::shared_ptr<Batch>& batch);
  void settle(std::optional<rpc::Text> text, const std::shared_ptr<Batch>& batch);
  void enqueue(std::vector<rpc::Text> texts, bool isBatch, std::size_t callsAnswered);
  void enqueuePush(ipc::SharedBytes status);
  void startWriting();
  Writing takeWaiting();

  void inputEnded();
  void endIfDrained();
  void refuse(std::string_view reason);
  void lose(std::string_view reason);
  void lose(ConnectionLedger::CallLimit limit);
  void end();
  void close();
  [[nodiscard]] std::string peerName() const;

  const std::shared_ptr<const SocketServer> server_;
  const ipc::ConnectionID id_ = ipc::ConnectionID::next();
  const ipc::PeerProcess peer_;
  const concurrency::Executor strand_;
  Socket socket_;
  std::shared_ptr<ConnectionLedger::Entry> place_;
  std::shared_ptr<ByteBudget::Account> account_;

  std::unique_ptr<Line> line_;  ///< the line that is arriving
  OutgoingQueue outgoing_;
  ipc::SharedBytes heldPush_;  ///< waits for the answer to a batch that subscribes
  std::size_t batchesThatHoldPushes_ = 0;
  std::size_t callsInFlight_ = 0;  ///< until their answers begin to be written
  bool isWriting_ = false;         ///< waits until the socket takes more
  bool inputEnded_ = false;
  bool hasEnded_ = false;
  concurrency::Cancellation ending_;  ///< whoever waits in its name gives up
};

}  // namespace stillow::platform
