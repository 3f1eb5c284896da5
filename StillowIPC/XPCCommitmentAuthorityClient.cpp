#include "StillowIPC/XPCCommitmentAuthorityClient.hpp"

#include <iterator>

namespace stillow::ipc {

using concurrency::Cancellation;
using concurrency::Channel;
using concurrency::SleepOutcome;
using concurrency::Task;

namespace {

using Outcome = std::expected<SharedBytes, DaemonError>;

/// Whole seconds and the rest apart, so that 2.5 s is 2.5 and not a neighbour of it.
double seconds(std::chrono::nanoseconds duration) {
  const auto whole = std::chrono::duration_cast<std::chrono::seconds>(duration);
  const std::int64_t attoseconds = (duration - whole).count() * 1'000'000'000;
  return static_cast<double>(whole.count()) + static_cast<double>(attoseconds) * 1e-18;
}

Task<void> enforceDeadline(std::shared_ptr<concurrency::Sleeper> sleeper,
                           std::chrono::nanoseconds deadline, PendingReply pending,
                           Cancellation answered) {
  const SleepOutcome outcome = co_await sleeper->sleep(deadline, answered);
  if (outcome == SleepOutcome::elapsed) {
    pending.settle(std::unexpected(DaemonError::daemonDidNotAnswer{seconds(deadline)}));
  }
}

Outcome outcome(DaemonReply reply) {
  if (reply.error) return std::unexpected(DaemonError::from(*reply.error));
  if (reply.bytes) return std::move(reply.bytes);
  return std::unexpected(DaemonError::internalFailure{"Empty daemon reply."});
}

/// Sends the call. Whatever happens to it settles `pending`.
void sendCall(DaemonConnection& connection, const PendingReply& pending,
              const XPCCommitmentAuthorityClient::Send& send) {
  const auto proxy = connection.remoteProxy([pending](const PlatformError& error) {
    pending.settle(std::unexpected(DaemonError::from(error)));
  });
  if (!proxy) {
    pending.settle(
        std::unexpected(DaemonError::daemonUnavailable{"The daemon proxy is unavailable."}));
    return;
  }
  send(*proxy, [pending](DaemonReply reply) { pending.settle(outcome(std::move(reply))); });
}

DaemonConnecting& placeOf(const Endpoint& endpoint) {
  return *core::match(
      endpoint, [](const Endpoint::machService& service) { return service.services; },
      [](const Endpoint::anonymous& anonymous) { return anonymous.listener; });
}

std::expected<DaemonStatus, DaemonError> decodedStatus(const std::string& bytes) {
  auto status = DaemonWireCoding::decode<DaemonStatus>(bytes);
  if (!status) {
    return std::unexpected(DaemonError::internalFailure{"Could not decode the daemon status."});
  }
  return std::move(*status);
}

}  // namespace

std::shared_ptr<XPCCommitmentAuthorityClient> XPCCommitmentAuthorityClient::make(
    Dependencies dependencies) {
  return std::shared_ptr<XPCCommitmentAuthorityClient>(
      new XPCCommitmentAuthorityClient(std::move(dependencies)));
}

XPCCommitmentAuthorityClient::XPCCommitmentAuthorityClient(Dependencies dependencies)
    : dependencies_(std::move(dependencies)) {}

XPCCommitmentAuthorityClient::~XPCCommitmentAuthorityClient() {
  XPCCommitmentAuthorityClient::invalidate();
}

// ---- the connection

std::expected<std::shared_ptr<DaemonConnection>, DaemonError>
XPCCommitmentAuthorityClient::connection() {
  const std::lock_guard lock(mutex_);
  if (liveConnection_) return liveConnection_;
  const std::uint64_t serial = connectionSerial_ + 1;
  auto opened = placeOf(dependencies_.endpoint).makeConnection(handlersFor(serial));
  if (const auto& requirement = dependencies_.requirement) {
    if (!requirement->isValid()) {
      opened->invalidate();
      return std::unexpected(DaemonError::notAuthorized{});
    }
    opened->setCodeSigningRequirement(*requirement);
  }
  opened->resume();
  connectionSerial_ = serial;
  liveConnection_ = std::move(opened);
  return liveConnection_;
}

DaemonConnectionHandlers XPCCommitmentAuthorityClient::handlersFor(std::uint64_t serial) {
  const std::weak_ptr<XPCCommitmentAuthorityClient> weak = weak_from_this();
  return {.statusChanged =
              [weak, serial](const SharedBytes& status) {
                if (const auto self = weak.lock()) self->fanOut(serial, status);
              },
          .lost =
              [weak, serial] {
                if (const auto self = weak.lock()) self->lost(serial);
              }};
}

void XPCCommitmentAuthorityClient::lost(std::uint64_t serial) {
  std::shared_ptr<DaemonConnection> connection;
  Subscribers subscribers;
  {
    const std::lock_guard lock(mutex_);
    // A connection is told to be lost up to twice, and by then another one may live.
    if (!liveConnection_ || serial != connectionSerial_) return;
    connection.swap(liveConnection_);
    subscribers.swap(subscribers_);
  }
  for (const auto& [id, subscriber] : subscribers) subscriber.statuses.finish();
}

void XPCCommitmentAuthorityClient::invalidate() {
  std::shared_ptr<DaemonConnection> connection;
  Subscribers subscribers;
  {
    const std::lock_guard lock(mutex_);
    connection.swap(liveConnection_);
    subscribers.swap(subscribers_);
  }
  if (connection) connection->invalidate();
  for (const auto& [id, subscriber] : subscribers) subscriber.statuses.finish();
}

// ---- calls

Task<std::expected<SharedBytes, DaemonError>> XPCCommitmentAuthorityClient::call(
    std::chrono::nanoseconds deadline, Send send) {
  return callOn(shared_from_this(), deadline, std::move(send));
}

Task<std::expected<SharedBytes, DaemonError>> XPCCommitmentAuthorityClient::callOn(
    Self self, std::chrono::nanoseconds deadline, Send send) {
  auto connection = self->connection();
  if (!connection) co_return std::unexpected(std::move(connection.error()));
  const PendingReply pending;
  const Cancellation answered;
  concurrency::spawn(self->dependencies_.executor,
                     enforceDeadline(self->dependencies_.wait, deadline, pending, answered));
  sendCall(**connection, pending, send);
  Outcome result = co_await pending.wait();
  answered.cancel();
  co_return result;
}

Task<CommitmentAuthorityClient::Result> XPCCommitmentAuthorityClient::perform(
    Self self, DaemonOperation operation, SharedBytes request) {
  const DaemonCallDeadlines& deadlines = self->dependencies_.deadlines;
  const auto deadline = operation == DaemonOperation::validateEnforcement
                            ? deadlines.enforcementValidation
                            : deadlines.ordinary;
  Send send = [operation, request = std::move(request)](DaemonProxy& proxy,
                                                        std::function<void(DaemonReply)> reply) {
    proxy.send(operation, request, std::move(reply));
  };
  const Outcome bytes = co_await callOn(std::move(self), deadline, std::move(send));
  if (!bytes) co_return std::unexpected(bytes.error());
  co_return decodedStatus(**bytes);
}

Task<CommitmentAuthorityClient::Result> XPCCommitmentAuthorityClient::perform(
    Self self, DaemonOperation operation, std::expected<std::string, core::EncodingError> request) {
  if (!request) {
    co_return std::unexpected(DaemonError::internalFailure{"Could not encode a daemon request."});
  }
  auto bytes = std::make_shared<const std::string>(std::move(*request));
  Result result = co_await perform(std::move(self), operation, std::move(bytes));
  co_return result;
}

Task<CommitmentAuthorityClient::Result> XPCCommitmentAuthorityClient::status() {
  return perform(shared_from_this(), DaemonOperation::status);
}

Task<CommitmentAuthorityClient::Result> XPCCommitmentAuthorityClient::activate(
    ActivationRequest request) {
  return perform(shared_from_this(), DaemonOperation::activate, DaemonWireCoding::encode(request));
}

Task<CommitmentAuthorityClient::Result> XPCCommitmentAuthorityClient::strengthen(
    ScopeAddition addition) {
  return perform(shared_from_this(), DaemonOperation::strengthen,
                 DaemonWireCoding::encode(addition));
}

Task<CommitmentAuthorityClient::Result> XPCCommitmentAuthorityClient::extend(
    ExtensionRequest request) {
  return perform(shared_from_this(), DaemonOperation::extend, DaemonWireCoding::encode(request));
}

Task<CommitmentAuthorityClient::Result> XPCCommitmentAuthorityClient::validateEnforcement() {
  return perform(shared_from_this(), DaemonOperation::validateEnforcement);
}

Task<CommitmentAuthorityClient::Result> XPCCommitmentAuthorityClient::acknowledgeExpiry() {
  return perform(shared_from_this(), DaemonOperation::acknowledgeExpiry);
}

Task<CommitmentAuthorityClient::Result> XPCCommitmentAuthorityClient::armFilterConfiguration() {
  return perform(shared_from_this(), DaemonOperation::armFilterConfiguration);
}

Task<CommitmentAuthorityClient::Result> XPCCommitmentAuthorityClient::announceUserInterface() {
  return perform(shared_from_this(), DaemonOperation::announceUserInterface);
}

// ---- streams

DaemonStatusStream XPCCommitmentAuthorityClient::statusChanges() {
  const Channel<DaemonStatus> statuses(DaemonStatusStream::undeliveredMax);
  SubscriberID id = 0;
  {
    const std::lock_guard lock(mutex_);
    id = ++lastSubscriber_;
    subscribers_.emplace(id, Subscriber{statuses});
  }
  const std::weak_ptr<XPCCommitmentAuthorityClient> weak = weak_from_this();
  concurrency::spawn(dependencies_.executor, subscribe(weak, id, statuses));
  return DaemonStatusStream(statuses, [weak, id, statuses] {
    statuses.finish();
    if (const auto self = weak.lock()) self->remove(id);
  });
}

Task<void> XPCCommitmentAuthorityClient::subscribe(std::weak_ptr<XPCCommitmentAuthorityClient> weak,
                                                   SubscriberID id,
                                                   Channel<DaemonStatus> statuses) {
  Self self = weak.lock();
  // A client that was invalidated before this began has finished the stream, and a connection
  // opened for it now would be nobody's.
  if (!self || statuses.isFinished()) {
    statuses.finish();
    co_return;
  }
  Send send = [weak, id](DaemonProxy& proxy, std::function<void(DaemonReply)> reply) {
    proxy.send(DaemonOperation::subscribeToStatusChanges, nullptr,
               [weak, id, reply = std::move(reply)](DaemonReply answer) {
                 // Here, before the connection hands over what was pushed next.
                 if (const auto client = weak.lock()) client->noteAnswered(id);
                 reply(std::move(answer));
               });
  };
  const auto deadline = self->dependencies_.deadlines.ordinary;
  const Outcome bytes = co_await callOn(self, deadline, std::move(send));
  if (bytes) {
    if (auto first = decodedStatus(**bytes)) {
      self->beginStreaming(id, std::move(*first));
      co_return;
    }
  }
  self->remove(id);
  statuses.finish();
}

void XPCCommitmentAuthorityClient::noteAnswered(SubscriberID id) {
  const std::lock_guard lock(mutex_);
  const auto found = subscribers_.find(id);
  if (found != subscribers_.end()) found->second.phase = Subscriber::Phase::answered;
}

void XPCCommitmentAuthorityClient::beginStreaming(SubscriberID id, DaemonStatus first) {
  std::deque<DaemonStatus> undelivered;
  undelivered.push_back(std::move(first));
  for (;;) {
    std::optional<Channel<DaemonStatus>> statuses;
    {
      const std::lock_guard lock(mutex_);
      const auto found = subscribers_.find(id);
      if (found == subscribers_.end()) return;  // lost or let go meanwhile: the stream is finished
      auto& waiting = found->second.waiting;
      std::move(waiting.begin(), waiting.end(), std::back_inserter(undelivered));
      waiting.clear();
      if (undelivered.empty()) {
        found->second.phase = Subscriber::Phase::streaming;
        return;
      }
      statuses = found->second.statuses;
    }
    for (auto& status : undelivered) statuses->give(std::move(status));
    undelivered.clear();
  }
}

void XPCCommitmentAuthorityClient::fanOut(std::uint64_t serial, const SharedBytes& status) {
  {
    const std::lock_guard lock(mutex_);
    if (serial != connectionSerial_ || subscribers_.empty()) return;
  }
  const auto decoded = decodedStatus(*status);
  if (!decoded) return;
  std::vector<Channel<DaemonStatus>> streams;
  {
    const std::lock_guard lock(mutex_);
    if (serial != connectionSerial_) return;
    for (auto& [id, subscriber] : subscribers_) {
      if (subscriber.phase == Subscriber::Phase::streaming) {
        streams.push_back(subscriber.statuses);
      } else if (subscriber.phase == Subscriber::Phase::answered) {
        if (subscriber.waiting.size() == DaemonStatusStream::undeliveredMax) {
          subscriber.waiting.pop_front();
        }
        subscriber.waiting.push_back(*decoded);
      }
    }
  }
  for (const auto& stream : streams) stream.give(*decoded);
}

void XPCCommitmentAuthorityClient::remove(SubscriberID id) {
  const std::lock_guard lock(mutex_);
  subscribers_.erase(id);
}

}  // namespace stillow::ipc
