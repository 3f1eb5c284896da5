#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "StillowConcurrency/OneShot.hpp"
#include "StillowConcurrency/Sleeper.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowCore/SumType.hpp"
#include "StillowIPC/CodeSigningRequirement.hpp"
#include "StillowIPC/CommitmentAuthorityClient.hpp"
#include "StillowIPC/DaemonCallDeadlines.hpp"
#include "StillowIPC/DaemonConnection.hpp"

namespace stillow::ipc {

/// Where to find the daemon.
struct Endpoint {
  /// A service known by name; `services` is how this platform reaches it.
  struct machService {
    std::string name;
    std::shared_ptr<DaemonConnecting> services;
    friend bool operator==(const machService&, const machService&) = default;
  };
  /// A listener that has no name.
  struct anonymous {
    std::shared_ptr<DaemonConnecting> listener;
    friend bool operator==(const anonymous&, const anonymous&) = default;
  };

  using Cases = std::variant<machService, anonymous>;
  Cases cases;

  template <core::CaseOf<Cases> Case>
  Endpoint(Case place) : cases(std::move(place)) {}
  friend bool operator==(const Endpoint&, const Endpoint&) = default;
};

/// The outcome of one call, which reply, connection and deadline race for: the first one counts.
using PendingReply = concurrency::OneShot<std::expected<SharedBytes, DaemonError>>;

/// The one way to talk to the daemon.
///
/// Opens a connection with the first call and, once it is lost, another with the next: there is no
/// retrying and no back-off. Every call ends by its deadline, exactly once. A stream's first status
/// is that of its own subscription, and what was pushed earlier is not seen after it.
///
/// The lock guards the connection and the subscribers alone and is never held across a call out.
class XPCCommitmentAuthorityClient final
    : public CommitmentAuthorityClient,
      public std::enable_shared_from_this<XPCCommitmentAuthorityClient> {
 public:
  struct Dependencies {
    /// Deadlines and subscriptions run here.
    concurrency::Executor executor;
    Endpoint endpoint;
    std::optional<CodeSigningRequirement> requirement;  ///< of the daemon; absent: anybody will do
    DaemonCallDeadlines deadlines = DaemonCallDeadlines::standard();
    std::shared_ptr<concurrency::Sleeper> wait;
  };

  /// Opens no connection.
  [[nodiscard]] static std::shared_ptr<XPCCommitmentAuthorityClient> make(
      Dependencies dependencies);
  ~XPCCommitmentAuthorityClient() override;

  concurrency::Task<Result> status() override;
  concurrency::Task<Result> activate(ActivationRequest request) override;
  concurrency::Task<Result> strengthen(ScopeAddition addition) override;
  concurrency::Task<Result> extend(ExtensionRequest request) override;
  concurrency::Task<Result> validateEnforcement() override;
  concurrency::Task<Result> acknowledgeExpiry() override;
  concurrency::Task<Result> armFilterConfiguration() override;
  concurrency::Task<Result> announceUserInterface() override;
  DaemonStatusStream statusChanges() override;
  void invalidate() override;

  /// Sends one request on the daemon's proxy, handing `reply` on.
  using Send = std::function<void(DaemonProxy& proxy, std::function<void(DaemonReply)> reply)>;
  /// One call: the reply's bytes, or why there are none within `deadline`. What the operations are
  /// made of; for calls that are no records of ours, such as a request passed through from a
  /// command line.
  [[nodiscard]] concurrency::Task<std::expected<SharedBytes, DaemonError>> call(
      std::chrono::nanoseconds deadline, Send send);

 private:
  using SubscriberID = std::uint64_t;
  struct Subscriber {
    enum class Phase : std::uint8_t {
      asking,    ///< the daemon has not answered: what is pushed is older than its answer will be
      answered,  ///< the answer is on its way to the stream; what is pushed waits behind it
      streaming,
    };
    concurrency::Channel<DaemonStatus> statuses{DaemonStatusStream::undeliveredMax};
    Phase phase = Phase::asking;
    std::deque<DaemonStatus> waiting;  ///< pushed while `answered`, the newest few
  };
  using Subscribers = std::map<SubscriberID, Subscriber>;

  explicit XPCCommitmentAuthorityClient(Dependencies dependencies);

  std::expected<std::shared_ptr<DaemonConnection>, DaemonError> connection();
  DaemonConnectionHandlers handlersFor(std::uint64_t serial);
  void lost(std::uint64_t serial);
  void fanOut(std::uint64_t serial, const SharedBytes& status);

  // Static, so that a call keeps the client for as long as it runs.
  using Self = std::shared_ptr<XPCCommitmentAuthorityClient>;
  static concurrency::Task<std::expected<SharedBytes, DaemonError>> callOn(
      Self self, std::chrono::nanoseconds deadline, Send send);
  static concurrency::Task<Result> perform(Self self, DaemonOperation operation,
                                           std::expected<std::string, core::EncodingError> request);
  static concurrency::Task<Result> perform(Self self, DaemonOperation operation,
                                           SharedBytes request = nullptr);

  static concurrency::Task<void> subscribe(std::weak_ptr<XPCCommitmentAuthorityClient> weak,
                                           SubscriberID id,
                                           concurrency::Channel<DaemonStatus> statuses);
  void noteAnswered(SubscriberID id);
  void beginStreaming(SubscriberID id, DaemonStatus first);
  void remove(SubscriberID id);

  const Dependencies dependencies_;

  std::mutex mutex_;
  std::shared_ptr<DaemonConnection> liveConnection_;
  std::uint64_t connectionSerial_ =
      0;  ///< of `liveConnection_`; tells a late handler from a live one
  Subscribers subscribers_;
  SubscriberID lastSubscriber_ = 0;
};

}  // namespace stillow::ipc
