#include <map>
#include <random>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "PacketTesting.hpp"
#include "PlatformLinuxFilter/BoundedFlowMap.hpp"
#include "PlatformLinuxFilter/LoopWatchdog.hpp"
#include "PlatformLinuxFilter/ReleasedFlows.hpp"

namespace stillow::platform {
namespace {

using namespace std::chrono_literals;
using testing::flowTo;
using Map = BoundedFlowMap<int>;

const Map::TimePoint start{1'000s};

TEST(BoundedFlowMap, findsWhatWasInserted) {
  Map map({.flowsMax = 4, .lifetime = 10s});
  map.insert(flowTo(1), 11, start);
  map.insert(flowTo(2), 22, start);
  ASSERT_NE(map.find(flowTo(1), start), nullptr);
  EXPECT_EQ(*map.find(flowTo(1), start), 11);
  EXPECT_EQ(*map.find(flowTo(2), start), 22);
  EXPECT_EQ(map.find(flowTo(3), start), nullptr);
  EXPECT_EQ(map.count(), 2U);
}

TEST(BoundedFlowMap, tellsFlowsApartByEveryField) {
  Map map({.flowsMax = 16, .lifetime = 10s});
  const auto key = flowTo(1);
  map.insert(key, 0, start);
  auto other = key;
  other.sourcePort ^= 1;
  EXPECT_EQ(map.find(other, start), nullptr);
  other = key;
  other.destinationPort ^= 1;
  EXPECT_EQ(map.find(other, start), nullptr);
  other = key;
  other.source[3] ^= 1;
  EXPECT_EQ(map.find(other, start), nullptr);
  other = key;
  other.protocol = FlowKey::Protocol::udp;
  EXPECT_EQ(map.find(other, start), nullptr);
  other = key;
  other.isIPv6 = true;
  EXPECT_EQ(map.find(other, start), nullptr);
}

TEST(BoundedFlowMap, givesTheOldestAwayWhenItIsFull) {
  Map map({.flowsMax = 2, .lifetime = 10s});
  map.insert(flowTo(1), 1, start);
  EXPECT_EQ(map.makeRoom(), std::nullopt);
  map.insert(flowTo(2), 2, start + 1s);
  ASSERT_TRUE(map.isFull());
  const auto evicted = map.makeRoom();
  ASSERT_TRUE(evicted);
  EXPECT_EQ(evicted->first, flowTo(1));
  EXPECT_EQ(evicted->second, 1);
  map.insert(flowTo(3), 3, start + 2s);
  EXPECT_EQ(map.find(flowTo(1), start + 2s), nullptr);
  EXPECT_NE(map.find(flowTo(2), start + 2s), nullptr);
  EXPECT_NE(map.find(flowTo(3), start + 2s), nullptr);
}

TEST(BoundedFlowMap, letsValuesExpireAtExactlyTheirLifetime) {
  Map map({.flowsMax = 4, .lifetime = 10s});
  map.insert(flowTo(1), 1, start);
  map.insert(flowTo(2), 2, start + 1s);
  EXPECT_NE(map.find(flowTo(1), start + 9'999ms), nullptr);
  EXPECT_EQ(map.takeExpired(start + 9'999ms), std::nullopt);
  EXPECT_EQ(map.find(flowTo(1), start + 10s), nullptr);
  const auto expired = map.takeExpired(start + 10s);
  ASSERT_TRUE(expired);
  EXPECT_EQ(expired->second, 1);
  EXPECT_EQ(map.takeExpired(start + 10s), std::nullopt);
  EXPECT_EQ(map.count(), 1U);
}

TEST(BoundedFlowMap, retainsWhatItsOwnerKeeps) {
  Map map({.flowsMax = 8, .lifetime = 10s});
  for (std::uint8_t host = 1; host <= 5; ++host) map.insert(flowTo(host), host, start);
  map.retain([](const FlowKey&, int& value) { return value++ % 2 == 0; });
  EXPECT_EQ(map.count(), 2U);
  EXPECT_EQ(*map.find(flowTo(2), start), 3);
  EXPECT_EQ(*map.find(flowTo(4), start), 5);
  EXPECT_EQ(map.find(flowTo(5), start), nullptr);
}

// Few buckets and many keys, so that chains are walked and cut in the middle.
TEST(BoundedFlowMap, agreesWithAPlainMapUnderRandomUse) {
  std::mt19937 random(7);
  constexpr std::size_t flowsMax = 16;
  Map map({.flowsMax = flowsMax, .lifetime = 1'000'000s}, FlowKeyHash(1));
  std::map<std::uint8_t, int> model;
  std::vector<std::uint8_t> order;
  const auto forget = [&](std::uint8_t host) {
    model.erase(host);
    std::erase(order, host);
  };
  for (int round = 0; round < 50'000; ++round) {
    const auto host = static_cast<std::uint8_t>(random() % 40);
    switch (random() % 3) {
      case 0:
        if (model.contains(host)) break;
        if (const auto evicted = map.makeRoom()) {
          ASSERT_EQ(evicted->first, flowTo(order.front()));
          forget(order.front());
        }
        map.insert(flowTo(host), round, start);
        model[host] = round;
        order.push_back(host);
        break;
      case 1:
        ASSERT_EQ(map.take(flowTo(host)).has_value(), model.contains(host));
        forget(host);
        break;
      default: {
        const auto* const value = map.find(flowTo(host), start);
        ASSERT_EQ(value != nullptr, model.contains(host));
        if (value != nullptr) {
          ASSERT_EQ(*value, model.at(host));
        }
      }
    }
    ASSERT_EQ(map.count(), model.size());
    ASSERT_LE(map.count(), flowsMax);
  }
}

using Records = std::vector<std::pair<FlowKey, std::string>>;

Records recordsOf(const ReleasedFlows& flows) {
  Records records;
  flows.visit([&](const FlowKey& key, std::string_view name) { records.emplace_back(key, name); });
  return records;
}

TEST(ReleasedFlows, areVisitedNewestFirst) {
  ReleasedFlows flows;
  flows.record(flowTo(1), "one.example");
  flows.record(flowTo(2), "two.example");
  EXPECT_EQ(recordsOf(flows), (Records{{flowTo(2), "two.example"}, {flowTo(1), "one.example"}}));
}

TEST(ReleasedFlows, showOnlyTheLatestRecordOfAFlow) {
  ReleasedFlows flows;
  flows.record(flowTo(1), "old.example");
  flows.record(flowTo(2), "two.example");
  flows.record(flowTo(1), "new.example");
  EXPECT_EQ(recordsOf(flows), (Records{{flowTo(1), "new.example"}, {flowTo(2), "two.example"}}));
}

TEST(ReleasedFlows, areNotVisitedUnderANameThatANamelessFlowSuperseded) {
  ReleasedFlows flows;
  flows.record(flowTo(1), "old.example");
  flows.record(flowTo(1), "");
  EXPECT_EQ(recordsOf(flows), Records{});
}

TEST(ReleasedFlows, loseTheOldestWhenTheMemoryIsFullAndNothingElse) {
  ReleasedFlows flows(1'024);
  for (std::uint16_t port = 1; port <= 500; ++port) {
    // Lengths that make records end everywhere, and wrap around in the head and in the name.
    flows.record(flowTo(1, port), std::string(port % 97, 'a') + std::to_string(port));
  }
  const auto records = recordsOf(flows);
  ASSERT_EQ(records.size(), flows.count());
  ASSERT_GT(records.size(), 4U);
  for (std::size_t index = 0; index < records.size(); ++index) {
    const auto port = static_cast<std::uint16_t>(500 - index);
    EXPECT_EQ(records[index].first, flowTo(1, port));
    EXPECT_EQ(records[index].second, std::string(port % 97, 'a') + std::to_string(port));
  }
}

TEST(ReleasedFlows, holdTensOfThousandsOfOrdinaryNames) {
  ReleasedFlows flows;
  for (std::uint32_t index = 0; index < 100'000; ++index) {
    flows.record(flowTo(static_cast<std::uint8_t>(index >> 16), static_cast<std::uint16_t>(index)),
                 "some-host.example.com");
  }
  EXPECT_GT(flows.count(), 60'000U);
}

TEST(HangDetector, seesPacketsThatWaitForFiveSeconds) {
  HangDetector detector;
  const HangDetector::Observation stuck{.turns = 7, .isInLongWork = false, .packetsWait = true};
  EXPECT_FALSE(detector.hangs(stuck, start));
  EXPECT_FALSE(detector.hangs(stuck, start + 4'999ms));
  EXPECT_TRUE(detector.hangs(stuck, start + 5s));
}

TEST(HangDetector, isContentWhileTheLoopTurnsOrNobodyWaits) {
  HangDetector detector;
  for (std::uint64_t second = 0; second < 60; ++second) {
    EXPECT_FALSE(detector.hangs({.turns = second / 4, .packetsWait = true},
                                start + std::chrono::seconds(second)));
  }
  for (int second = 60; second < 120; ++second) {
    EXPECT_FALSE(detector.hangs({.turns = 99, .packetsWait = second % 5 != 0},
                                start + std::chrono::seconds(second)));
  }
}

TEST(HangDetector, hasMorePatienceWithLongWork) {
  HangDetector detector;
  const HangDetector::Observation indexing{.turns = 7, .isInLongWork = true, .packetsWait = true};
  EXPECT_FALSE(detector.hangs(indexing, start));
  EXPECT_FALSE(detector.hangs(indexing, start + 59s));
  EXPECT_TRUE(detector.hangs(indexing, start + 60s));
}

}  // namespace
}  // namespace stillow::platform
