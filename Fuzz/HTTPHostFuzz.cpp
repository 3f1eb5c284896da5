#include <cstdint>
#include <cstdlib>

#include "StillowFiltering/Wire/FlowNameReader.hpp"
#include "StillowFiltering/Wire/HTTPHostReader.hpp"

// The input is what a client sent so far. Whatever a shorter prefix answered must be the answer of
// every longer one; and the flow reader, which gets the bytes in two segments, the later one first,
// must agree.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace stillow::filtering;
  const WireBytes stream{data, size};
  const NameReading whole = readHTTPHost(stream);
  const std::size_t step = size / 16 + 1;
  for (std::size_t prefix = 0; prefix < size; prefix += step) {
    const NameReading reading = readHTTPHost(stream.first(prefix));
    if (!reading.needsMore() && !(reading == whole)) std::abort();
  }

  if (size < 2 || size >= FlowNameReader::offeredBytesMax) return 0;
  const std::size_t cut = 1 + data[0] % (size - 1);
  constexpr std::uint32_t firstSequence = 0xffff'fff0;  // the numbers wrap around
  FlowNameReader flow;
  (void)flow.take({firstSequence - 1, true, {}});
  const NameReading early =
      flow.take({firstSequence + static_cast<std::uint32_t>(cut), false, stream.subspan(cut)});
  if (!early.needsMore()) std::abort();
  if (!(flow.take({firstSequence, false, stream.first(cut)}) == readStreamName(stream)))
    std::abort();
  return 0;
}
