#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include <sys/types.h>

#include "StillowConcurrency/Cancellation.hpp"
#include "StillowConcurrency/OneShot.hpp"
#include "StillowConcurrency/Task.hpp"

namespace stillow::platform {

/// Lets in so many at a time, and only so many of one user, so that what one user does keeps no
/// other user waiting for longer than one stay. Who waits longest goes first among those who may.
/// Any thread.
class FairGate {
  struct State;

 public:
  /// Being inside; over when the last owner lets go of it.
  class Pass {
   public:
    Pass(std::shared_ptr<State> state, uid_t user) : state_(std::move(state)), user_(user) {}
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;
    ~Pass();

   private:
    std::shared_ptr<State> state_;
    uid_t user_;
  };

  FairGate(std::size_t most, std::size_t mostPerUser);

  /// Waits for a place. Null if the place is given up before there is one: then nobody stands in
  /// the queue any more.
  [[nodiscard]] concurrency::Task<std::shared_ptr<Pass>> enter(
      uid_t user, concurrency::Cancellation givenUp) const {
    return enterThrough(state_, user, std::move(givenUp));
  }
  /// A place, or null if there is none at the moment.
  [[nodiscard]] std::shared_ptr<Pass> tryEnter(uid_t user) const;
  /// Those who wait for a place.
  [[nodiscard]] std::size_t waiting() const;

 private:
  using Arrival = concurrency::OneShot<std::shared_ptr<Pass>>;
  /// Those of one user, who have numbers in the order in which they came.
  using Queue = std::map<std::uint64_t, Arrival>;
  struct Admitted {
    uid_t user;
    Arrival arrival;
  };
  struct State {
    std::mutex mutex;
    std::size_t most = 0;
    std::size_t mostPerUser = 0;
    std::size_t inside = 0;
    std::map<uid_t, std::size_t> insideOfUser;
    std::uint64_t lastNumber = 0;
    /// Of users for whom somebody waits. Thousands may wait, and all of them may give up at once,
    /// so nothing looks at each of them.
    std::map<uid_t, Queue> waiting;

    bool admits(uid_t user) const;
    void admit(uid_t user);
    std::optional<Admitted> admitNext();
    void giveUp(uid_t user, std::uint64_t number);
  };

  static concurrency::Task<std::shared_ptr<Pass>> enterThrough(std::shared_ptr<State> state,
                                                               uid_t user,
                                                               concurrency::Cancellation givenUp);
  static void leave(const std::shared_ptr<State>& state, uid_t user);

  std::shared_ptr<State> state_;
};

}  // namespace stillow::platform
