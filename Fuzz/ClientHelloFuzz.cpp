#include <cstdint>
#include <cstdlib>

#include "StillowFiltering/Wire/ClientHelloReader.hpp"

// The input is what a client sent so far. Whatever a shorter prefix answered must be the answer of
// every longer one, and the message reader may not fall over bytes that begin in the middle.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace stillow::filtering;
  const WireBytes stream{data, size};
  const NameReading whole = readClientHello(stream);
  const std::size_t step = size / 16 + 1;
  for (std::size_t prefix = 0; prefix < size; prefix += step) {
    const NameReading reading = readClientHello(stream.first(prefix));
    if (!reading.needsMore() && !(reading == whole)) std::abort();
  }
  (void)readClientHelloMessage(stream);
  return 0;
}
