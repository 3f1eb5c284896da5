#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include <sys/types.h>

namespace stillow::platform {

/// Counts connections, calls and the bytes of their requests, and those of each user. Any thread.
///
/// What a user started goes on counting when its connection is gone: somebody who connects anew for
/// each handful of calls gets no further than somebody who does not.
class ConnectionLedger final : public std::enable_shared_from_this<ConnectionLedger> {
 public:
  struct Limits {
    std::size_t connectionsMax;
    std::size_t connectionsPerUserMax;
    std::size_t callsPerUserMax;
    std::size_t callsMax;
    std::size_t requestBytesPerUserMax;
    std::size_t requestBytesMax;
  };
  enum class CallLimit : std::uint8_t { callsOfUser, calls, requestBytesOfUser, requestBytes };

  /// One thing that counts, for as long as it lives.
  class Entry {
   public:
    Entry(std::shared_ptr<ConnectionLedger> ledger, uid_t user, bool isCall,
          std::size_t requestBytes)
        : ledger_(std::move(ledger)), user_(user), isCall_(isCall), requestBytes_(requestBytes) {}
    ~Entry() { ledger_->erase(user_, isCall_, requestBytes_); }
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

   private:
    const std::shared_ptr<ConnectionLedger> ledger_;
    const uid_t user_;
    const bool isCall_;
    const std::size_t requestBytes_;
  };

  explicit ConnectionLedger(Limits limits) : limits_(limits) {}

  /// Null: there are too many already.
  [[nodiscard]] std::shared_ptr<Entry> addConnection(uid_t user);
  /// A call whose request takes so many bytes. The error is the limit that it is over.
  [[nodiscard]] std::expected<std::shared_ptr<Entry>, CallLimit> addCall(uid_t user,
                                                                         std::size_t requestBytes);

  [[nodiscard]] std::size_t connections() const;
  [[nodiscard]] std::size_t calls() const;

 private:
  struct User {
    std::size_t connections = 0;
    std::size_t calls = 0;
    std::size_t requestBytes = 0;
  };
  void erase(uid_t user, bool isCall, std::size_t requestBytes);

  const Limits limits_;
  mutable std::mutex mutex_;
  std::size_t connections_ = 0;
  std::size_t calls_ = 0;
  std::size_t requestBytes_ = 0;
  std::map<uid_t, User> users_;  ///< those that something counts for
};

}  // namespace stillow::platform
