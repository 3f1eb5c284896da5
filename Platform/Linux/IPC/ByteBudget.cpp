#include "PlatformLinuxIPC/ByteBudget.hpp"

#include <algorithm>
#include <string>
#include <vector>

namespace stillow::platform {

std::shared_ptr<ByteBudget> ByteBudget::make(std::size_t bytesMax) {
  return std::shared_ptr<ByteBudget>(new ByteBudget(bytesMax));
}

std::shared_ptr<ByteBudget::Account> ByteBudget::open(std::function<void()> evict) {
  auto account = std::make_shared<Account>(shared_from_this(), std::move(evict));
  const std::lock_guard lock(mutex_);
  accounts_.insert(account.get());
  return account;
}

std::shared_ptr<ByteBudget::Reservation> ByteBudget::reserve(std::size_t bytes) {
  {
    const std::lock_guard lock(mutex_);
    bytesUsed_ += bytes;
  }
  return std::make_shared<Reservation>(shared_from_this(), bytes);
}

ByteBudget::Reservation::~Reservation() {
  const std::lock_guard lock(budget_->mutex_);
  budget_->bytesUsed_ -= bytes_;
}

std::size_t ByteBudget::bytesUsed() const {
  const std::lock_guard lock(mutex_);
  return bytesUsed_;
}

void ByteBudget::charge(Account& account, std::size_t own, const ipc::SharedBytes& shared) {
  std::vector<std::function<void()>> evictions;
  {
    const std::lock_guard lock(mutex_);
    if (!accounts_.contains(&account)) return;
    account.own_ += own;
    account.bytes_ += own;
    bytesUsed_ += own;
    if (shared) {
      account.bytes_ += shared->size();
      if (++account.shared_[shared.get()] == 1 && ++shared_[shared.get()].holders == 1) {
        shared_[shared.get()].bytes = shared->size();
        bytesUsed_ += shared->size();
      }
    }
    while (bytesUsed_ > bytesMax_ && !accounts_.empty()) {
      Account* const greediest = *std::ranges::max_element(accounts_, {}, &Account::bytes_);
      if (greediest->bytes_ == 0) break;  // reservations alone: they end by themselves
      accounts_.erase(greediest);
      bytesUsed_ -= greediest->own_;
      for (const auto& [bytes, count] : greediest->shared_) dropShared(bytes);
      evictions.push_back(std::exchange(greediest->evict_, nullptr));
    }
  }
  for (const auto& evict : evictions) evict();
}

void ByteBudget::release(Account& account, std::size_t own, const std::string* shared) {
  const std::lock_guard lock(mutex_);
  if (!accounts_.contains(&account)) return;
  account.own_ -= own;
  account.bytes_ -= own;
  bytesUsed_ -= own;
  if (shared == nullptr) return;
  account.bytes_ -= shared->size();
  const auto held = account.shared_.find(shared);
  if (--held->second > 0) return;
  account.shared_.erase(held);
  dropShared(shared);
}

void ByteBudget::dropShared(const std::string* shared) {
  const auto found = shared_.find(shared);
  if (--found->second.holders > 0) return;
  bytesUsed_ -= found->second.bytes;
  shared_.erase(found);
}

void ByteBudget::close(Account& account) {
  const std::lock_guard lock(mutex_);
  accounts_.erase(&account);
}

}  // namespace stillow::platform
