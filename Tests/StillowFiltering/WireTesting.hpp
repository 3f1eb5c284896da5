#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "StillowFiltering/Wire/NameReading.hpp"

/// What the tests of the name readers share: hand-made hellos, pieces of
/// streams, readings as text.
namespace stillow::filtering::testing {

using Bytes = std::vector<std::uint8_t>;

inline Bytes bytesOf(std::string_view text) { return {text.begin(), text.end()}; }

inline Bytes fromHex(std::string_view hex) {
  Bytes bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(
        static_cast<std::uint8_t>(std::stoi(std::string{hex.substr(i, 2)}, nullptr, 16)));
  }
  return bytes;
}

inline void append(Bytes& to, WireBytes from) { to.insert(to.end(), from.begin(), from.end()); }

/// Most significant byte first.
inline void appendNumber(Bytes& to, std::uint64_t value, std::size_t byteCount) {
  for (std::size_t i = byteCount; i-- > 0;) {
    to.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
  }
}

/// A reading as text, so that a failing comparison shows the name: "need more", "none" or the name.
inline std::string text(const NameReading& reading) {
  if (const auto* name = reading.name()) return std::string{name->text()};
  return reading.isNone() ? "none" : "need more";
}

struct TestExtension {
  std::uint16_t type = 0;
  Bytes body;
};

inline TestExtension serverName(std::string_view name, std::uint8_t type = 0) {
  TestExtension extension{.type = 0, .body = {}};
  appendNumber(extension.body, name.size() + 3, 2);
  extension.body.push_back(type);
  appendNumber(extension.body, name.size(), 2);
  append(extension.body, bytesOf(name));
  return extension;
}

inline TestExtension encryptedHello() { return {.type = 0xfe0d, .body = Bytes(180, 0x5a)}; }

/// A ClientHello message of those extensions, well-formed apart from what a test puts into them.
inline Bytes helloMessage(const std::vector<TestExtension>& extensions) {
  Bytes body = fromHex("0303");
  body.insert(body.end(), 32, 0x11);  // random
  body.push_back(32);
  body.insert(body.end(), 32, 0x22);  // session id
  append(body, fromHex("00041301c02f"));
  append(body, fromHex("0100"));
  Bytes block;
  for (const auto& extension : extensions) {
    appendNumber(block, extension.type, 2);
    appendNumber(block, extension.body.size(), 2);
    append(block, extension.body);
  }
  appendNumber(body, block.size(), 2);
  append(body, block);
  Bytes message{1};
  appendNumber(message, body.size(), 3);
  append(message, body);
  return message;
}

/// `message` in TLS handshake records of at most `fragmentBytes` each.
inline Bytes inRecords(WireBytes message, std::size_t fragmentBytes = 16'384) {
  Bytes stream;
  while (!message.empty()) {
    const std::size_t size = std::min(fragmentBytes, message.size());
    append(stream, fromHex("160301"));
    appendNumber(stream, size, 2);
    append(stream, message.first(size));
    message = message.subspan(size);
  }
  return stream;
}

/// A piece of a byte stream, for tests that deliver it in pieces.
struct Piece {
  std::size_t offset = 0;
  std::size_t size = 0;
};

/// Pieces that together cover `total` bytes, in random order, some of them twice or overlapping.
template <class Random>
std::vector<Piece> shuffledPieces(std::size_t total, std::size_t pieceBytesMax, Random& random) {
  std::vector<Piece> pieces;
  for (std::size_t at = 0; at < total;) {
    const std::size_t size =
        std::min<std::size_t>(1 + random() % std::max<std::size_t>(pieceBytesMax, 1), total - at);
    const std::size_t overlap = random() % 3 == 0 ? std::min<std::size_t>(at, random() % 40) : 0;
    pieces.push_back({at - overlap, size + overlap});
    if (random() % 8 == 0) pieces.push_back({at, size});
    at += size;
  }
  for (std::size_t i = pieces.size(); i > 1; --i) std::swap(pieces[i - 1], pieces[random() % i]);
  return pieces;
}

}  // namespace stillow::filtering::testing
