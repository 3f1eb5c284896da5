#include "StillowAuthority/DaemonXPCService.hpp"

#include <utility>

#include <boost/asio/post.hpp>

#include "StillowIPC/DaemonWireCoding.hpp"
#include "StillowIPC/Requests.hpp"

namespace stillow::authority {

using concurrency::Task;
using ipc::DaemonError;
using ipc::DaemonOperation;
using ipc::DaemonReply;
using ipc::SharedBytes;

namespace {

/// From here on a request waits for its turn to be decoded. Decoding less takes no memory worth
/// counting.
constexpr std::size_t bigRequestBytes = 64 * 1024;

/// What an extension may be charged with although it ran before it. A sample and the turn behind it
/// take far less unless the machine sleeps.
constexpr double unchargedSecondsMax = 0.1;
constexpr int chargingAttemptsMax = 5;

DaemonError noCurrentConnection() {
  return DaemonError::internalFailure{"No current XPC connection."};
}

DaemonReply replyOf(const DaemonError& error) { return DaemonReply::of(error.platformError()); }

template <class Record>
Task<std::optional<Record>> decode(SharedBytes bytes) {
  // A request that is missing is as malformed as one that is no JSON.
  auto record = ipc::DaemonWireCoding::decode<Record>(bytes ? *bytes : std::string());
  if (!record) co_return std::nullopt;
  co_return std::move(*record);
}

}  // namespace

/// A status and its bytes; whoever holds the bytes holds both.
struct DaemonXPCService::EncodedStatus {
  StatusPointer status;
  std::string bytes;
};

/// What one subscription still has to push: the newest status, and nothing before the subscription
/// has been answered. Any thread.
class DaemonXPCService::StatusOutlet {
 public:
  explicit StatusOutlet(Connection connection) : connection_(std::move(connection)) {}

  /// `offer` and `open` are true if the caller has to see to it that what is here is taken.
  [[nodiscard]] bool offer(StatusPointer status) {
    const std::lock_guard lock(mutex_);
    if (isClosed_) {
      hasMissed_ = true;
      return false;
    }
    newest_ = std::move(status);
    return becomeDue();
  }
  void offerIfNothingNewer(StatusPointer status) {
    const std::lock_guard lock(mutex_);
    if (!isClosed_ && !newest_) newest_ = std::move(status);
  }
  [[nodiscard]] bool open() {
    const std::lock_guard lock(mutex_);
    isOpen_ = true;
    return becomeDue();
  }

  /// The status to push; null if there is none any more.
  [[nodiscard]] StatusPointer take() {
    const std::lock_guard lock(mutex_);
    isDue_ = false;
    return std::exchange(newest_, nullptr);
  }

  /// Nothing more: the connection ended or subscribed anew.
  void close() {
    const std::lock_guard lock(mutex_);
    isClosed_ = true;
    hasMissed_ = hasMissed_ || newest_;
    newest_ = nullptr;
  }

  /// Whether a status was not pushed because this was closed.
  [[nodiscard]] bool hasMissed() {
    const std::lock_guard lock(mutex_);
    return hasMissed_;
  }

  [[nodiscard]] ipc::ServedConnection& connection() const { return *connection_; }

 private:
  bool becomeDue() {
    if (!isOpen_ || isDue_ || !newest_) return false;
    isDue_ = true;
    return true;
  }

  const Connection connection_;
  std::mutex mutex_;
  StatusPointer newest_;
  bool isOpen_ = false;
  bool isClosed_ = false;
  bool hasMissed_ = false;
  bool isDue_ = false;
};

DaemonXPCService::Self DaemonXPCService::make(Dependencies dependencies) {
  return Self(new DaemonXPCService(std::move(dependencies)));
}

DaemonXPCService::DaemonXPCService(Dependencies dependencies)
    : dependencies_(std::move(dependencies)), decodingBigRequests_(dependencies_.executor) {}

std::expected<void, std::string> DaemonXPCService::start(ipc::DaemonListening& listener) {
  return listener.start(weak_from_this());
}

// ---- connections

std::optional<ipc::ConnectionTerms> DaemonXPCService::shouldAcceptNewConnection(
    const Connection& connection) {
  const auto& requirement = dependencies_.requirement;
  if (requirement && !requirement->isValid()) return std::nullopt;
  {
    const std::lock_guard lock(mutex_);
    liveConnections_.insert(connection->identity());
  }
  return ipc::ConnectionTerms{requirement};
}

void DaemonXPCService::ended(ipc::ConnectionID connection) {
  std::map<ipc::ConnectionID, Subscription>::node_type subscription;
  {
    const std::lock_guard lock(mutex_);
    liveConnections_.erase(connection);
    subscription = subscriptions_.extract(connection);
  }
  if (subscription) {
    subscription.mapped().outlet->close();
    concurrency::spawn(dependencies_.executor,
                       removeObserver(dependencies_.authority, subscription.mapped().observer));
  }
  if (const auto& presence = dependencies_.presence) {
    concurrency::spawn(dependencies_.executor, presence->connectionEnded(connection));
  }
}

bool DaemonXPCService::isLive(ipc::ConnectionID connection) {
  const std::lock_guard lock(mutex_);
  return liveConnections_.contains(connection);
}

// ---- calls

void DaemonXPCService::received(Connection connection, ipc::DaemonCall call) {
  // Posted: spawned on one of the executor's own threads it would begin here, inside the
  // connection.
  boost::asio::post(dependencies_.executor,
                    [executor = dependencies_.executor, weak = weak_from_this(),
                     connection = std::move(connection), call = std::move(call)] {
                      concurrency::spawn(executor, serve(weak, connection, call));
                    });
}

Task<void> DaemonXPCService::serve(std::weak_ptr<DaemonXPCService> weak, Connection connection,
                                   ipc::DaemonCall call) {
  Self self = weak.lock();
  if (!self) co_return;
  if (call.operation == DaemonOperation::subscribeToStatusChanges) {
    co_await subscribe(std::move(self), std::move(connection), std::move(call.answer));
    co_return;
  }
  StatusResult result =
      co_await perform(self, std::move(connection), call.operation, std::move(call.request));
  DaemonReply answer = co_await reply(std::move(self), std::move(result));
  call.answer.settle(std::move(answer));
}

Task<CommitmentAuthority::StatusResult> DaemonXPCService::perform(Self self, Connection connection,
                                                                  DaemonOperation operation,
                                                                  SharedBytes request) {
  const Dependencies& services = self->dependencies_;
  switch (operation) {
    case DaemonOperation::status:
      co_return co_await services.authority->status();
    case DaemonOperation::activate:
      co_return co_await activate(std::move(self), std::move(request));
    case DaemonOperation::strengthen:
      co_return co_await strengthen(std::move(self), std::move(request));
    case DaemonOperation::extend:
      co_return co_await extend(std::move(self), std::move(request));
    case DaemonOperation::validateEnforcement:
      co_return co_await validate(std::move(self));
    case DaemonOperation::acknowledgeExpiry:
      co_return co_await services.authority->acknowledgeExpiry();
    case DaemonOperation::armFilterConfiguration:
      if (services.filterArming) co_await services.filterArming->reapply();
      co_return co_await services.authority->status();
    case DaemonOperation::announceUserInterface:
      co_return co_await announce(std::move(self), std::move(connection));
    case DaemonOperation::subscribeToStatusChanges:
      break;
  }
  core::stopProcess("an operation that nobody performs");
}

Task<CommitmentAuthority::StatusResult> DaemonXPCService::activate(Self self, SharedBytes request) {
  const auto& authority = self->dependencies_.authority;
  // Before anything is decoded: what the daemon may not do now, it does not look at.
  auto refusal = co_await authority->activationRefusal();
  if (refusal) {
    co_return std::unexpected(DaemonError::enforcementNotValidated{*refusal});
  }
  auto activation = co_await decoded<ipc::ActivationRequest>(self, std::move(request));
  if (!activation) co_return std::unexpected(DaemonError::malformedRequest{"ActivationRequest"});
  co_return co_await authority->activate(std::move(*activation));
}

Task<CommitmentAuthority::StatusResult> DaemonXPCService::strengthen(Self self,
                                                                     SharedBytes request) {
  auto addition = co_await decoded<ipc::ScopeAddition>(self, std::move(request));
  if (!addition) co_return std::unexpected(DaemonError::malformedRequest{"ScopeAddition"});
  co_return co_await self->dependencies_.authority->strengthen(std::move(*addition));
}

Task<CommitmentAuthority::StatusResult> DaemonXPCService::extend(Self self, SharedBytes request) {
  const auto extension = co_await decoded<ipc::ExtensionRequest>(self, std::move(request));
  if (!extension) co_return std::unexpected(DaemonError::malformedRequest{"ExtensionRequest"});
  const auto& authority = self->dependencies_.authority;
  const auto& runningTime = self->dependencies_.runningTime;
  if (!runningTime) co_return co_await authority->extend(extension->newEndTime);
  // The machine may fall asleep between the sample and the ruling, which waits for its turn. So the
  // turn looks once more, and what has run meanwhile is charged first.
  const auto isCharged = std::make_shared<bool>(true);
  const auto mayRule = [runningTime, isCharged] {
    *isCharged = runningTime->unchargedSeconds() <= unchargedSecondsMax;
    return *isCharged;
  };
  for (int attempt = 1; attempt < chargingAttemptsMax; ++attempt) {
    co_await runningTime->sampleNow();
    StatusResult ruling = co_await authority->extend(extension->newEndTime, mayRule);
    if (*isCharged) co_return ruling;
  }
  // A machine that is merely slow: a second or two may be charged to the extension.
  co_await runningTime->sampleNow();
  co_return co_await authority->extend(extension->newEndTime);
}

Task<CommitmentAuthority::StatusResult> DaemonXPCService::validate(Self self) {
  const auto& validator = self->dependencies_.validator;
  if (!validator) {
    co_return std::unexpected(
        DaemonError::internalFailure{"No enforcement validation is available on this daemon."});
  }
  (void)co_await validator->validate();  // recorded with the authority, whose status shows it
  co_return co_await self->dependencies_.authority->status();
}

Task<CommitmentAuthority::StatusResult> DaemonXPCService::announce(Self self,
                                                                   Connection connection) {
  if (!connection || !self->isLive(connection->identity())) {
    co_return std::unexpected(noCurrentConnection());
  }
  if (const auto& presence = self->dependencies_.presence) {
    co_await presence->announce(connection->identity());
    // It may have ended meanwhile, and been forgotten before it was announced.
    if (!self->isLive(connection->identity())) {
      co_await presence->connectionEnded(connection->identity());
    }
  }
  co_return co_await self->dependencies_.authority->status();
}

// ---- subscriptions

Task<void> DaemonXPCService::subscribe(Self self, Connection connection, ipc::CallAnswer answer) {
  if (!connection) {
    answer.settle(replyOf(noCurrentConnection()));
    co_return;
  }
  const auto outlet = std::make_shared<StatusOutlet>(connection);
  Task<bool> registering = registerOutlet(self, std::move(connection), outlet, std::move(answer));
  const bool isRegistered = co_await std::move(registering);
  if (isRegistered && outlet->open()) self->deliverSoon(outlet);
}

/// Registers `outlet` for the connection and answers. False: the connection has ended.
Task<bool> DaemonXPCService::registerOutlet(Self self, Connection connection,
                                            std::shared_ptr<StatusOutlet> outlet,
                                            ipc::CallAnswer answer) {
  // One after another, so that no other subscription of this connection comes in between.
  const concurrency::Turn::Holder turn = co_await self->subscribing_.take();
  // From here on the answer speaks for the earlier subscription: what that one pushed behind the
  // registration would be newer than the answer, and reach the client first.
  self->silence(connection->identity());
  const std::weak_ptr<DaemonXPCService> weak = self;
  CommitmentAuthority::Observer observer = [weak, outlet](StatusPointer status) {
    return observe(weak, outlet, std::move(status));
  };
  const auto& authority = self->dependencies_.authority;
  auto registered = co_await authority->subscribe(std::move(observer));
  Subscription subscription{registered.token, outlet};
  Task<bool> enrolling = enroll(self, connection->identity(), std::move(subscription),
                                std::move(registered.status), answer);
  const bool isEnrolled = co_await std::move(enrolling);
  if (isEnrolled) co_return true;
  outlet->close();
  co_await authority->unsubscribe(registered.token);
  answer.settle(replyOf(noCurrentConnection()));
  co_return false;
}

void DaemonXPCService::silence(ipc::ConnectionID connection) {
  const std::lock_guard lock(mutex_);
  const auto found = subscriptions_.find(connection);
  if (found != subscriptions_.end()) found->second.outlet->close();
}

/// Puts the subscription in the place of an earlier one and answers. False: the connection has
/// ended.
Task<bool> DaemonXPCService::enroll(Self self, ipc::ConnectionID connection,
                                    Subscription subscription, StatusPointer status,
                                    ipc::CallAnswer answer) {
  const concurrency::Turn::Holder turn = co_await self->encoding_.take();
  const std::shared_ptr<StatusOutlet> outlet = subscription.outlet;
  std::optional<Subscription> earlier;
  {
    const std::lock_guard lock(self->mutex_);
    if (!self->liveConnections_.contains(connection)) co_return false;
    const auto [place, isFirst] = self->subscriptions_.try_emplace(connection, subscription);
    if (!isFirst) earlier = std::exchange(place->second, std::move(subscription));
  }
  if (earlier) {
    // Others behind this connection may follow the earlier one. What it kept from them the answer,
    // which only the caller sees, has to tell them, too.
    if (earlier->outlet->hasMissed()) outlet->offerIfNothingNewer(status);
    concurrency::spawn(self->dependencies_.executor,
                       removeObserver(self->dependencies_.authority, earlier->observer));
  }
  answer.settle(self->encodedReply(std::move(status)));
  co_return true;
}

Task<void> DaemonXPCService::observe(std::weak_ptr<DaemonXPCService> weak,
                                     std::shared_ptr<StatusOutlet> outlet, StatusPointer status) {
  // Inside the authority's turn: takes the status and leaves.
  if (!outlet->offer(std::move(status))) co_return;
  if (const Self self = weak.lock()) self->deliverSoon(std::move(outlet));
}

void DaemonXPCService::deliverSoon(std::shared_ptr<StatusOutlet> outlet) {
  {
    const std::lock_guard lock(mutex_);
    due_.push_back(std::move(outlet));
    if (due_.size() > 1) return;
  }
  // Posted: spawned it would begin inside the authority's turn, and a status with a million names
  // be encoded there. All that becomes due until then goes together.
  const concurrency::Executor executor = dependencies_.executor;
  boost::asio::post(executor, [executor, self = shared_from_this()] {
    concurrency::spawn(executor, deliverDue(self));
  });
}

Task<void> DaemonXPCService::deliverDue(Self self) {
  const concurrency::Turn::Holder turn = co_await self->encoding_.take();
  std::vector<std::shared_ptr<StatusOutlet>> outlets;
  {
    const std::lock_guard lock(self->mutex_);
    outlets.swap(self->due_);
  }
  SharedBytes bytes;  // kept until the end: the next one is likely to need the same
  for (const auto& outlet : outlets) {
    // Taken here, in one turn with the push: an outlet that was silenced has nothing to give any
    // more, so a subscription that is replaced pushes nothing newer than the answer to the one that
    // replaces it, and nothing behind it.
    StatusPointer status = outlet->take();
    if (!status) continue;
    // One that does not encode is dropped.
    bytes = self->encoded(std::move(status));
    if (bytes) outlet->connection().push(bytes);
  }
}

Task<void> DaemonXPCService::removeObserver(std::shared_ptr<CommitmentAuthority> authority,
                                            core::UUID observer) {
  co_await authority->unsubscribe(observer);
}

// ---- coding

template <class Record>
Task<std::optional<Record>> DaemonXPCService::decoded(Self self, SharedBytes request) {
  if (!request || request->size() < bigRequestBytes) return decode<Record>(std::move(request));
  return self->decodingBigRequests_.run(decode<Record>(std::move(request)));
}

Task<DaemonReply> DaemonXPCService::reply(Self self, StatusResult result) {
  if (!result) co_return replyOf(result.error());
  auto status = std::make_shared<const ipc::DaemonStatus>(std::move(*result));
  const concurrency::Turn::Holder turn = co_await self->encoding_.take();
  co_return self->encodedReply(std::move(status));
}

DaemonReply DaemonXPCService::encodedReply(StatusPointer status) {
  if (SharedBytes bytes = encoded(std::move(status))) return DaemonReply::of(std::move(bytes));
  return replyOf(DaemonError::internalFailure{"Could not encode the daemon status."});
}

SharedBytes DaemonXPCService::encoded(StatusPointer status) {
  // Equal statuses are compared cheaply: a Scope's domains are shared, and identity decides first.
  const auto last = lastEncoded_.lock();
  if (last && (last->status == status || *last->status == *status)) {
    return {last, &last->bytes};
  }
  auto bytes = ipc::DaemonWireCoding::encode(*status);
  if (!bytes) return nullptr;
  const auto fresh =
      std::make_shared<const EncodedStatus>(EncodedStatus{std::move(status), std::move(*bytes)});
  lastEncoded_ = fresh;
  return {fresh, &fresh->bytes};
}

}  // namespace stillow::authority
