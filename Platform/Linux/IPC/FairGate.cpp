#include "PlatformLinuxIPC/FairGate.hpp"

#include <algorithm>
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
      state->waiting.push_back({number, user, arrival});
    }
  }
  const auto registration = givenUp.onCancel([state, number, arrival] {
    // A pass that is on its way is given back by whoever sends it.
    if (!arrival.settle(nullptr)) return;
    const std::lock_guard lock(state->mutex);
    std::erase_if(state->waiting, [&](const Waiting& waiting) { return waiting.number == number; });
  });
  auto pass = co_await arrival.wait();
  co_return pass;
}

void FairGate::leave(const std::shared_ptr<State>& state, uid_t user) {
  std::vector<Waiting> admitted;
  {
    const std::lock_guard lock(state->mutex);
    --state->inside;
    const auto ofUser = state->insideOfUser.find(user);
    if (--ofUser->second == 0) state->insideOfUser.erase(ofUser);
    for (;;) {
      const auto next = std::ranges::find_if(
          state->waiting, [&](const Waiting& waiting) { return state->admits(waiting.user); });
      if (next == state->waiting.end()) break;
      state->admit(next->user);
      admitted.push_back(std::move(*next));
      state->waiting.erase(next);
    }
  }
  // A pass that nobody waits for any more is given back here, which calls this again.
  for (const auto& next : admitted) next.arrival.settle(std::make_shared<Pass>(state, next.user));
}

std::size_t FairGate::waiting() const {
  const std::lock_guard lock(state_->mutex);
  return state_->waiting.size();
}

FairGate::Pass::~Pass() { leave(state_, user_); }

}  // namespace stillow::platform
