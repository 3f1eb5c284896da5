#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <utility>

#include "StillowIPC/DaemonWireCoding.hpp"

namespace stillow::platform {

/// One bound for the bytes that all connections keep in memory together: room reserved for lines
/// that are being read, and text that waits to be written. Any thread.
///
/// Reservations are few and bounded by whoever makes them. Text is charged as it comes, because an
/// answer cannot wait; when that goes over the bound, the connection that keeps the most waiting is
/// evicted, which is one that does not read. Bytes that several connections share count once.
class ByteBudget final : public std::enable_shared_from_this<ByteBudget> {
 public:
  class Account;
  class Charge;
  class Reservation;

  [[nodiscard]] static std::shared_ptr<ByteBudget> make(std::size_t bytesMax);

  /// The account of one connection. `evict` is called at most once, on the thread whose charge went
  /// over the bound and without a lock; it has to let go of the connection's text soon.
  [[nodiscard]] std::shared_ptr<Account> open(std::function<void()> evict);

  /// Takes `bytes` out of what there is for text, until it is destroyed.
  [[nodiscard]] std::shared_ptr<Reservation> reserve(std::size_t bytes);

  /// Of accounts that were not evicted, and of reservations.
  [[nodiscard]] std::size_t bytesUsed() const;

 private:
  struct Shared {
    std::size_t bytes = 0;
    std::size_t holders = 0;
  };

  explicit ByteBudget(std::size_t bytesMax) : bytesMax_(bytesMax) {}
  void charge(Account& account, std::size_t own, const ipc::SharedBytes& shared);
  void release(Account& account, std::size_t own, const std::string* shared);
  void dropShared(const std::string* shared);
  void close(Account& account);

  const std::size_t bytesMax_;
  mutable std::mutex mutex_;
  std::size_t bytesUsed_ = 0;
  std::map<const std::string*, Shared> shared_;
  std::set<Account*> accounts_;  ///< those that were not evicted
};

/// What one connection keeps waiting.
class ByteBudget::Account {
 public:
  Account(std::shared_ptr<ByteBudget> budget, std::function<void()> evict)
      : budget_(std::move(budget)), evict_(std::move(evict)) {}
  ~Account() { budget_->close(*this); }
  Account(const Account&) = delete;
  Account& operator=(const Account&) = delete;

 private:
  friend class ByteBudget;
  friend class Charge;
  const std::shared_ptr<ByteBudget> budget_;
  // The rest belongs to the budget's mutex.
  std::function<void()> evict_;
  std::size_t bytes_ = 0;  ///< all that this connection keeps, shared or not
  std::size_t own_ = 0;
  std::map<const std::string*, std::size_t> shared_;  ///< how often it holds each
};

/// Text that waits. Charged until it is destroyed; keeps the shared part alive as long.
class ByteBudget::Charge {
 public:
  Charge() = default;
  /// `own` bytes of this connection alone and `shared`, which may be null.
  Charge(std::shared_ptr<Account> account, std::size_t own, ipc::SharedBytes shared)
      : account_(std::move(account)), own_(own), shared_(std::move(shared)) {
    account_->budget_->charge(*account_, own_, shared_);
  }
  Charge(Charge&& other) noexcept = default;
  Charge& operator=(Charge&& other) noexcept {
    std::swap(account_, other.account_);
    std::swap(own_, other.own_);
    std::swap(shared_, other.shared_);
    return *this;
  }
  ~Charge() {
    if (account_) account_->budget_->release(*account_, own_, shared_.get());
  }

 private:
  std::shared_ptr<Account> account_;
  std::size_t own_ = 0;
  ipc::SharedBytes shared_;
};

class ByteBudget::Reservation {
 public:
  Reservation(std::shared_ptr<ByteBudget> budget, std::size_t bytes)
      : budget_(std::move(budget)), bytes_(bytes) {}
  ~Reservation();
  Reservation(const Reservation&) = delete;
  Reservation& operator=(const Reservation&) = delete;

 private:
  const std::shared_ptr<ByteBudget> budget_;
  const std::size_t bytes_;
};

}  // namespace stillow::platform
