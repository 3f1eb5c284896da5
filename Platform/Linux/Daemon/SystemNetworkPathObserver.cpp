#include "PlatformLinuxDaemon/SystemNetworkPathObserver.hpp"

#include <array>
#include <cerrno>
#include <optional>
#include <string_view>
#include <utility>

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/strand.hpp>
#include <boost/system/error_code.hpp>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include "PlatformLinuxDaemon/NetworkPathReading.hpp"
#include "StillowCore/FileDescriptor.hpp"

namespace stillow::platform {

namespace {

namespace asio = boost::asio;
using authority::NetworkPathSnapshot;
using concurrency::Cancellation;
using concurrency::Channel;
using concurrency::SleepOutcome;
using concurrency::Task;
using Descriptor = asio::posix::stream_descriptor;

constexpr std::array groups{static_cast<int>(RTNLGRP_LINK), static_cast<int>(RTNLGRP_IPV4_IFADDR),
                            static_cast<int>(RTNLGRP_IPV6_IFADDR),
                            static_cast<int>(RTNLGRP_IPV4_ROUTE),
                            static_cast<int>(RTNLGRP_IPV6_ROUTE)};

/// Empties the socket; true if the path may have changed, or if notifications were lost.
bool takeChanges(int socket) {
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
      isConcerned = isConcerned || NetworkPathReading::isRelevant(message);
    });
  }
}

}  // namespace

/// One stream and the socket behind it. Touched on its strand only, but for channel and
/// cancellation.
struct SystemNetworkPathObserver::Observation {
  using WatchStrand = asio::strand<concurrency::Executor>;

  Observation(const WatchStrand& serial, std::shared_ptr<concurrency::Sleeper> naps)
      : strand(serial), sleeper(std::move(naps)), events(serial) {}

  static Task<void> follow(std::shared_ptr<Observation> self, std::chrono::nanoseconds settling) {
    // The socket was opened before: what changes during this look is notified.
    self->look();
    while (self->events.is_open()) {
      boost::system::error_code error;
      co_await self->events.async_wait(Descriptor::wait_read,
                                       asio::redirect_error(asio::use_awaitable, error));
      if (error || !self->events.is_open()) co_return;
      if (!takeChanges(self->events.native_handle())) continue;
      const SleepOutcome slept = co_await self->sleeper->sleep(settling, self->ended);
      if (slept == SleepOutcome::cancelled || !self->events.is_open()) co_return;
      (void)takeChanges(self->events.native_handle());
      self->look();
    }
  }

  void look() {
    auto read = NetworkPathReading::read();
    // Without an answer the last one stands; the next change asks again.
    if (!read || last == *read) return;
    last = std::move(*read);
    if (!channel.give(*last)) close();
  }

  void close() {
    boost::system::error_code ignored;  // closed is closed
    (void)events.close(ignored);
  }

  WatchStrand strand;
  std::shared_ptr<concurrency::Sleeper> sleeper;
  Channel<NetworkPathSnapshot> channel{1};
  Cancellation ended;
  Descriptor events;
  std::optional<NetworkPathSnapshot> last;
};

SystemNetworkPathObserver::SystemNetworkPathObserver(concurrency::Executor executor,
                                                     std::shared_ptr<concurrency::Sleeper> sleeper,
                                                     std::chrono::nanoseconds settling)
    : executor_(std::move(executor)), sleeper_(std::move(sleeper)), settling_(settling) {}

SystemNetworkPathObserver::~SystemNetworkPathObserver() {
  const std::lock_guard lock(mutex_);
  for (const auto& weak : observations_) {
    const auto observation = weak.lock();
    if (!observation) continue;
    observation->channel.finish();
    observation->ended.cancel();
    asio::post(observation->strand, [observation] { observation->close(); });
  }
}

Channel<NetworkPathSnapshot> SystemNetworkPathObserver::paths() {
  const auto observation = std::make_shared<Observation>(asio::make_strand(executor_), sleeper_);
  if (core::FileDescriptor socket = openNetlinkNotifications(NETLINK_ROUTE, groups)) {
    boost::system::error_code error;
    (void)observation->events.assign(socket.get(), error);
    if (!error) (void)socket.release();
  }
  {
    const std::lock_guard lock(mutex_);
    std::erase_if(observations_, [](const auto& weak) { return weak.expired(); });
    observations_.push_back(observation);
  }
  concurrency::spawn(observation->strand, Observation::follow(observation, settling_));
  return observation->channel;
}

}  // namespace stillow::platform
