#include "StillowFiltering/Wire/FlowNameReader.hpp"

#include <algorithm>
#include <type_traits>

#include "StillowFiltering/Wire/ClientHelloReader.hpp"
#include "StillowFiltering/Wire/HTTPHostReader.hpp"

namespace stillow::filtering {

static_assert(std::is_trivially_copyable_v<FlowNameReader>);

NameReading readStreamName(WireBytes prefix) noexcept {
  constexpr std::uint8_t tlsHandshakeRecord = 0x16;
  if (prefix.empty()) return NameReading::needMore{};
  // No HTTP method begins with that byte, so one of the two readers has to know nothing.
  return prefix.front() == tlsHandshakeRecord ? readClientHello(prefix) : readHTTPHost(prefix);
}

NameReading FlowNameReader::take(const TCPSegment& segment) noexcept {
  if (isGivenUp_) return NameReading::none{};

  const std::uint32_t sequence = segment.sequence + (segment.isSYN ? 1U : 0U);
  WireBytes payload = segment.payload;
  if (!base_ && (segment.isSYN || !payload.empty())) base_ = sequence;
  if (payload.empty()) return NameReading::needMore{};
  offeredBytes_ += payload.size();

  // Sequence numbers wrap around: what lies less than half the circle ahead is ahead.
  const auto distance = static_cast<std::int32_t>(sequence - *base_);
  std::size_t offset = 0;
  if (distance >= 0) {
    offset = static_cast<std::size_t>(distance);
  } else {
    const auto before = static_cast<std::size_t>(-static_cast<std::int64_t>(distance));
    payload = payload.subspan(std::min(before, payload.size()));
  }

  if (offset == 0 && assembly_.prefix().empty() && !payload.empty()) {
    // Most flows are settled by their first segment, which is then never copied.
    const NameReading reading = readStreamName(payload);
    if (reading.isNone()) return giveUp();
    if (!reading.needsMore()) return reading;
  }
  if (assembly_.insert(offset, payload)) {
    const NameReading reading = readStreamName(assembly_.prefix());
    if (reading.isNone()) return giveUp();
    if (!reading.needsMore()) return reading;
  }
  return offeredBytes_ >= offeredBytesMax ? giveUp() : NameReading::needMore{};
}

NameReading FlowNameReader::giveUp() noexcept {
  isGivenUp_ = true;
  return NameReading::none{};
}

}  // namespace stillow::filtering
