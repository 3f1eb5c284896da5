#pragma once

#include <expected>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "StillowAuthority/CommitmentAuthority.hpp"
#include "StillowAuthority/SupervisionRoles.hpp"
#include "StillowAuthority/UserInterfacePresence.hpp"
#include "StillowConcurrency/Strand.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowConcurrency/Turn.hpp"
#include "StillowCore/UUID.hpp"
#include "StillowIPC/CodeSigningRequirement.hpp"
#include "StillowIPC/DaemonConnection.hpp"
#include "StillowIPC/DaemonError.hpp"

namespace stillow::authority {

/// The daemon's only door: runs every incoming call against the authority and the enforcement
/// services, answers with the status or a `DaemonError`, and pushes every change to the connections
/// that subscribed.
///
/// Promises beyond that: a stale validation refuses an activation before its request is even read;
/// the answer to a subscription and the registration come from one turn of the authority, and no
/// push overtakes that answer; a connection has at most one subscription; what is registered after
/// a connection's end is undone; a status is encoded once for everybody it goes to.
class DaemonXPCService final : public ipc::DaemonListenerDelegate,
                               public std::enable_shared_from_this<DaemonXPCService> {
 public:
  struct Dependencies {
    concurrency::Executor executor;
    std::shared_ptr<CommitmentAuthority> authority;
    /// Of every peer; absent: anybody may connect. One that does not compile keeps everybody out.
    std::optional<ipc::CodeSigningRequirement> requirement;
    std::shared_ptr<EnforcementValidating> validator;      ///< may be null
    std::shared_ptr<UserInterfacePresence> presence;       ///< may be null
    std::shared_ptr<FilterArmingReapplying> filterArming;  ///< may be null
    /// Charges what has run before an extension is ruled on, or time asleep would be charged to the
    /// extended remainder. May be null.
    std::shared_ptr<RunningTimeSampling> runningTime;
  };

  [[nodiscard]] static std::shared_ptr<DaemonXPCService> make(Dependencies dependencies);
  DaemonXPCService(const DaemonXPCService&) = delete;
  DaemonXPCService& operator=(const DaemonXPCService&) = delete;

  /// Opens the door: `listener`, which the caller keeps, hands its connections here from now on.
  [[nodiscard]] std::expected<void, std::string> start(ipc::DaemonListening& listener);

  // DaemonListenerDelegate
  [[nodiscard]] std::optional<ipc::ConnectionTerms> shouldAcceptNewConnection(
      const std::shared_ptr<ipc::ServedConnection>& connection) override;
  void received(std::shared_ptr<ipc::ServedConnection> connection, ipc::DaemonCall call) override;
  void ended(ipc::ConnectionID connection) override;

 private:
  using Self = std::shared_ptr<DaemonXPCService>;
  using StatusPointer = CommitmentAuthority::StatusPointer;
  using StatusResult = CommitmentAuthority::StatusResult;
  using Connection = std::shared_ptr<ipc::ServedConnection>;
  class StatusOutlet;
  struct EncodedStatus;
  struct Subscription {
    core::UUID observer;
    std::shared_ptr<StatusOutlet> outlet;
  };

  explicit DaemonXPCService(Dependencies dependencies);

  static concurrency::Task<void> serve(std::weak_ptr<DaemonXPCService> weak, Connection connection,
                                       ipc::DaemonCall call);
  static concurrency::Task<StatusResult> perform(Self self, Connection connection,
                                                 ipc::DaemonOperation operation,
                                                 ipc::SharedBytes request);
  static concurrency::Task<StatusResult> activate(Self self, ipc::SharedBytes request);
  static concurrency::Task<StatusResult> strengthen(Self self, ipc::SharedBytes request);
  static concurrency::Task<StatusResult> extend(Self self, ipc::SharedBytes request);
  static concurrency::Task<StatusResult> validate(Self self);
  static concurrency::Task<StatusResult> announce(Self self, Connection connection);

  static concurrency::Task<void> subscribe(Self self, Connection connection,
                                           ipc::CallAnswer answer);
  static concurrency::Task<bool> registerOutlet(Self self, Connection connection,
                                                std::shared_ptr<StatusOutlet> outlet,
                                                ipc::CallAnswer answer);
  void silence(ipc::ConnectionID connection);
  static concurrency::Task<bool> enroll(Self self, ipc::ConnectionID connection,
                                        Subscription subscription, StatusPointer status,
                                        ipc::CallAnswer answer);
  static concurrency::Task<void> observe(std::weak_ptr<DaemonXPCService> weak,
                                         std::shared_ptr<StatusOutlet> outlet,
                                         StatusPointer status);
  void deliverSoon(std::shared_ptr<StatusOutlet> outlet);
  static concurrency::Task<void> deliverDue(Self self);
  static concurrency::Task<void> removeObserver(std::shared_ptr<CommitmentAuthority> authority,
                                                core::UUID observer);

  template <class Record>
  static concurrency::Task<std::optional<Record>> decoded(Self self, ipc::SharedBytes request);
  static concurrency::Task<ipc::DaemonReply> reply(Self self, StatusResult result);
  // In a turn of `encoding_` only.
  ipc::SharedBytes encoded(StatusPointer status);
  ipc::DaemonReply encodedReply(StatusPointer status);

  bool isLive(ipc::ConnectionID connection);

  const Dependencies dependencies_;

  /// Statuses are encoded, and pushed or answered with, one after another, so that each is encoded
  /// once and no push passes the answer that it belongs behind.
  concurrency::Turn encoding_;
  std::weak_ptr<const EncodedStatus> lastEncoded_;  ///< touched by the holder of the turn only

  /// Big requests are decoded one at a time: each takes many times its size while that lasts.
  const concurrency::Strand decodingBigRequests_;

  concurrency::Turn subscribing_;

  /// Guards what is below alone; never held across a call out.
  std::mutex mutex_;
  std::set<ipc::ConnectionID> liveConnections_;
  std::map<ipc::ConnectionID, Subscription> subscriptions_;  ///< of live connections only
  std::vector<std::shared_ptr<StatusOutlet>> due_;           ///< have a status to push
};

}  // namespace stillow::authority
