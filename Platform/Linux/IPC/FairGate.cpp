#include "PlatformLinuxIPC/FairGate.hpp"

#include <vector>

namespace stillow::platform {

using concurrency::Task;

FairGate::FairGate(std::size_t most, std::size_t mostPerUser) : state_(std::make_shared<State>()) {
  state_->most = most;
  state_->mostPerUser = mostPerUser;
}

bool FairGate::State::admits(uid_t user) const {
  const auto found = insideOfUser.find(user);
  return inside < most && (found == insideOfUser.end() || found->second < mostPerUser);
}

void FairGate::State::admit(uid_t user) {
  ++inside;
  ++insideOfUser[user];
}

std::optional<FairGate::Admitted> FairGate::State::admitNext() {
  auto next = waiting.end();
  for (auto queue = waiting.begin(); queue != waiting.end(); ++queue) {
    if (!admits(queue->first)) continue;
    if (next == waiting.end() || queue->second.begin()->first < next->second.begin()->first) {
      next = queue;
    }
  }
  if (next == waiting.end()) return std::nullopt;
  const auto first = next->second.begin();
  Admitted admitted{next->first, first->second};
  admit(admitted.user);
  giveUp(admitted.user, first->first);
  return admitted;
}

void FairGate::State::giveUp(uid_t user, std::uint64_t number) {
  const auto queue = waiting.find(user);
  if (queue == waiting.end()) return;
  queue->second.erase(number);
  if (queue->second.empty()) waiting.erase(queue);
}

Task<std::shared_ptr<FairGate::Pass>> FairGate::enterThrough(std::shared_ptr<State> state,
                                                             uid_t user,
                                                             concurrency::Cancellation givenUp) {
  Arrival arrival;
  std::uint64_t number = 0;
  {
    const std::lock_guard lock(state->mutex);
    // Whoever may go in now passes only those who wait for others of their own user to leave.
    if (state->admits(user)) {
      state->admit(user);
      arrival.settle(std::make_shared<Pass>(state, user));
    } else {
      number = ++state->lastNumber;
      state->waiting[user].emplace(number, arrival);
    }
  }
  const auto registration = givenUp.onCancel([state, user, number, arrival] {
    // A pass that is on its way is given back by whoever sends it.
    if (!arrival.settle(nullptr)) return;
    const std::lock_guard lock(state->mutex);
    state->giveUp(user, number);
  });
  auto pass = co_await arrival.wait();
  co_return pass;
}

void FairGate::leave(const std::shared_ptr<State>& state, uid_t user) {
  std::vector<Admitted> admitted;
  {
    const std::lock_guard lock(state->mutex);
    --state->inside;
    const auto ofUser = state->insideOfUser.find(user);
    if (--ofUser->second == 0) state->insideOfUser.erase(ofUser);
    while (auto next = state->admitNext()) admitted.push_back(std::move(*next));
  }
  // A pass that nobody waits for any more is given back here, which calls this again.
  for (const auto& next : admitted) next.arrival.settle(std::make_shared<Pass>(state, next.user));
}

std::shared_ptr<FairGate::Pass> FairGate::tryEnter(uid_t user) const {
  {
    const std::lock_guard lock(state_->mutex);
    if (!state_->admits(user)) return nullptr;
    state_->admit(user);
  }
  return std::make_shared<Pass>(state_, user);
}

std::size_t FairGate::waiting() const {
  const std::lock_guard lock(state_->mutex);
  std::size_t count = 0;
  for (const auto& [user, queue] : state_->waiting) count += queue.size();
  return count;
}

FairGate::Pass::~Pass() { leave(state_, user_); }

}  // namespace stillow::platform
