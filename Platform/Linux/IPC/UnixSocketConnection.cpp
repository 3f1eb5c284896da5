#include "PlatformLinuxIPC/UnixSocketConnection.hpp"

#include <array>

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <poll.h>

#include "PlatformLinuxIPC/Completion.hpp"
#include "PlatformLinuxPeer/LogText.hpp"
#include "StillowConcurrency/Deadline.hpp"

namespace stillow::platform {

using concurrency::Cancellation;
using concurrency::SleepOutcome;
using concurrency::Task;

namespace {

/// What is read at once. Small, because every connection keeps as much, and because the calls in it
/// are begun before anybody else's turn comes: some eighty of the shortest.
constexpr std::size_t chunkBytes = 4 * 1024;
/// Texts that are written at once: three buffers each, and the system takes 1,024.
constexpr std::size_t textsAtOnceMax = 64;

/// Both directions of the connection are gone, not just the peer's sending.
bool hasHungUp(int descriptor) {
  pollfd state{.fd = descriptor, .events = 0, .revents = 0};
  return ::poll(&state, 1, 0) == 1 && (state.revents & (POLLHUP | POLLERR)) != 0;
}

}  // namespace

/// Room for a line that is not small: a place among those that may be read, and its bytes. Whoever
/// holds the request that was in the line holds the room.
struct UnixSocketConnection::LineRoom {
  std::shared_ptr<FairGate::Pass> pass;
  std::shared_ptr<ByteBudget::Reservation> bytes;
};

struct UnixSocketConnection::Line {
  std::string text;
  std::shared_ptr<LineRoom> room;  ///< null for a small line
  Cancellation hasArrived;         ///< ends the time limit of a line with room

  /// The request record that lies at `part` of the text. Of the only request it takes the text
  /// over: a copy of 64 MiB would be in nobody's budget.
  ipc::SharedBytes request(std::string_view part, bool isOnly) {
    struct Request {
      std::string text;
      std::shared_ptr<LineRoom> room;
    };
    const auto request = std::make_shared<Request>(Request{{}, room});
    if (isOnly) {
      const auto begin = static_cast<std::size_t>(part.data() - text.data());
      const std::size_t end = begin + part.size();
      request->text = std::move(text);
      request->text.resize(end);
      request->text.erase(0, begin);
    } else {
      request->text = part;
    }
    return {request, &request->text};
  }
};

/// The answers to one batch, which leave together.
struct UnixSocketConnection::Batch {
  std::size_t calls = 0;
  std::size_t open = 0;
  bool holdsPushes = false;
  std::vector<rpc::Text> answers;
};

/// A call that the delegate has not been given yet.
struct UnixSocketConnection::PendingCall {
  ipc::DaemonOperation operation;
  ipc::SharedBytes params;
  std::string id;
  std::shared_ptr<Batch> batch;
  std::shared_ptr<LineRoom> room;
  std::shared_ptr<ConnectionLedger::Entry> entry;
  std::shared_ptr<FairGate::Pass> pass;
};

/// Lines that have left the queue.
struct UnixSocketConnection::Writing {
  std::vector<OutgoingLine> lines;
  std::vector<boost::asio::const_buffer> unwritten;  ///< of these lines

  void noteWritten(std::size_t count) {
    auto first = unwritten.begin();
    while (first != unwritten.end() && count >= first->size()) count -= (first++)->size();
    if (first != unwritten.end()) *first += count;
    unwritten.erase(unwritten.begin(), first);
  }
};

struct UnixSocketConnection::Verdict {
  bool isTrusted = false;
  std::string reason;
};

UnixSocketConnection::UnixSocketConnection(std::shared_ptr<const SocketServer> server,
                                           Socket socket, ipc::PeerProcess peer,
                                           std::shared_ptr<ConnectionLedger::Entry> place)
    : server_(std::move(server)),
      peer_(peer),
      strand_(socket.get_executor()),
      socket_(std::move(socket)),
      place_(std::move(place)),
      line_(std::make_unique<Line>()) {}

UnixSocketConnection::~UnixSocketConnection() = default;

void UnixSocketConnection::begin(std::optional<ipc::CodeSigningRequirement> requirement,
                                 std::shared_ptr<ipc::ConnectedPeer> peer) {
  account_ = server_->budget->open([weak = weak_from_this(), strand = strand_] {
    boost::asio::post(strand, [weak] {
      if (const auto self = weak.lock()) {
        self->lose("it keeps more answers waiting than the daemon can hold");
      }
    });
  });
  boost::system::error_code error;
  (void)socket_.non_blocking(true, error);
  if (error) {
    boost::asio::post(strand_, [self = shared_from_this(), error] {
      self->lose("its socket cannot be made non-blocking: " + error.message());
    });
    return;
  }
  concurrency::spawn(strand_, run(shared_from_this(), std::move(requirement), std::move(peer)));
}

Task<void> UnixSocketConnection::run(Self self,
                                     std::optional<ipc::CodeSigningRequirement> requirement,
                                     std::shared_ptr<ipc::ConnectedPeer> peer) {
  if (requirement) {
    const auto server = self->server_;
    Task<Verdict> checking = check(server, std::move(*requirement), std::move(peer),
                                   static_cast<uid_t>(self->peer_.uid), self->ending_);
    const auto verdict = co_await concurrency::within(server->limits.peerCheckTimeMax,
                                                      server->sleeper, std::move(checking));
    if (self->hasEnded_) co_return;
    if (!verdict) {
      self->refuse("its executable could not be checked in time");
      co_return;
    }
    if (!verdict->isTrusted) {
      self->refuse(verdict->reason);
      co_return;
    }
  }
  co_await readLines(std::move(self));
}

Task<UnixSocketConnection::Verdict> UnixSocketConnection::check(
    std::shared_ptr<const SocketServer> server, ipc::CodeSigningRequirement requirement,
    std::shared_ptr<ipc::ConnectedPeer> peer, uid_t user, Cancellation givenUp) {
  // A refused connection takes its place in the queue along: the peers in it hold descriptors.
  auto pass = co_await server->peerChecks.enter(user, std::move(givenUp));
  if (!pass) co_return Verdict{};
  // The pass goes with the work: past the deadline the thread is busy all the same.
  const auto look = [peer, pass = std::move(pass)] { return peer->codeIdentity(); };
  const auto identity = co_await concurrency::runBlocking(server->blocking, look);
  if (!identity) co_return Verdict{false, identity.error()};
  if (requirement.isSatisfiedBy(*identity)) co_return Verdict{true, {}};
  co_return Verdict{false, "it is signed as " + quotedForLog(identity->identifier) + " by " +
                               quotedForLog(identity->leafOrganizationalUnit) +
                               ", which may not speak to the daemon"};
}

// ---- reading

Task<void> UnixSocketConnection::readLines(Self self) {
  const SocketLimits& limits = self->server_->limits;
  const auto chunk = std::make_unique<std::array<char, chunkBytes>>();
  while (!self->hasEnded_) {
    const auto [error, count] =
        co_await self->socket_.async_read_some(boost::asio::buffer(*chunk), completion);
    if (self->hasEnded_) co_return;
    if (error == boost::asio::error::eof) {
      self->inputEnded();
      co_return;
    }
    if (error) {
      self->end();
      co_return;
    }
    std::string_view arrived(chunk->data(), count);
    while (!arrived.empty() && !self->hasEnded_) {
      const std::size_t lineFeed = arrived.find('\n');
      const std::string_view part = arrived.substr(0, lineFeed);
      const std::size_t length = self->line_->text.size() + part.size();
      if (length > limits.lineBytesMax) {
        self->lose("a line of it is longer than " + std::to_string(limits.lineBytesMax) + " bytes");
        co_return;
      }
      if (length > limits.smallLineBytesMax && !self->line_->room) {
        co_await makeRoom(self);
        if (self->hasEnded_) co_return;
      }
      self->line_->text.append(part);
      if (lineFeed == std::string_view::npos) break;
      arrived.remove_prefix(lineFeed + 1);
      self->handleLine();
    }
  }
}

Task<void> UnixSocketConnection::makeRoom(Self self) {
  const auto server = self->server_;
  const auto user = static_cast<uid_t>(self->peer_.uid);
  auto pass = co_await server->bigLines.enter(user, self->ending_);
  if (self->hasEnded_) co_return;
  const std::size_t bytes = server->limits.lineBytesMax;
  self->line_->room =
      std::make_shared<LineRoom>(LineRoom{std::move(pass), server->budget->reserve(bytes)});
  // Address space, not memory: pages come as they are written, and nothing is copied as the line
  // grows.
  self->line_->text.reserve(bytes);
  concurrency::spawn(self->strand_, limitArrival(self, server, self->line_->hasArrived));
}

Task<void> UnixSocketConnection::limitArrival(std::weak_ptr<UnixSocketConnection> weak,
                                              std::shared_ptr<const SocketServer> server,
                                              Cancellation hasArrived) {
  const SleepOutcome outcome =
      co_await server->sleeper->sleep(server->limits.bigLineTimeMax, hasArrived);
  if (outcome == SleepOutcome::cancelled || hasArrived.isCancelled()) co_return;
  if (const auto self = weak.lock()) self->lose("a long line of it took too long to arrive");
}

void UnixSocketConnection::handleLine() {
  Line line = std::exchange(*line_, Line{});
  line.hasArrived.cancel();
  const SocketLimits& limits = server_->limits;
  const auto parsed = rpc::readRequests(
      line.text,
      {.valuesMax = limits.lineValuesMax, .requestsMax = limits.callsInFlightPerConnectionMax});
  if (!parsed) {
    lose(parsed.error() == rpc::LineLimit::values ? "a line of it has too many values"
                                                  : "a batch of it has too many calls");
    return;
  }
  const auto batch = parsed->isBatch ? std::make_shared<Batch>() : nullptr;
  if (batch) batch->calls = batch->open = parsed->requests.size();
  for (const rpc::Request& request : parsed->requests) {
    if (hasEnded_) return;
    const auto* const call = std::get_if<rpc::Call>(&request);
    ipc::SharedBytes params;
    if (call != nullptr && call->params) params = line.request(*call->params, !batch);
    handle(request, std::move(params), line.room, batch);
  }
}

void UnixSocketConnection::handle(const rpc::Request& request, ipc::SharedBytes params,
                                  const std::shared_ptr<LineRoom>& room,
                                  const std::shared_ptr<Batch>& batch) {
  // What gets one of the standard's answers counts too: somebody may send nothing else.
  if (callsInFlight_ == server_->limits.callsInFlightPerConnectionMax) {
    lose("it has more than " + std::to_string(callsInFlight_) + " calls in flight");
    return;
  }
  ++callsInFlight_;
  if (const auto* const fault = std::get_if<rpc::Fault>(&request)) {
    settle(rpc::errorText(fault->id, fault->error), batch);
  } else if (const auto* const known = std::get_if<rpc::Call>(&request)) {
    call(*known, std::move(params), room, batch);
  } else {
    settle(std::nullopt, batch);
  }
}

void UnixSocketConnection::call(const rpc::Call& call, ipc::SharedBytes params,
                                std::shared_ptr<LineRoom> room,
                                const std::shared_ptr<Batch>& batch) {
  // What a long request is decoded to is larger still, so its room is kept until it is answered.
  if (!params) room = nullptr;
  const std::size_t requestBytes = params && !room ? params->size() : 0;
  auto entry = server_->ledger->addCall(static_cast<uid_t>(peer_.uid), requestBytes);
  if (!entry) return lose(entry.error());
  if (batch && call.operation == ipc::DaemonOperation::subscribeToStatusChanges &&
      !std::exchange(batch->holdsPushes, true)) {
    ++batchesThatHoldPushes_;
  }
  PendingCall pending{.operation = call.operation,
                      .params = std::move(params),
                      .id = call.id,
                      .batch = batch,
                      .room = std::move(room),
                      .entry = std::move(*entry),
                      .pass = server_->callsAtWork.tryEnter(static_cast<uid_t>(peer_.uid))};
  if (pending.pass) return begin(std::move(pending));
  concurrency::spawn(
      strand_, beginInTurn(shared_from_this(), std::make_shared<PendingCall>(std::move(pending))));
}

Task<void> UnixSocketConnection::beginInTurn(Self self, std::shared_ptr<PendingCall> call) {
  const auto server = self->server_;
  call->pass =
      co_await server->callsAtWork.enter(static_cast<uid_t>(self->peer_.uid), self->ending_);
  if (!self->hasEnded_) self->begin(std::move(*call));
}

void UnixSocketConnection::begin(PendingCall call) {
  const ipc::CallAnswer callAnswer(
      [weak = weak_from_this(), strand = strand_, id = call.id, batch = call.batch,
       room = std::move(call.room), entry = std::move(call.entry),
       pass = std::move(call.pass)](const ipc::DaemonReply& reply) mutable {
        // First: whoever has the answer may use what the call took.
        room = nullptr;
        entry = nullptr;
        pass = nullptr;
        boost::asio::post(strand, [weak, id, batch, reply] {
          if (const auto self = weak.lock()) self->answer(id, reply, batch);
        });
      });
  if (const auto delegate = server_->delegate.lock()) {
    delegate->received(shared_from_this(), {call.operation, std::move(call.params), callAnswer});
  }
}

void UnixSocketConnection::answer(const std::string& id, ipc::DaemonReply reply,
                                  const std::shared_ptr<Batch>& batch) {
  if (hasEnded_) return;
  if (id.empty()) {
    settle(std::nullopt, batch);
  } else {
    settle(rpc::replyText(id, std::move(reply)), batch);
  }
}

/// One request is done; without a text it gets no answer.
void UnixSocketConnection::settle(std::optional<rpc::Text> text,
                                  const std::shared_ptr<Batch>& batch) {
  if (batch) {
    if (text) batch->answers.push_back(std::move(*text));
    if (--batch->open > 0) return;
    if (batch->answers.empty()) {
      callsInFlight_ -= batch->calls;
    } else {
      enqueue(std::move(batch->answers), true, batch->calls);
    }
    if (batch->holdsPushes && --batchesThatHoldPushes_ == 0 && heldPush_) {
      enqueuePush(std::exchange(heldPush_, nullptr));
    }
  } else if (text) {
    std::vector<rpc::Text> texts;
    texts.push_back(std::move(*text));
    enqueue(std::move(texts), false, 1);
  } else {
    --callsInFlight_;
  }
  endIfDrained();
}

// ---- writing

void UnixSocketConnection::push(ipc::SharedBytes status) {
  boost::asio::post(strand_, [weak = weak_from_this(), status = std::move(status)] {
    const auto self = weak.lock();
    if (!self || self->hasEnded_) return;
    if (self->batchesThatHoldPushes_ > 0) {
      self->heldPush_ = status;
    } else {
      self->enqueuePush(status);
    }
  });
}

void UnixSocketConnection::enqueuePush(ipc::SharedBytes status) {
  std::vector<rpc::Text> texts;
  texts.push_back(rpc::pushText(std::move(status)));
  outgoing_.appendPush(OutgoingLine::of(std::move(texts), false, 0, account_));
  startWriting();
}

void UnixSocketConnection::enqueue(std::vector<rpc::Text> texts, bool isBatch,
                                   std::size_t callsAnswered) {
  outgoing_.append(OutgoingLine::of(std::move(texts), isBatch, callsAnswered, account_));
  startWriting();
}

/// Most clients have room for a text, and what the system takes at once waits for nobody.
void UnixSocketConnection::startWriting() {
  if (isWriting_) return;
  Writing writing = takeWaiting();
  boost::system::error_code error;
  writing.noteWritten(socket_.write_some(writing.unwritten, error));
  if (error && error != boost::asio::error::would_block) return end();
  if (writing.unwritten.empty()) return;
  isWriting_ = true;
  concurrency::spawn(strand_, writeLines(shared_from_this(), std::move(writing)));
}

/// Ends when nothing waits any more.
Task<void> UnixSocketConnection::writeLines(Self self, Writing writing) {
  for (;;) {
    const auto [error, count] =
        co_await boost::asio::async_write(self->socket_, writing.unwritten, completion);
    if (error) self->end();
    if (self->hasEnded_ || self->outgoing_.empty()) break;
    writing = self->takeWaiting();
  }
  self->isWriting_ = false;
  self->endIfDrained();
}

UnixSocketConnection::Writing UnixSocketConnection::takeWaiting() {
  Writing writing;
  writing.lines = outgoing_.take(textsAtOnceMax);
  for (const OutgoingLine& line : writing.lines) {
    // Before it is written: a client that waits for an answer before it calls again may do so
    // before we learn that the answer was taken.
    callsInFlight_ -= line.callsAnswered;
    for (const rpc::Text& text : line.texts) {
      writing.unwritten.emplace_back(text.head.data(), text.head.size());
      if (text.body) writing.unwritten.emplace_back(text.body->data(), text.body->size());
      writing.unwritten.emplace_back(text.tail.data(), text.tail.size());
    }
  }
  return writing;
}

// ---- the end

void UnixSocketConnection::inputEnded() {
  inputEnded_ = true;
  if (!line_->text.empty()) {
    // A line that was cut off says nothing, even if what is left of it would be a call.
    *line_ = Line{};
    ++callsInFlight_;
    settle(rpc::errorText("null", rpc::StandardError::parseError), nullptr);
  }
  endIfDrained();
  if (!hasEnded_) concurrency::spawn(strand_, endWithPeer(shared_from_this()));
}

/// While calls are under way nothing is read and perhaps nothing written, so the peer's end has to
/// be watched for.
Task<void> UnixSocketConnection::endWithPeer(Self self) {
  while (!self->hasEnded_ && !hasHungUp(self->socket_.native_handle())) {
    (void)co_await self->socket_.async_wait(Socket::wait_error, completion);
  }
  self->end();
}

void UnixSocketConnection::endIfDrained() {
  if (inputEnded_ && callsInFlight_ == 0 && outgoing_.empty() && !isWriting_) end();
}

void UnixSocketConnection::stop() {
  boost::asio::post(strand_, [self = shared_from_this()] { self->end(); });
}

void UnixSocketConnection::discard() {
  boost::asio::post(strand_, [self = shared_from_this()] {
    if (!std::exchange(self->hasEnded_, true)) self->close();
  });
}

void UnixSocketConnection::refuse(std::string_view reason) {
  server_->log->write("refused the connection of " + peerName() + ": " + std::string(reason));
  end();
}

void UnixSocketConnection::lose(std::string_view reason) {
  if (hasEnded_) return;
  server_->log->write("closed the connection of " + peerName() + ": " + std::string(reason));
  end();
}

void UnixSocketConnection::lose(ConnectionLedger::CallLimit limit) {
  using enum ConnectionLedger::CallLimit;
  const SocketLimits& limits = server_->limits;
  const auto tooMany = [](std::string_view whose, std::size_t most) {
    return std::string(whose) + " more than " + std::to_string(most) + " calls in flight";
  };
  const auto tooLarge = [](std::string_view whose, std::size_t most) {
    return "requests of " + std::string(whose) + " keep more than " + std::to_string(most) +
           " bytes waiting";
  };
  switch (limit) {
    case callsOfUser:
      return lose(tooMany("its user has", limits.callsInFlightPerUserMax));
    case calls:
      return lose(tooMany("all users together have", limits.callsInFlightMax));
    case requestBytesOfUser:
      return lose(tooLarge("its user", limits.requestBytesPerUserMax));
    case requestBytes:
      return lose(tooLarge("all users together", limits.requestBytesMax));
  }
}

void UnixSocketConnection::end() {
  if (std::exchange(hasEnded_, true)) return;
  close();
  if (const auto delegate = server_->delegate.lock()) delegate->ended(id_);
}

void UnixSocketConnection::close() {
  ending_.cancel();
  boost::system::error_code ignored;  // the descriptor is gone whatever close says
  (void)socket_.close(ignored);
  line_->hasArrived.cancel();
  *line_ = Line{};
  outgoing_.clear();
  heldPush_ = nullptr;
  place_ = nullptr;
}

std::string UnixSocketConnection::peerName() const {
  return "process " + std::to_string(peer_.pid) + " of user " + std::to_string(peer_.uid);
}

}  // namespace stillow::platform
