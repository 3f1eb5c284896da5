#include "PlatformLinuxFilter/PacketJudge.hpp"

#include <string_view>
#include <utility>

namespace stillow::platform {

namespace {

using filtering::NameReading;

/// How far from a connection's first segment those lie that are still asked about: what a client
/// sends in one go. Another connection between the same ports soon lies further ahead, because the
/// numbers that connections begin with advance by 16 million a second.
constexpr std::uint32_t sequenceWindow = 1U << 16U;

bool isSameFlow(const PacketHeaders& packet, std::uint32_t firstSequence) noexcept {
  if (packet.flow.protocol == FlowKey::Protocol::udp) return true;
  if (packet.isSYN) return packet.sequence == firstSequence;
  const std::uint32_t distance = packet.sequence - firstSequence;
  return distance < sequenceWindow || distance > std::uint32_t{0} - sequenceWindow;
}

filtering::TCPSegment segmentOf(const PacketHeaders& packet) noexcept {
  return {packet.sequence, packet.isSYN, packet.payload};
}

template <class Value>
typename BoundedFlowMap<Value>::Limits limitsFor(const BoundedFlowMap<int>::Limits& limits) {
  return {limits.flowsMax, limits.lifetime};
}

PacketAnswer answerFor(bool isDropped) noexcept {
  return isDropped ? PacketAnswer::drop : PacketAnswer::release;
}

}  // namespace

PacketJudge::PacketJudge(filtering::FlowClassifier& classifier, Limits limits)
    : classifier_(classifier),
      undecided_(limitsFor<Undecided>(limits.undecided)),
      decisions_(limitsFor<Decision>(limits.decisions)),
      released_(limits.releasedFlowsBytes) {}

PacketAnswer PacketJudge::judge(filtering::WireBytes packet, Moment now) {
  expire(now);
  const auto headers = PacketHeaders::read(packet);
  if (!headers || headers->payload.empty()) return PacketAnswer::keepLooking;
  if (const auto answer = earlierAnswer(*headers, now)) return *answer;

  if (auto* const flow = undecided_.find(headers->flow, now.steady)) {
    if (isSameFlow(*headers, flow->firstSequence)) {
      const auto reading = take(*flow, *headers);
      if (reading.needsMore()) return PacketAnswer::keepLooking;
      const auto firstSequence = flow->firstSequence;
      (void)undecided_.take(headers->flow);  // decided now, so its reader has done its work
      return decide(headers->flow, firstSequence, reading, now);
    }
    if (const auto earlier = undecided_.take(headers->flow)) {
      decideAsItStands(headers->flow, *earlier, now);
      (void)decisions_.take(headers->flow);  // about the earlier connection, not about this one
    }
  }
  return judgeFirst(*headers, now);
}

std::optional<PacketAnswer> PacketJudge::earlierAnswer(const PacketHeaders& packet, Moment now) {
  const auto* const decision = decisions_.find(packet.flow, now.steady);
  if (decision == nullptr) return std::nullopt;
  if (isSameFlow(packet, decision->firstSequence) && !isAnotherConnection(packet, *decision)) {
    return answerFor(decision->isDropped);
  }
  (void)decisions_.take(packet.flow);  // the ports are in use again, by another connection
  return std::nullopt;
}

bool PacketJudge::isAnotherConnection(const PacketHeaders& packet,
                                      const Decision& decision) noexcept {
  if (packet.flow.protocol != FlowKey::Protocol::udp || !decision.isDropped) return false;
  filtering::QUICInitialReader reader;
  const auto reading = reader.take(packet.payload, crypto_);
  return reading.name() != nullptr && decision.name != *reading.name();
}

PacketAnswer PacketJudge::judgeFirst(const PacketHeaders& packet, Moment now) {
  // Most hellos are whole in their first packet: try that where it lies, before a place in the
  // table is spent on the flow.
  if (packet.flow.protocol == FlowKey::Protocol::tcp) {
    const auto reading = filtering::readStreamName(packet.payload);
    if (!reading.needsMore()) return decide(packet.flow, packet.sequence, reading, now);
  }
  Undecided flow;
  flow.firstSequence = packet.sequence;
  if (packet.flow.protocol == FlowKey::Protocol::udp) {
    flow.reader.emplace<filtering::QUICInitialReader>();
  }
  const auto reading = take(flow, packet);
  if (!reading.needsMore()) return decide(packet.flow, packet.sequence, reading, now);
  if (const auto evicted = undecided_.makeRoom()) {
    ++evicted_;
    decideAsItStands(evicted->first, evicted->second, now);
  }
  undecided_.insert(packet.flow, flow, now.steady);
  return PacketAnswer::keepLooking;
}

NameReading PacketJudge::take(Undecided& flow, const PacketHeaders& packet) noexcept {
  if (auto* const reader = std::get_if<filtering::FlowNameReader>(&flow.reader)) {
    return reader->take(segmentOf(packet));
  }
  return std::get<filtering::QUICInitialReader>(flow.reader).take(packet.payload, crypto_);
}

PacketAnswer PacketJudge::decide(const FlowKey& key, std::uint32_t firstSequence,
                                 const NameReading& reading, Moment now) {
  filtering::FlowEvidence evidence;
  evidence.remoteAddress = key.remoteAddress();
  const auto* const name = reading.name();
  if (name != nullptr) evidence.remoteHostname = name->text();

  auto classification = classifier_.classify(evidence, now.date);
  using Disposition = filtering::FlowDisposition;
  if (std::holds_alternative<Disposition::allowUnderInspection>(classification.disposition.cases)) {
    // The reader is at its end: no name can follow, which counts as the bound reached.
    classification = classifier_.reclassify(
        evidence, filtering::EvidenceBoundedPolicy::inspectionBytesMax, now.date);
  }
  const bool isDropped =
      std::holds_alternative<Disposition::drop>(classification.disposition.cases);

  (void)decisions_.take(key);
  (void)decisions_.makeRoom();  // the oldest: most likely nothing of that flow will come any more
  auto& decision = decisions_.insert(key, {isDropped, firstSequence, std::nullopt}, now.steady);
  if (name != nullptr) decision.name = *name;
  if (!isDropped) released_.record(key, name != nullptr ? name->text() : std::string_view());
  return answerFor(isDropped);
}

void PacketJudge::decideAsItStands(const FlowKey& key, const Undecided& flow, Moment now) {
  (void)decide(key, flow.firstSequence, NameReading::none{}, now);
}

void PacketJudge::expire(Moment now) {
  while (const auto expired = undecided_.takeExpired(now.steady)) {
    decideAsItStands(expired->first, expired->second, now);
  }
  while (decisions_.takeExpired(now.steady)) {
  }
}

std::vector<FlowKey> PacketJudge::reviseDecisions(Moment now) {
  decisions_.retain([&](const FlowKey&, Decision& decision) {
    if (!decision.name) return true;
    const bool isBlocked = classifier_.blocks(decision.name->text(), now.date);
    // What is no longer blocked is put to the classifier again; what is blocked now is refused
    // without asking, since the rest of its flow shows no name.
    if (!isBlocked && decision.isDropped) return false;
    decision.isDropped = isBlocked;
    return true;
  });
  std::vector<FlowKey> flowsToCut;
  released_.visit([&](const FlowKey& key, std::string_view name) {
    if (classifier_.blocks(name, now.date)) flowsToCut.push_back(key);
  });
  // Once is enough: what is cut now need not be looked at after each further directive.
  for (const auto& key : flowsToCut) released_.record(key, {});
  return flowsToCut;
}

}  // namespace stillow::platform
