#include "PlatformLinuxDaemon/SystemFilterPathObserver.hpp"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/strand.hpp>
#include <boost/system/error_code.hpp>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include "PlatformLinuxDaemon/NetlinkReading.hpp"
#include "StillowCore/FileDescriptor.hpp"

namespace stillow::platform {

namespace {

namespace asio = boost::asio;
using authority::FilterPathObservation;
using concurrency::Channel;
using concurrency::Task;
using Descriptor = asio::posix::stream_descriptor;

std::string lastErrorText() { return std::generic_category().message(errno); }

/// Whether a notification says that something was taken away. Only that can have been ours; and
/// what is added is usually what we add ourselves.
bool isDeletion(std::uint16_t type) {
  if ((type >> 8) != NFNL_SUBSYS_NFTABLES) return false;
  switch (type & 0xFF) {
    case NFT_MSG_DELTABLE:
    case NFT_MSG_DELCHAIN:
    case NFT_MSG_DELRULE:
      return true;
    default:
      return false;
  }
}

constexpr std::array ruleGroups{static_cast<int>(NFNLGRP_NFTABLES)};

/// Empties the socket; true if anything was deleted, or if notifications were lost.
bool takeDeletions(int socket) {
  alignas(nlmsghdr) std::array<char, 65'536> buffer;
  bool isConcerned = false;
  while (true) {
    const ssize_t length = ::recv(socket, buffer.data(), buffer.size(), 0);
    if (length < 0 && errno == EINTR) continue;
    if (length < 0 && errno == ENOBUFS) {
      isConcerned = true;
      continue;
    }
    if (length <= 0) return isConcerned;
    const std::string_view bytes(buffer.data(), static_cast<std::size_t>(length));
    forEachNetlinkMessage(bytes, [&isConcerned](const NetlinkMessage& message) {
      isConcerned = isConcerned || isDeletion(message.type);
    });
  }
}

core::FileDescriptor openings(const std::string& directory) {
  core::FileDescriptor descriptor(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!descriptor) return {};
  if (::inotify_add_watch(descriptor.get(), directory.c_str(), IN_OPEN | IN_ONLYDIR) < 0) return {};
  return descriptor;
}

/// Empties the descriptor; true if `name` was opened, or if events were lost.
bool takeOpenings(int descriptor, std::string_view name) {
  alignas(inotify_event) std::array<char, 4096> buffer;
  bool isConcerned = false;
  while (true) {
    const ssize_t length = ::read(descriptor, buffer.data(), buffer.size());
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) return isConcerned;
    const char* at = buffer.data();
    const char* const end = at + length;
    while (at < end) {
      inotify_event event{};
      std::memcpy(&event, at, sizeof event);
      // The kernel pads the name with zeros up to `len`.
      const char* const text = at + sizeof event;
      const std::string_view opened(text, ::strnlen(text, event.len));
      if ((event.mask & IN_Q_OVERFLOW) != 0 || opened == name) isConcerned = true;
      at = text + event.len;
    }
  }
}

}  // namespace

struct SystemFilterPathObserver::State {
  using WatchStrand = asio::strand<concurrency::Executor>;

  State(const concurrency::Executor& executor, std::string name)
      : strand(asio::make_strand(executor)),
        directiveName(std::move(name)),
        rules(strand),
        directory(strand) {}

  static void assign(Descriptor& to, core::FileDescriptor from) {
    if (!from) return;
    boost::system::error_code error;
    (void)to.assign(from.get(), error);
    if (!error) (void)from.release();
  }

  void count(std::uint64_t FilterPathObservation::* what) {
    // Given under the lock, which no reader can hold or wait for: an older count must not overtake
    // a newer one.
    const std::lock_guard lock(mutex);
    ++(now.*what);
    std::erase_if(channels, [this](const auto& channel) { return !channel.give(now); });
  }

  static Task<void> followRules(std::shared_ptr<State> self) {
    while (true) {
      const bool hasEvent = co_await isReadable(self->rules);
      if (!hasEvent) co_return;
      if (takeDeletions(self->rules.native_handle())) {
        self->count(&FilterPathObservation::configurationChanges);
      }
    }
  }

  static Task<void> followDirective(std::shared_ptr<State> self) {
    while (true) {
      const bool hasEvent = co_await isReadable(self->directory);
      if (!hasEvent) co_return;
      const bool isOpened = takeOpenings(self->directory.native_handle(), self->directiveName);
      const auto watch = self->processWatch.lock();
      // The filter that is known to run opens it too, whenever it has changed.
      if (isOpened && watch && !watch->isFollowing()) {
        self->count(&FilterPathObservation::filterBeginnings);
      }
    }
  }

  /// False once the descriptor is closed, or cannot be waited for.
  static Task<bool> isReadable(Descriptor& descriptor) {
    if (!descriptor.is_open()) co_return false;
    boost::system::error_code error;
    co_await descriptor.async_wait(Descriptor::wait_read,
                                   asio::redirect_error(asio::use_awaitable, error));
    co_return !error && descriptor.is_open();
  }

  void close() {
    boost::system::error_code ignored;  // closed is closed
    (void)rules.close(ignored);
    (void)directory.close(ignored);
  }

  WatchStrand strand;
  const std::string directiveName;
  std::weak_ptr<FilterProcessWatch> processWatch;
  Descriptor rules;
  Descriptor directory;

  std::mutex mutex;
  FilterPathObservation now;                             // guarded by mutex
  std::vector<Channel<FilterPathObservation>> channels;  // guarded by mutex
};

SystemFilterPathObserver::SystemFilterPathObserver(const concurrency::Executor& executor,
                                                   const std::string& directivePath) {
  const auto slash = directivePath.rfind('/');
  state_ = std::make_shared<State>(executor, directivePath.substr(slash + 1));
  processWatch_ = std::make_shared<FilterProcessWatch>(executor, [weak = std::weak_ptr(state_)] {
    if (const auto state = weak.lock()) state->count(&FilterPathObservation::filterEndings);
  });
  state_->processWatch = processWatch_;

  State::assign(state_->rules, openNetlinkNotifications(NETLINK_NETFILTER, ruleGroups));
  if (!state_->rules.is_open()) {
    problems_ = "Deleted rules are not noticed at once: " + lastErrorText() + ".";
  }
  State::assign(state_->directory, openings(directivePath.substr(0, slash)));
  if (!state_->directory.is_open()) {
    if (!problems_.empty()) problems_ += ' ';
    problems_ += "A filter that starts is not noticed at once: " + lastErrorText() + ".";
  }
  concurrency::spawn(state_->strand, State::followRules(state_));
  concurrency::spawn(state_->strand, State::followDirective(state_));
}

SystemFilterPathObserver::~SystemFilterPathObserver() {
  {
    const std::lock_guard lock(state_->mutex);
    for (const auto& channel : state_->channels) channel.finish();
    state_->channels.clear();
  }
  asio::post(state_->strand, [state = state_] { state->close(); });
}

Channel<FilterPathObservation> SystemFilterPathObserver::observations() {
  const std::lock_guard lock(state_->mutex);
  return state_->channels.emplace_back(1);
}

}  // namespace stillow::platform
