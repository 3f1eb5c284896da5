#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <vector>

#include "PlatformLinuxFilter/PacketHeaders.hpp"
#include "PlatformLinuxFilter/PacketJudge.hpp"
#include "StillowFiltering/FlowClassifier.hpp"

// The input is a row of packets, each after two bytes of length (big end first) of which the
// highest bit lets eleven seconds pass before it. All of them go to one judge, whose tables are
// small enough to be full soon.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace stillow;
  using namespace std::chrono_literals;
  const auto domain = core::Domain::make("example.com");
  const filtering::EnforcementDirective directive{
      .scope = core::Scope{.generation = 1, .domains = core::DomainSet{*domain}},
      .validation = std::nullopt,
      .publishedAt = {0}};
  filtering::FlowClassifier classifier(
      directive, {0}, {.lifetime = 60, .maximumAddresses = 4, .maximumNamesPerAddress = 2});
  platform::PacketJudge judge(classifier, {.undecided = {.flowsMax = 2, .lifetime = 30s},
                                           .decisions = {.flowsMax = 4, .lifetime = 10s},
                                           .releasedFlowsBytes = 1'024});
  platform::Moment now{{0}, std::chrono::steady_clock::time_point{}};

  filtering::WireBytes input{data, size};
  while (input.size() > 2) {
    if ((input[0] & 0x80) != 0) now = {now.date + 11, now.steady + 11s};
    const std::size_t announced = static_cast<std::size_t>(input[0] & 0x7f) << 8 | input[1];
    const std::size_t bytes = std::min(announced, input.size() - 2);
    // A copy on the heap, so that a read past its end is seen.
    const std::vector<std::uint8_t> packet(input.begin() + 2,
                                           input.begin() + 2 + static_cast<std::ptrdiff_t>(bytes));
    input = input.subspan(2 + bytes);

    const auto headers = platform::PacketHeaders::read(packet);
    if (headers && !headers->payload.empty()) {
      const auto* const begin = headers->payload.data();
      if (begin < packet.data() ||
          begin + headers->payload.size() > packet.data() + packet.size()) {
        std::abort();
      }
    }
    const auto answer = judge.judge(packet, now);
    if (!headers && answer != platform::PacketAnswer::keepLooking) std::abort();
    // A decision stands: the same packet again gets the same answer.
    if (answer != platform::PacketAnswer::keepLooking && judge.judge(packet, now) != answer) {
      std::abort();
    }
    if (judge.undecidedCount() > 2 || judge.decisionCount() > 4) std::abort();
    const auto counters = classifier.counters();
    if (counters.flowsHeldForInspection != 0 ||
        counters.flowsClassified != counters.flowsDropped + counters.flowsReleased) {
      std::abort();
    }
  }
  (void)judge.reviseDecisions(now);
  return 0;
}
