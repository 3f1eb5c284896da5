#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "../Tests/StillowFiltering/QUICSealing.hpp"
#include "StillowFiltering/Wire/QUICInitialReader.hpp"

// The input is a row of datagrams, each after a byte that says how to deliver it and two bytes of
// length (big end first). An even first byte delivers the bytes as they are. An odd one seals them
// into an Initial first: no fuzzer guesses a tag, and the frames behind it are the longer half of
// the parser. Bits of that byte choose the version, the connection and the packet number's length.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace stillow::filtering;
  using namespace stillow::filtering::testing;
  static QUICInitialCrypto crypto;
  static InitialSealer sealers[]{InitialSealer{QUICVersion::v1}, InitialSealer{QUICVersion::v2},
                                 InitialSealer{QUICVersion::v1, fromHex("0102030405060708090a")},
                                 InitialSealer{QUICVersion::v2, fromHex("0102030405060708090a")}};

  QUICInitialReader reader;
  WireBytes input{data, size};
  std::uint64_t packetNumber = 0;
  bool isGivenUp = false;
  constexpr int datagramsMax = 16;  // More of them only make a round slower.
  for (int count = 0; count < datagramsMax && input.size() > 3; ++count) {
    const std::uint8_t how = input[0];
    const std::size_t announced = static_cast<std::size_t>(input[1]) << 8 | input[2];
    const std::size_t bytes = std::min(announced, input.size() - 3);
    const WireBytes part = input.subspan(3, bytes);
    input = input.subspan(3 + bytes);
    Bytes datagram{part.begin(), part.end()};
    if ((how & 1) != 0) {
      datagram = sealers[how >> 1 & 3].seal(
          std::move(datagram),
          {.packetNumber = packetNumber, .packetNumberBytes = (how >> 3 & 3) + 1U});
      packetNumber += how >> 5;
    }
    // A copy on the heap, so that a read past its end is seen.
    const NameReading reading = reader.take(Bytes{datagram}, crypto);
    if (isGivenUp && !reading.isNone()) std::abort();
    if (isGivenUp || reading.name() != nullptr) break;
    isGivenUp = reading.isNone();
    if (reader.inspectedByteCount() > inspectedBytesMax) std::abort();
    if (isGivenUp && reader.inspectedByteCount() != inspectedBytesMax) std::abort();
  }
  return 0;
}
