#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <variant>
#include <vector>

#include "PlatformLinuxFilter/BoundedFlowMap.hpp"
#include "PlatformLinuxFilter/FlowKey.hpp"
#include "PlatformLinuxFilter/PacketHeaders.hpp"
#include "PlatformLinuxFilter/ReleasedFlows.hpp"
#include "StillowCore/Date.hpp"
#include "StillowFiltering/FlowClassifier.hpp"
#include "StillowFiltering/Wire/FlowNameReader.hpp"
#include "StillowFiltering/Wire/QUICInitialReader.hpp"

namespace stillow::platform {

/// What is to become of a packet, and with it of its flow.
enum class PacketAnswer : std::uint8_t {
  keepLooking,  ///< pass; the flow's next packet is wanted too
  release,      ///< pass, and so may the rest of the flow, unseen
  drop,         ///< refuse, and so the rest of the flow
};

/// The time at which a packet is judged: by the wall for the directive, steady for the flow tables.
struct Moment {
  core::Date date;
  std::chrono::steady_clock::time_point steady;
};

/// Decides about flows from the packets that the queue brings.
///
/// A flow is put to the classifier once, when its reader knows the name or knows that none can
/// come; until then its packets pass, since a server cannot answer half a hello. The decision is
/// kept for a while, because packets of a decided flow still come: segments that were queued before
/// the decision took effect, and datagrams of which connection tracking knows nothing (the first
/// one was refused, or two came back to back).
///
/// Memory is bounded whatever is sent: `undecidedFlowsMax` readers of 5 KiB, `decisionsMax`
/// decisions, and `ReleasedFlows`. A flow that is forgotten while undecided is decided as it
/// stands, without a name. Packets without payload leave no trace, so a flood of SYNs costs no
/// memory.
///
/// Not synchronised: belongs to the packet thread, like everything it is made of but the
/// classifier.
class PacketJudge {
 public:
  static constexpr std::size_t undecidedFlowsMax = 1024;
  static constexpr std::chrono::seconds undecidedLifetime{30};
  static constexpr std::size_t decisionsMax = 8192;
  static constexpr std::chrono::seconds decisionLifetime{10};

  struct Limits {
    BoundedFlowMap<int>::Limits undecided{undecidedFlowsMax, undecidedLifetime};
    BoundedFlowMap<int>::Limits decisions{decisionsMax, decisionLifetime};
    std::size_t releasedFlowsBytes = ReleasedFlows::memoryBytesDefault;
  };

  /// `classifier` has to outlive the judge.
  explicit PacketJudge(filtering::FlowClassifier& classifier) : PacketJudge(classifier, Limits{}) {}
  PacketJudge(filtering::FlowClassifier& classifier, Limits limits);

  /// `packet` begins with its IP header and is in the client's direction. Allocates nothing for a
  /// flow that carries a name, except within the classifier for an association that is new.
  [[nodiscard]] PacketAnswer judge(filtering::WireBytes packet, Moment now);

  /// Decides the undecided flows whose time is over and forgets old decisions. Also done by
  /// `judge`; needed now and then while no packets come.
  void expire(Moment now);

  /// To be called when the classifier has taken up another directive: revises the kept decisions
  /// and gives back the released flows that are blocked now, to be cut.
  [[nodiscard]] std::vector<FlowKey> reviseDecisions(Moment now);

  [[nodiscard]] std::size_t undecidedCount() const noexcept { return undecided_.count(); }
  [[nodiscard]] std::size_t decisionCount() const noexcept { return decisions_.count(); }
  /// Flows that lost their place among the undecided to others before they were decided.
  [[nodiscard]] std::uint64_t evictedCount() const noexcept { return evicted_; }

 private:
  struct Undecided {
    std::uint32_t firstSequence = 0;
    std::variant<filtering::FlowNameReader, filtering::QUICInitialReader> reader;
  };
  struct Decision {
    bool isDropped = false;
    std::uint32_t firstSequence = 0;
    std::optional<filtering::HostName> name;
  };

  /// The answer for a flow that was decided lately; forgets a decision about an earlier flow.
  [[nodiscard]] std::optional<PacketAnswer> earlierAnswer(const PacketHeaders& packet, Moment now);
  /// Whether a datagram of a dropped flow opens a connection to another name: some programs send
  /// all they have for an address from one port.
  [[nodiscard]] bool isAnotherConnection(const PacketHeaders& packet,
                                         const Decision& decision) noexcept;
  [[nodiscard]] PacketAnswer judgeFirst(const PacketHeaders& packet, Moment now);
  [[nodiscard]] filtering::NameReading take(Undecided& flow, const PacketHeaders& packet) noexcept;
  PacketAnswer decide(const FlowKey& key, std::uint32_t firstSequence,
                      const filtering::NameReading& reading, Moment now);
  /// Ends the inspection of a flow that showed no name in time.
  void decideAsItStands(const FlowKey& key, const Undecided& flow, Moment now);

  filtering::FlowClassifier& classifier_;
  filtering::QUICInitialCrypto crypto_;
  BoundedFlowMap<Undecided> undecided_;
  BoundedFlowMap<Decision> decisions_;
  ReleasedFlows released_;
  std::uint64_t evicted_ = 0;
};

}  // namespace stillow::platform
