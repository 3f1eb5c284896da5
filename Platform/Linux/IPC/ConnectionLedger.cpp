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
  return std::make_shared<Entry>(shared_from_this(), user, false, 0);
}

std::expected<std::shared_ptr<ConnectionLedger::Entry>, ConnectionLedger::CallLimit>
ConnectionLedger::addCall(uid_t user, std::size_t requestBytes) {
  {
    const std::lock_guard lock(mutex_);
    const auto found = users_.find(user);
    const User before = found == users_.end() ? User{} : found->second;
    if (before.calls == limits_.callsPerUserMax) return std::unexpected(CallLimit::callsOfUser);
    if (calls_ == limits_.callsMax) return std::unexpected(CallLimit::calls);
    if (requestBytes > limits_.requestBytesPerUserMax - before.requestBytes) {
      return std::unexpected(CallLimit::requestBytesOfUser);
    }
    if (requestBytes > limits_.requestBytesMax - requestBytes_) {
      return std::unexpected(CallLimit::requestBytes);
    }
    ++calls_;
    requestBytes_ += requestBytes;
    User& ofUser = users_[user];
    ++ofUser.calls;
    ofUser.requestBytes += requestBytes;
  }
  return std::make_shared<Entry>(shared_from_this(), user, true, requestBytes);
}

void ConnectionLedger::erase(uid_t user, bool isCall, std::size_t requestBytes) {
  const std::lock_guard lock(mutex_);
  const auto found = users_.find(user);
  --(isCall ? calls_ : connections_);
  --(isCall ? found->second.calls : found->second.connections);
  requestBytes_ -= requestBytes;
  found->second.requestBytes -= requestBytes;
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
