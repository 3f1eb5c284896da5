#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_future.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if_tun.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include "NamespaceTesting.hpp"
#include "PlatformLinuxDaemon/BoottimeSleeper.hpp"
#include "PlatformLinuxDaemon/NetworkPathReading.hpp"
#include "PlatformLinuxDaemon/SystemNetworkPathObserver.hpp"
#include "StillowCore/FileDescriptor.hpp"
#include "TestSupport/TemporaryDirectory.hpp"

namespace stillow::platform {
namespace {

using authority::NetworkPathSnapshot;
using std::chrono::milliseconds;
using testing::inOwnNamespaces;
using testing::shell;

NetworkPathSnapshot path(std::set<std::string> interfaces, bool usesVPN = false) {
  const bool isSatisfied = !interfaces.empty();
  return {.isSatisfied = isSatisfied, .usesVPN = usesVPN, .interfaces = std::move(interfaces)};
}

NetworkPathSnapshot present() {
  const auto read = NetworkPathReading::read();
  EXPECT_TRUE(read) << read.error().message();
  return read.value_or(NetworkPathSnapshot{});
}

/// What is read, at last `expected`: the kernel tells a moment later that a link got or lost its
/// carrier (Documentation/networking/operstates.rst).
NetworkPathSnapshot presentAtLast(const NetworkPathSnapshot& expected) {
  const auto patience = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (present() != expected && std::chrono::steady_clock::now() < patience) {
    std::this_thread::yield();
  }
  return present();
}

/// "one" and "two", both up and with a peer, so that they have a carrier.
void makeTwoLinks() {
  for (const std::string name : {"one", "two"}) {
    shell("ip link add " + name + " type veth peer name " + name + "-peer");
    shell("ip link set " + name + " up && ip link set " + name + "-peer up");
  }
  shell("ip address add 192.0.2.1/25 dev one && ip address add 192.0.2.129/25 dev two");
}

// ---- one look

TEST(NetworkPathReading, isNotSatisfiedWithoutADefaultRoute) {
  inOwnNamespaces([] {
    EXPECT_EQ(present(), path({}));
    shell("ip link set lo up");
    makeTwoLinks();
    EXPECT_EQ(present(), path({})) << "links that lead nowhere else";
  });
}

TEST(NetworkPathReading, namesTheLinksThatDefaultRoutesLeadOver) {
  inOwnNamespaces([] {
    makeTwoLinks();
    shell("ip route add default via 192.0.2.2");
    EXPECT_EQ(presentAtLast(path({"one"})), path({"one"}));
    shell("ip route add default via 192.0.2.130 metric 50");
    EXPECT_EQ(presentAtLast(path({"one", "two"})), path({"one", "two"}));
  });
}

TEST(NetworkPathReading, leavesOutALinkThatIsDownOrHasNoCarrier) {
  inOwnNamespaces([] {
    makeTwoLinks();
    shell("ip route add default via 192.0.2.2");
    shell("ip route add default via 192.0.2.130 metric 50");
    shell("ip link set two-peer down");  // the cable is pulled
    EXPECT_EQ(presentAtLast(path({"one"})), path({"one"}));
    shell("ip link set one down");
    EXPECT_EQ(presentAtLast(path({})), path({}));
  });
}

TEST(NetworkPathReading, countsADefaultRouteOfIPv6) {
  inOwnNamespaces([] {
    makeTwoLinks();
    shell("ip -6 address add 2001:db8::1/64 dev two nodad");
    shell("ip -6 route add default via 2001:db8::2");
    EXPECT_EQ(presentAtLast(path({"two"})), path({"two"}));
  });
}

TEST(NetworkPathReading, countsEveryLinkOfARouteWithSeveral) {
  inOwnNamespaces([] {
    makeTwoLinks();
    shell("ip route add default nexthop via 192.0.2.2 nexthop via 192.0.2.130");
    EXPECT_EQ(presentAtLast(path({"one", "two"})), path({"one", "two"}));
  });
}

TEST(NetworkPathReading, countsNoRouteThatLeadsNowhere) {
  inOwnNamespaces([] {
    shell("ip link set lo up");
    shell("ip route add unreachable default");
    shell("ip -6 route add unreachable default");
    EXPECT_EQ(presentAtLast(path({})), path({}));
  });
}

/// A tunnel of this process's, which has a carrier as long as this lives.
class Tunnel {
 public:
  explicit Tunnel(const std::string& name) : device_(::open("/dev/net/tun", O_RDWR | O_CLOEXEC)) {
    ifreq request{};
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    std::strncpy(request.ifr_name, name.c_str(), sizeof request.ifr_name - 1);
    EXPECT_EQ(::ioctl(device_.get(), TUNSETIFF, &request), 0) << std::strerror(errno);
  }

 private:
  core::FileDescriptor device_;
};

TEST(NetworkPathReading, saysVPNWhenATunnelCarriesTraffic) {
  inOwnNamespaces([] {
    makeTwoLinks();
    shell("ip route add default via 192.0.2.2");
    auto tunnel = std::make_unique<Tunnel>("vpn0");
    shell("ip link set vpn0 up && ip address add 198.51.100.1/24 dev vpn0");
    EXPECT_EQ(presentAtLast(path({"one"})), path({"one"})) << "nobody's packets go there yet";
    shell("ip route add 0.0.0.0/1 dev vpn0 && ip route add 128.0.0.0/1 dev vpn0");
    EXPECT_EQ(presentAtLast(path({"one", "vpn0"}, true)), path({"one", "vpn0"}, true));
    tunnel.reset();
    EXPECT_EQ(presentAtLast(path({"one"})), path({"one"}));
  });
}

TEST(NetworkPathReading, countsBothHalvesOfAllAddressesAsADefaultRoute) {
  inOwnNamespaces([] {
    makeTwoLinks();
    shell("ip route add 0.0.0.0/1 via 192.0.2.130 && ip route add 128.0.0.0/1 via 192.0.2.130");
    EXPECT_EQ(presentAtLast(path({"two"})), path({"two"}));
  });
}

TEST(NetworkPathReading, countsADefaultRouteInATableOfItsOwn) {
  inOwnNamespaces([] {
    makeTwoLinks();
    shell("ip route add default via 192.0.2.130 table 51820");
    EXPECT_EQ(presentAtLast(path({"two"})), path({"two"}));
  });
}

// ---- messages as bytes

/// A message as the kernel would send it.
class MessageBytes {
 public:
  template <class Header>
  MessageBytes(std::uint16_t type, Header header) {
    nlmsghdr outer{};
    outer.nlmsg_type = type;
    append(outer);
    append(header);
  }
  MessageBytes& attribute(std::uint16_t type, std::string_view value) {
    nlattr header{};
    header.nla_len = static_cast<std::uint16_t>(sizeof header + value.size());
    header.nla_type = type;
    append(header);
    bytes_ += value;
    bytes_.resize(netlink::aligned(bytes_.size()));
    return *this;
  }
  MessageBytes& attribute(std::uint16_t type, int value) {
    return attribute(type, std::string_view(reinterpret_cast<const char*>(&value), sizeof value));
  }
  std::string finish() {
    const auto length = static_cast<std::uint32_t>(bytes_.size());
    std::memcpy(bytes_.data(), &length, sizeof length);
    return bytes_;
  }

 private:
  template <class T>
  void append(const T& value) {
    bytes_.append(reinterpret_cast<const char*>(&value), sizeof value);
    bytes_.resize(netlink::aligned(bytes_.size()));
  }
  std::string bytes_;
};

std::string linkMessage(int index, const std::string& name, unsigned flags,
                        const std::string& kind = {}) {
  ifinfomsg info{};
  info.ifi_index = index;
  info.ifi_flags = flags;
  MessageBytes message(RTM_NEWLINK, info);
  message.attribute(IFLA_IFNAME, name + '\0');
  if (!kind.empty()) {
    std::string nested(sizeof(nlattr), '\0');
    nlattr header{};
    header.nla_len = static_cast<std::uint16_t>(sizeof header + kind.size() + 1);
    header.nla_type = IFLA_INFO_KIND;
    std::memcpy(nested.data(), &header, sizeof header);
    message.attribute(IFLA_LINKINFO | NLA_F_NESTED, nested + kind + '\0');
  }
  return message.finish();
}

std::string defaultRouteMessage(int index) {
  rtmsg route{};
  route.rtm_table = RT_TABLE_MAIN;
  route.rtm_type = RTN_UNICAST;
  return MessageBytes(RTM_NEWROUTE, route).attribute(RTA_OIF, index).finish();
}

NetworkPathSnapshot readingOf(const std::string& bytes) {
  NetworkPathReading reading;
  forEachNetlinkMessage(bytes, [&reading](const NetlinkMessage& message) { reading.add(message); });
  return reading.snapshot();
}

constexpr unsigned up = IFF_UP | IFF_RUNNING;

TEST(NetworkPathReading, knowsATunnelByItsKind) {
  for (const char* const kind : {"tun", "wireguard", "ppp"}) {
    EXPECT_EQ(readingOf(linkMessage(7, "vpn0", up, kind) + defaultRouteMessage(7)),
              path({"vpn0"}, true))
        << kind;
  }
  for (const char* const kind : {"veth", "bridge", "tunnel"}) {
    EXPECT_EQ(readingOf(linkMessage(7, "eth0", up, kind) + defaultRouteMessage(7)), path({"eth0"}))
        << kind;
  }
}

TEST(NetworkPathReading, takesMessagesThatAreCutAnywhereWithoutHarm) {
  const std::string whole = linkMessage(7, "vpn0", up, "tun") + defaultRouteMessage(7);
  ASSERT_EQ(readingOf(whole), path({"vpn0"}, true));
  for (std::size_t length = 0; length < whole.size(); ++length) {
    // A copy of exactly that size, so that a sanitizer sees every byte beyond.
    const std::vector<char> cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
    NetworkPathReading reading;
    forEachNetlinkMessage({cut.data(), cut.size()},
                          [&reading](const NetlinkMessage& message) { reading.add(message); });
    EXPECT_EQ(reading.snapshot(), path({})) << length;
  }
}

TEST(NetworkPathReading, takesAnyBytesWithoutHarm) {
  std::uint64_t state = 1;
  for (int round = 0; round < 20'000; ++round) {
    std::string bytes = linkMessage(7, "vpn0", up, "tun") + defaultRouteMessage(7);
    for (int change = 0; change < 4; ++change) {
      state = state * 6'364'136'223'846'793'005U + 1'442'695'040'888'963'407U;
      bytes[(state >> 33) % bytes.size()] = static_cast<char>(state >> 56);
    }
    const std::vector<char> exact(bytes.begin(), bytes.end());
    NetworkPathReading reading;
    forEachNetlinkMessage({exact.data(), exact.size()}, [&reading](const NetlinkMessage& message) {
      reading.add(message);
      (void)NetworkPathReading::isRelevant(message);
    });
    (void)reading.snapshot();
  }
}

TEST(NetworkPathReading, passesOverTheRoutesOfSingleNetworks) {
  rtmsg route{};
  const auto isRelevant = [](const std::string& bytes) {
    bool relevant = false;
    forEachNetlinkMessage(bytes, [&relevant](const NetlinkMessage& message) {
      relevant = NetworkPathReading::isRelevant(message);
    });
    return relevant;
  };
  EXPECT_TRUE(isRelevant(MessageBytes(RTM_DELROUTE, route).finish()));
  route.rtm_dst_len = 24;
  EXPECT_FALSE(isRelevant(MessageBytes(RTM_NEWROUTE, route).finish()));
  EXPECT_TRUE(isRelevant(MessageBytes(RTM_DELADDR, ifaddrmsg{}).finish()));
}

// ---- following

/// An observer on real threads.
class Observing {
 public:
  explicit Observing(std::size_t threads = 2) : pool(threads) {}
  ~Observing() {
    observer.reset();
    pool.join();
  }

  /// The next snapshot; none if there is none within half a minute.
  std::optional<NetworkPathSnapshot> next() {
    auto future = boost::asio::co_spawn(pool, channel.next(), boost::asio::use_future);
    if (future.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
      channel.finish();
      ADD_FAILURE() << "no snapshot came";
    }
    return future.get();
  }
  /// Reads until a snapshot is `wanted`: others may be seen on the way.
  bool reaches(const NetworkPathSnapshot& wanted) {
    while (const auto snapshot = next()) {
      if (*snapshot == wanted) return true;
    }
    return false;
  }

  boost::asio::thread_pool pool;
  std::unique_ptr<SystemNetworkPathObserver> observer = std::make_unique<SystemNetworkPathObserver>(
      pool.get_executor(), std::make_shared<BoottimeSleeper>(pool.get_executor()),
      milliseconds(20));
  concurrency::Channel<NetworkPathSnapshot> channel = observer->paths();
};

TEST(SystemNetworkPathObserver, givesThePresentPathAtOnceAndThenEachChange) {
  inOwnNamespaces([] {
    makeTwoLinks();
    shell("ip route add default via 192.0.2.2");
    Observing observing;
    EXPECT_EQ(observing.next(), path({"one"}));
    shell("ip route add default via 192.0.2.130 metric 50");
    EXPECT_TRUE(observing.reaches(path({"one", "two"})));
    shell("ip route del default via 192.0.2.130");
    EXPECT_TRUE(observing.reaches(path({"one"})));
    shell("ip link set one down");
    EXPECT_TRUE(observing.reaches(path({})));
  });
}

TEST(SystemNetworkPathObserver, noticesRoutesThatGoWithTheirAddress) {
  inOwnNamespaces([] {
    makeTwoLinks();
    shell("ip route add default via 192.0.2.2");
    Observing observing;
    EXPECT_EQ(observing.next(), path({"one"}));
    shell("ip address del 192.0.2.1/25 dev one");
    EXPECT_TRUE(observing.reaches(path({})));
  });
}

TEST(SystemNetworkPathObserver, keepsOnlyTheNewestUnreadSnapshot) {
  inOwnNamespaces([] {
    makeTwoLinks();
    shell("ip route add default via 192.0.2.2");
    Observing observing;
    for (int round = 0; round < 5; ++round) {
      shell("ip route add default via 192.0.2.130 metric 50 && sleep 0.05");
      shell("ip route del default via 192.0.2.130 && sleep 0.05");
    }
    shell("ip link set one down");
    EXPECT_TRUE(observing.reaches(path({})));
    EXPECT_EQ(observing.channel.takeReady(), std::nullopt);
  });
}

TEST(SystemNetworkPathObserver, survivesNotificationsThatTheKernelHadToDrop) {
  inOwnNamespaces([] {
    makeTwoLinks();
    shell("ip route add default via 192.0.2.2");
    Observing observing(1);
    EXPECT_EQ(observing.next(), path({"one"}));
    // The only thread is busy while more happens than a socket's buffer holds.
    std::promise<void> release;
    boost::asio::post(observing.pool, [&release] { release.get_future().wait(); });
    const stillow::test::TemporaryDirectory directory;
    {
      std::ofstream batch(directory.path("batch"));
      for (int round = 0; round < 3'000; ++round) {
        batch << "address add 203.0.113.1/32 dev two\naddress del 203.0.113.1/32 dev two\n";
      }
    }
    shell("ip -batch " + directory.path("batch"));
    shell("ip link set one down");
    release.set_value();
    EXPECT_TRUE(observing.reaches(path({})));
  });
}

TEST(SystemNetworkPathObserver, endsItsStreamsWhenItGoes) {
  inOwnNamespaces([] {
    Observing observing;
    EXPECT_EQ(observing.next(), path({}));
    observing.observer.reset();
    EXPECT_EQ(observing.next(), std::nullopt);
  });
}

}  // namespace
}  // namespace stillow::platform
