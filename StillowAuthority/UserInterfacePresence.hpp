#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <set>

#include "StillowAuthority/SupervisionRoles.hpp"
#include "StillowConcurrency/Cancellation.hpp"
#include "StillowConcurrency/Sleeper.hpp"
#include "StillowConcurrency/Strand.hpp"
#include "StillowConcurrency/Task.hpp"
#include "StillowIPC/DaemonConnection.hpp"

namespace stillow::authority {

/// Knows which connections are user interfaces, and says when the first one comes and when the last
/// one has been gone for a while. The filter stays armed as long, so that a validation finds it
/// ready; the grace keeps it from being taken down and put up again by an application that merely
/// reconnects.
///
/// A serialised object: its operations run one at a time, on a strand of its own.
class UserInterfacePresence final : public std::enable_shared_from_this<UserInterfacePresence> {
 public:
  /// What the daemon uses.
  static constexpr std::chrono::nanoseconds defaultGrace = std::chrono::seconds(5);

  /// `sleeper` counts time asleep: a user interface is gone after a night, too.
  [[nodiscard]] static std::shared_ptr<UserInterfacePresence> make(
      const concurrency::Executor& executor,
      std::shared_ptr<UserInterfacePresenceReporting> reporting,
      std::shared_ptr<concurrency::Sleeper> sleeper, std::chrono::nanoseconds grace = defaultGrace);
  UserInterfacePresence(const UserInterfacePresence&) = delete;
  UserInterfacePresence& operator=(const UserInterfacePresence&) = delete;

  /// `connection` is a user interface until it ends. Harmless twice.
  [[nodiscard]] concurrency::Task<void> announce(ipc::ConnectionID connection);
  /// Harmless for a connection that never announced itself.
  [[nodiscard]] concurrency::Task<void> connectionEnded(ipc::ConnectionID connection);

 private:
  using Self = std::shared_ptr<UserInterfacePresence>;

  UserInterfacePresence(const concurrency::Executor& executor,
                        std::shared_ptr<UserInterfacePresenceReporting> reporting,
                        std::shared_ptr<concurrency::Sleeper> sleeper,
                        std::chrono::nanoseconds grace);

  static concurrency::Task<void> insert(Self self, ipc::ConnectionID connection);
  static concurrency::Task<void> remove(Self self, ipc::ConnectionID connection);
  static concurrency::Task<void> settle(Self self, concurrency::Cancellation cancellation);
  void cancelSettling();

  const concurrency::Strand serial_;
  const std::shared_ptr<UserInterfacePresenceReporting> reporting_;
  const std::shared_ptr<concurrency::Sleeper> sleeper_;
  const std::chrono::nanoseconds grace_;

  std::set<ipc::ConnectionID> announcedConnections_;
  std::optional<concurrency::Cancellation> settling_;  ///< of the wait for the grace to pass
  bool isRunning_ = false;                             ///< as last reported
};

}  // namespace stillow::authority
