#include "StillowAuthority/UserInterfacePresence.hpp"

#include <utility>

namespace stillow::authority {

using concurrency::Cancellation;
using concurrency::SleepOutcome;
using concurrency::Task;

std::shared_ptr<UserInterfacePresence> UserInterfacePresence::make(
    const concurrency::Executor& executor,
    std::shared_ptr<UserInterfacePresenceReporting> reporting,
    std::shared_ptr<concurrency::Sleeper> sleeper, std::chrono::nanoseconds grace) {
  return Self(new UserInterfacePresence(executor, std::move(reporting), std::move(sleeper), grace));
}

UserInterfacePresence::UserInterfacePresence(
    const concurrency::Executor& executor,
    std::shared_ptr<UserInterfacePresenceReporting> reporting,
    std::shared_ptr<concurrency::Sleeper> sleeper, std::chrono::nanoseconds grace)
    : serial_(executor),
      reporting_(std::move(reporting)),
      sleeper_(std::move(sleeper)),
      grace_(grace) {}

Task<void> UserInterfacePresence::announce(ipc::ConnectionID connection) {
  return serial_.run(insert(shared_from_this(), connection));
}

Task<void> UserInterfacePresence::connectionEnded(ipc::ConnectionID connection) {
  return serial_.run(remove(shared_from_this(), connection));
}

Task<void> UserInterfacePresence::insert(Self self, ipc::ConnectionID connection) {
  self->cancelSettling();
  self->announcedConnections_.insert(connection);
  if (std::exchange(self->isRunning_, true)) co_return;
  co_await self->reporting_->setUserInterfaceRunning(true);
}

Task<void> UserInterfacePresence::remove(Self self, ipc::ConnectionID connection) {
  if (self->announcedConnections_.erase(connection) == 0) co_return;
  if (!self->announcedConnections_.empty()) co_return;
  self->cancelSettling();
  self->settling_.emplace();
  concurrency::spawn(self->serial_.executor(), settle(self, *self->settling_));
}

Task<void> UserInterfacePresence::settle(Self self, Cancellation cancellation) {
  const SleepOutcome outcome = co_await self->sleeper_->sleep(self->grace_, cancellation);
  // An announcement may have come between the end of the sleep and this turn; if its connection has
  // ended again already, the grace began anew with that.
  if (outcome == SleepOutcome::cancelled || cancellation.isCancelled()) co_return;
  if (!self->announcedConnections_.empty() || !self->isRunning_) co_return;
  self->settling_.reset();
  self->isRunning_ = false;
  co_await self->reporting_->setUserInterfaceRunning(false);
}

void UserInterfacePresence::cancelSettling() {
  const auto settling = std::exchange(settling_, std::nullopt);
  if (settling) settling->cancel();
}

}  // namespace stillow::authority
