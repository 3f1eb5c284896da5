// Objective-C, for the adapters beside this file.
#pragma once

#import <Foundation/Foundation.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace stillow::platform {

/// Registrations with a notification center, undone when this is destroyed or when whoever was told
/// wants no more. Any thread.
class NotificationTokens {
 public:
  explicit NotificationTokens(NSNotificationCenter* _Nonnull center)
      : state_(std::make_shared<State>(center)) {}
  ~NotificationTokens() { state_->removeAll(); }
  NotificationTokens(const NotificationTokens&) = delete;
  NotificationTokens& operator=(const NotificationTokens&) = delete;

  /// Calls `told` on the thread of whoever posts. False ends the registration.
  void observe(NSNotificationName _Nonnull name, std::function<bool()> told) {
    const std::weak_ptr<State> weak = state_;
    const int number = state_->nextNumber();
    const id token = [state_->center addObserverForName:name
                                                 object:nil
                                                  queue:nil
                                             usingBlock:^(NSNotification*) {
                                               if (told()) return;
                                               if (const auto state = weak.lock())
                                                 state->remove(number);
                                             }];
    state_->add(number, token);
  }

 private:
  struct State {
    explicit State(NSNotificationCenter* _Nonnull posting) : center(posting) {}

    [[nodiscard]] int nextNumber() {
      const std::lock_guard lock(mutex);
      return ++lastNumber;
    }
    void add(int number, id _Nonnull token) {
      const std::lock_guard lock(mutex);
      tokens.emplace(number, token);
    }
    void remove(int number) {
      const std::lock_guard lock(mutex);
      if (const auto token = tokens.extract(number)) [center removeObserver:token.mapped()];
    }
    void removeAll() {
      const std::lock_guard lock(mutex);
      for (const auto& [number, token] : tokens) [center removeObserver:token];
      tokens.clear();
    }

    NSNotificationCenter* const _Nonnull center;
    std::mutex mutex;
    int lastNumber = 0;
    std::map<int, id> tokens;
  };

  const std::shared_ptr<State> state_;
};

}  // namespace stillow::platform
