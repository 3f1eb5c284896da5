#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include <sys/types.h>

namespace stillow::platform {

/// Counts connections and calls, and those of each user. Any thread.
///
/// What a user started goes on counting when its connection is gone: somebody who connects anew for
/// each handful of calls gets no further than somebody who does not.
class ConnectionLedger final : public std::enable_shared_from_this<ConnectionLedger> {
 public:
  struct Limits {
    std::size_t connectionsMax;
    std::size_t connectionsPerUserMax;
    std::size_t callsPerUserMax;
  };

  /// One thing that counts, for as long as it lives.
  class Entry {
   public:
    Entry(std::shared_ptr<ConnectionLedger> ledger, uid_t user, bool isCall)
        : ledger_(std::move(ledger)), user_(user), isCall_(isCall) {}
    ~Entry() { ledger_->erase(user_, isCall_); }
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

   private:
    const std::shared_ptr<ConnectionLedger> ledger_;
    const uid_t user_;
    const bool isCall_;
  };

  explicit ConnectionLedger(Limits limits) : limits_(limits) {}

  /// Null: there are too many already.
  [[nodiscard]] std::shared_ptr<Entry> addConnection(uid_t user);
  [[nodiscard]] std::shared_ptr<Entry> addCall(uid_t user);

  [[nodiscard]] std::size_t connections() const;
  [[nodiscard]] std::size_t calls() const;

 private:
  struct User {
    std::size_t connections = 0;
    std::size_t calls = 0;
  };
  void erase(uid_t user, bool isCall);

  const Limits limits_;
  mutable std::mutex mutex_;
  std::size_t connections_ = 0;
  std::size_t calls_ = 0;
  std::map<uid_t, User> users_;  ///< those that something counts for
};

}  // namespace stillow::platform
