#include "PlatformLinuxIPC/ConnectionLedger.hpp"

namespace stillow::platform {

std::shared_ptr<ConnectionLedger::Entry> ConnectionLedger::addConnection(uid_t user) {
  {
    const std::lock_guard lock(mutex_);
    const auto found = users_.find(user);
    const std::size_t ofUser = found == users_.end() ? 0 : found->second.connections;
    if (connections_ == limits_.connectionsMax || ofUser == limits_.connectionsPerUserMax) {
      return nullptr;
    }
    ++connections_;
    ++users_[user].connections;
  }
  return std::make_shared<Entry>(shared_from_this(), user, false);
}

std::shared_ptr<ConnectionLedger::Entry> ConnectionLedger::addCall(uid_t user) {
  {
    const std::lock_guard lock(mutex_);
    User& ofUser = users_[user];
    if (ofUser.calls == limits_.callsPerUserMax) return nullptr;
    ++calls_;
    ++ofUser.calls;
  }
  return std::make_shared<Entry>(shared_from_this(), user, true);
}

void ConnectionLedger::erase(uid_t user, bool isCall) {
  const std::lock_guard lock(mutex_);
  const auto found = users_.find(user);
  --(isCall ? calls_ : connections_);
  --(isCall ? found->second.calls : found->second.connections);
  if (found->second.connections == 0 && found->second.calls == 0) users_.erase(found);
}

std::size_t ConnectionLedger::connections() const {
  const std::lock_guard lock(mutex_);
  return connections_;
}

std::size_t ConnectionLedger::calls() const {
  const std::lock_guard lock(mutex_);
  return calls_;
}

}  // namespace stillow::platform
