#include "StillowFiltering/FlowInspector.hpp"

#include <algorithm>

namespace stillow::filtering {

namespace {

using Disposition = FlowDisposition;

constexpr std::int64_t bytesMax = EvidenceBoundedPolicy::inspectionBytesMax;

bool isInspection(const FlowDisposition& disposition) {
  return core::is<Disposition::allowUnderInspection>(disposition);
}

}  // namespace

FlowDisposition FlowInspector::begin(const core::UUID& flow, Transport transport,
                                     const FlowEvidence& evidence, Moment now) {
  FlowDisposition disposition = classifier_.classify(evidence, now.date).disposition;
  if (!isInspection(disposition)) return disposition;
  if (transport == Transport::other) {
    return classifier_.reclassify(evidence, bytesMax, now.date).disposition;
  }

  const std::scoped_lock guard(lock_);
  expire(now);
  // The system gives each flow an identifier of its own; one that comes again begins again.
  if (const auto again = index_.find(flow); again != index_.end()) {
    decideAsItStands(again->second, now.date);
  }
  if (held_.size() >= heldFlowsMax) decideAsItStands(held_.begin(), now.date);
  Held held{.flow = flow, .address = evidence.remoteAddress, .since = now.steady, .reader = {}};
  if (transport == Transport::datagrams) held.reader.emplace<QUICInitialReader>();
  index_.emplace(flow, held_.insert(held_.end(), held));
  return disposition;
}

FlowDisposition FlowInspector::showOutbound(const core::UUID& flow, std::uint64_t offset,
                                            WireBytes bytes, Moment now) {
  const std::scoped_lock guard(lock_);
  expire(now);
  const auto found = index_.find(flow);
  // It was decided when it lost its place.
  if (found == index_.end()) return Disposition::allowAndRelease{};
  const auto held = found->second;

  std::int64_t inspected = 0;
  std::int64_t peekBytes = bytesMax;
  const NameReading reading = [&] {
    if (auto* const stream = std::get_if<FlowNameReader>(&held->reader)) {
      // Offsets take the place of sequence numbers: the reader looks at the first few thousand.
      const NameReading read = stream->take(
          {.sequence = static_cast<std::uint32_t>(offset), .isSYN = false, .payload = bytes});
      inspected = static_cast<std::int64_t>(stream->inspectedByteCount());
      // What lies beyond the bound is looked at by nobody.
      peekBytes = std::max<std::int64_t>(bytesMax - inspected, 1);
      return read;
    }
    auto& datagrams = std::get<QUICInitialReader>(held->reader);
    const NameReading read = datagrams.take(bytes, crypto_);
    inspected = static_cast<std::int64_t>(datagrams.inspectedByteCount());
    return read;
  }();

  FlowEvidence evidence{.remoteHostname = std::nullopt, .remoteAddress = held->address};
  if (const HostName* const name = reading.name()) evidence.remoteHostname = name->text();
  if (reading.isNone()) inspected = bytesMax;
  const FlowDisposition disposition =
      classifier_.reclassify(evidence, inspected, now.date).disposition;
  if (isInspection(disposition)) return Disposition::allowUnderInspection{peekBytes};
  forget(held);
  return disposition;
}

FlowDisposition FlowInspector::endOutbound(const core::UUID& flow, Moment now) {
  const std::scoped_lock guard(lock_);
  const auto found = index_.find(flow);
  if (found == index_.end()) return Disposition::allowAndRelease{};
  const FlowEvidence evidence{.remoteHostname = std::nullopt,
                              .remoteAddress = found->second->address};
  forget(found->second);
  return classifier_.reclassify(evidence, bytesMax, now.date).disposition;
}

std::size_t FlowInspector::heldCount() const {
  const std::scoped_lock guard(lock_);
  return held_.size();
}

void FlowInspector::expire(Moment now) {
  while (!held_.empty() && now.steady - held_.front().since >= heldLifetime) {
    decideAsItStands(held_.begin(), now.date);
  }
}

void FlowInspector::decideAsItStands(HeldFlows::iterator held, core::Date now) {
  const FlowEvidence evidence{.remoteHostname = std::nullopt, .remoteAddress = held->address};
  // Only for the counters: nobody asks about the flow at this moment.
  (void)classifier_.reclassify(evidence, bytesMax, now);
  forget(held);
}

void FlowInspector::forget(HeldFlows::iterator held) {
  (void)index_.erase(held->flow);
  (void)held_.erase(held);
}

}  // namespace stillow::filtering
